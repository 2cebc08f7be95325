// Demo section: UDP select endpoints in pull and callback mode, and a broadcast that stays on the
// loopback interface because its sender is bound to 127.0.0.1.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "Demo.h"
#include "Ombrelt_NetCore.h"

namespace {

int BoundPort(int hSocket) {
    struct sockaddr_in st_Addr {};
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    return ntohs(st_Addr.sin_port);
}

// A free port for an endpoint that must be bound to a known number.
int FreePort() {
    int hProbe = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in st_Addr {};
    st_Addr.sin_family = AF_INET;
    bind(hProbe, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
    int nPort = BoundPort(hProbe);
    NetCore_Socket_Close(hProbe);
    return nPort;
}

std::atomic<int> g_nDelivered{0};

void OnDatagram(const char* lpszAddr, int hSocket, const char* lpszMsg, int nLen, void* lParam) {
    printf("  callback: %d bytes \"%.*s\" from %s on socket %d (%s)\n", nLen, nLen, lpszMsg, lpszAddr, hSocket,
           static_cast<const char*>(lParam));
    g_nDelivered++;
}

bool WaitDelivered(int nCount) {
    for (int i = 0; i < 200 && g_nDelivered < nCount; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return g_nDelivered >= nCount;
}

void DemoUDPSelect() {
    printf("UDP select endpoints on 127.0.0.1\n");
    int nPort = FreePort();
    void* hServer = NetCore_UDPSelect_Start(nPort, AF_INET);
    Report("start an endpoint bound to a free port", hServer != nullptr);
    void* hClient = NetCore_UDPSelect_Start(0, AF_INET);
    Report("start an unbound endpoint for sending", hClient != nullptr);
    if (hServer == nullptr || hClient == nullptr) {
        NetCore_UDPSelect_Stop(hServer);
        NetCore_UDPSelect_Stop(hClient);
        return;
    }

    const char* lpszHello = "hello, endpoint";
    Report("send a datagram", NetCore_UDPSelect_Send(hClient, lpszHello, strlen(lpszHello), "127.0.0.1", nPort));
    char tszAddr[128] = {};
    char tszBuffer[256] = {};
    int nLen = sizeof(tszBuffer) - 1;
    Report("pull it (100 ms wait)", NetCore_UDPSelect_Recv(hServer, tszAddr, tszBuffer, &nLen, true));
    printf("  pulled %d bytes \"%s\" from %s\n", nLen, tszBuffer, tszAddr);
    nLen = sizeof(tszBuffer) - 1;
    bool bOk = NetCore_UDPSelect_Recv(hServer, tszAddr, tszBuffer, &nLen, true);
    printf("  pulling again with nothing there: %s, code 0x%08llX (the wait timed out)\n", bOk ? "true" : "false",
           NetCore_GetLastError(nullptr));

    static char tszTag[] = "callback mode";
    Report("register a callback", NetCore_UDPSelect_RegisterCallBack(hServer, OnDatagram, tszTag));
    NetCore_UDPSelect_Send(hClient, "one", 3, "127.0.0.1", nPort);
    NetCore_UDPSelect_Send(hClient, "two", 3, "127.0.0.1", nPort);
    Report("both datagrams reach the callback", WaitDelivered(2));
    nLen = sizeof(tszBuffer) - 1;
    bOk = NetCore_UDPSelect_Recv(hServer, tszAddr, tszBuffer, &nLen, true);
    printf("  pulling in callback mode: %s, code 0x%08llX (refused)\n", bOk ? "true" : "false",
           NetCore_GetLastError(nullptr));

    Report("stop both endpoints", NetCore_UDPSelect_Stop(hServer) && NetCore_UDPSelect_Stop(hClient));
}

void DemoBroadCast() {
    printf("Broadcast kept on loopback\n");
    // The listener takes any address so that a datagram to 255.255.255.255 is addressed to it;
    // the sender, bound to 127.0.0.1, sends out of the loopback interface only.
    int hListener = -1;
    Report("create a listener on any address", NetCore_BroadCast_Create(&hListener, 0, nullptr));
    int nPort = BoundPort(hListener);
    int hSender = -1;
    Report("create a sender on 127.0.0.1, same port", NetCore_BroadCast_Create(&hSender, nPort, "127.0.0.1"));
    printf("  both on port %d\n", nPort);

    const char* lpszHello = "anyone there?";
    Report("broadcast a datagram", NetCore_BroadCast_Send(hSender, lpszHello, strlen(lpszHello)));
    char tszAddr[128] = {};
    char tszBuffer[256] = {};
    int nLen = sizeof(tszBuffer) - 1;
    Report("the listener receives it", NetCore_BroadCast_Recv(hListener, tszBuffer, &nLen, tszAddr, 500));
    printf("  received %d bytes \"%s\" from %s\n", nLen, tszBuffer, tszAddr);
    printf("  the error flag after a successful broadcast receive reads %d (it always does)\n", NetCore_IsErrorOccur);

    NetCore_BroadCast_Close(hSender);
    NetCore_BroadCast_Close(hListener);
}

}  // namespace

void DemoDatagram() {
    DemoUDPSelect();
    DemoBroadCast();
}
