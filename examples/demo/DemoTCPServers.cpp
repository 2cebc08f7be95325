// Demo section: the poll() and select() TCP servers, each with one client on loopback.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>

#include "Demo.h"
#include "Ombrelt_BaseLib.h"
#include "Ombrelt_NetCore.h"

namespace {

std::atomic<int> g_nLogins{0}, g_nMessages{0}, g_nLeaves{0};

bool OnLogin(const char* lpszClientAddr, int, void*) {
    printf("  login callback: %s\n", lpszClientAddr);
    g_nLogins++;
    return true;
}
void OnRecv(const char* lpszClientAddr, int, const char* lpszMsgBuffer, int nMsgLen, void*) {
    printf("  receive callback: %s sent \"%.*s\"\n", lpszClientAddr, nMsgLen, lpszMsgBuffer);
    g_nMessages++;
}
void OnLeave(const char* lpszClientAddr, int, void*) {
    printf("  leave callback: %s\n", lpszClientAddr);
    g_nLeaves++;
}

bool WaitUntil(const std::function<bool()>& fnDone) {
    auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!fnDone()) {
        if (std::chrono::steady_clock::now() > tEnd) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// A free port: bind port 0, read it back, let it go.
int FreePort() {
    int hSocket = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in st_Addr {};
    st_Addr.sin_family = AF_INET;
    st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    close(hSocket);
    return ntohs(st_Addr.sin_port);
}

// Connects to 127.0.0.1:nPort and writes the client's own address text into tszAddr.
int ConnectClient(int nPort, char* tszAddr, size_t nSize) {
    int hSocket = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in st_Addr {};
    st_Addr.sin_family = AF_INET;
    st_Addr.sin_port = htons(static_cast<uint16_t>(nPort));
    st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    char tszIP[32];
    inet_ntop(AF_INET, &st_Addr.sin_addr, tszIP, sizeof(tszIP));
    snprintf(tszAddr, nSize, "%s:%d", tszIP, ntohs(st_Addr.sin_port));
    return hSocket;
}

bool ReadReply(int hSocket, const char* lpszExpected) {
    struct pollfd st_Poll {
        hSocket, POLLIN, 0
    };
    char tszBuffer[64] = {};
    if (poll(&st_Poll, 1, 5000) != 1) return false;
    return recv(hSocket, tszBuffer, sizeof(tszBuffer) - 1, 0) > 0 && strcmp(tszBuffer, lpszExpected) == 0;
}

void DemoPollServer() {
    printf("poll() TCP server\n");
    int nPort = FreePort();
    Report("register the three callbacks",
           NetCore_TCPXPoll_RegisterCallBack(OnLogin, OnRecv, OnLeave, nullptr, nullptr, nullptr));
    Report("start on a free port, 10 clients", NetCore_TCPXPoll_Start(nPort, 10, 2));
    char tszAddr[64];
    int hClient = ConnectClient(nPort, tszAddr, sizeof(tszAddr));
    Report("a client logs in", WaitUntil([] { return g_nLogins == 1; }));
    send(hClient, "hello", 5, 0);
    Report("its message arrives", WaitUntil([] { return g_nMessages == 1; }));
    Report("answer it by its address", NetCore_TCPXPoll_Send(tszAddr, "hi!", 3) && ReadReply(hClient, "hi!"));
    char** ppszList = nullptr;
    int nCount = 0;
    Report("list the clients", NetCore_TCPXPoll_GetList(&ppszList, &nCount) && nCount == 1);
    printf("  clients: %d, first %s\n", nCount, nCount > 0 ? ppszList[0] : "-");
    BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppszList), nCount);
    unsigned long long nUp = 0, nDown = 0;
    NetCore_TCPXPoll_GetNetFlow(&nUp, &nDown);
    printf("  flow counters: %llu / %llu (sent and received bytes share the second)\n", nUp, nDown);
    close(hClient);
    Report("the client leaves", WaitUntil([] { return g_nLeaves == 1; }));
    Report("stop", NetCore_TCPXPoll_Stop(true));
}

void DemoSelectServer() {
    printf("select() TCP server, events pulled from its queue\n");
    int nPort = FreePort();
    Report("start on a free port, 100 ms select", NetCore_TCPSelect_Start(nPort, 100, false, 2));
    char tszAddr[64];
    int hClient = ConnectClient(nPort, tszAddr, sizeof(tszAddr));
    send(hClient, "ping", 4, 0);
    char tszEventAddr[64] = "";
    char tszUnused[1];
    int nLen = 0;
    unsigned long dwType = 0x100;  // data events only
    Report("pull the data event", WaitUntil([&] {
               tszEventAddr[0] = '\0';
               dwType = 0x100;
               return NetCore_TCPSelect_ReadIOEvent(tszEventAddr, tszUnused, &nLen, &dwType);
           }));
    printf("  event 0x%lX from %s, %d bytes\n", dwType, tszEventAddr, nLen);
    Report("answer it", NetCore_TCPSelect_Send(tszAddr, "pong", 4) && ReadReply(hClient, "pong"));
    Report("remove the client (no departure event)", NetCore_TCPSelect_RemoveClient(tszAddr));
    dwType = 0;
    tszEventAddr[0] = '\0';
    Report("the arrival event is still queued",
           NetCore_TCPSelect_ReadIOEvent(tszEventAddr, tszUnused, &nLen, &dwType) && dwType == 0x01);
    close(hClient);
    Report("stop", NetCore_TCPSelect_Stop(true));
}

}  // namespace

void DemoTCPServers() {
    DemoPollServer();
    DemoSelectServer();
}
