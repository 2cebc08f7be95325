// A UDX endpoint that echoes every message back to its peer, and a peer that talks to it.
//
// Usage: udx_echo [messages]     (default 10)
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "../tools/udxpeer/UDXPeer.h"
#include "Ombrelt_NetCore.h"

namespace {

std::atomic<bool> g_bRun{true};
std::string g_strPeer;

bool OnLogin(char const* lpszAddr, int, void*) {
    printf("endpoint: %s connected\n", lpszAddr);
    return true;
}

void OnLeave(char const* lpszAddr, int, void*) {
    printf("endpoint: %s left\n", lpszAddr);
}

int FreePort() {
    int hSocket = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in st_Addr{};
    st_Addr.sin_family = AF_INET;
    bind(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    close(hSocket);
    return ntohs(st_Addr.sin_port);
}

}  // namespace

int main(int argc, char** argv) {
    const int nMessages = argc > 1 ? atoi(argv[1]) : 10;
    tag_NetCore_UDXConfig st_Config{};
    st_Config.bHeartBeat = true;
    st_Config.bOrder = true;
    st_Config.bReliable = true;
    st_Config.nWindowSize = 0;
    const int nPort = FreePort();
    void* xhUDX = NetCore_UDXSocket_InitEx(&st_Config, nPort, 1);
    if (xhUDX == nullptr) {
        printf("init failed: 0x%08llX\n", NetCore_GetLastError(nullptr));
        return 1;
    }
    NetCore_UDXSocket_CBSetEx(xhUDX, OnLogin, OnLeave, nullptr, nullptr);

    udxpeer::Peer st_Peer;
    if (!st_Peer.Open(nPort) || !st_Peer.Connect(std::chrono::seconds(5))) {
        printf("peer could not connect\n");
        NetCore_UDXSocket_DestroyEx(xhUDX);
        return 1;
    }
    g_strPeer = st_Peer.LocalAddr();

    // the application's side of the endpoint: fetch and answer
    std::thread st_Echo([xhUDX] {
        char tszBuffer[2048];
        int nLen = 0;
        while (g_bRun) {
            if (NetCore_UDXSocket_RecvEx(xhUDX, g_strPeer.c_str(), tszBuffer, &nLen)) {
                NetCore_UDXSocket_SendEx(xhUDX, g_strPeer.c_str(), tszBuffer, nLen);
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    });

    int nEchoed = 0;
    for (int i = 0; i < nMessages; ++i) {
        std::string strMsg = "message " + std::to_string(i);
        st_Peer.Send(strMsg);
        std::string strEcho;
        if (st_Peer.Recv(&strEcho, std::chrono::seconds(5)) && strEcho == strMsg) ++nEchoed;
        printf("peer: sent \"%s\", got \"%s\"\n", strMsg.c_str(), strEcho.c_str());
    }
    g_bRun = false;
    st_Echo.join();
    st_Peer.Stop();
    NetCore_UDXSocket_DestroyEx(xhUDX);
    printf("%d of %d messages echoed\n", nEchoed, nMessages);
    return nEchoed == nMessages ? 0 : 1;
}
