// A UDP echo server on the UDP epoll server: every datagram goes back to its sender.
//
// Usage: udp_echo [port, default 0 = any free port] [seconds to run, default 10]
// Try it with: echo hello | nc -u -w1 127.0.0.1 <port>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Ombrelt_NetCore.h"

namespace {

// Runs on the server's receive threads.
void OnDatagram(const char* lpszClientAddr, int, const char* lpszMsgBuffer, int nMsgLen, void* lParam) {
    if (lpszMsgBuffer == nullptr) return;  // a receive error
    if (!NetCore_UDPXCore_SendEx(lParam, lpszClientAddr, lpszMsgBuffer, nMsgLen)) {
        printf("echo to %s failed: 0x%08llX\n", lpszClientAddr, NetCore_GetLastError(nullptr));
    }
}

}  // namespace

int main(int argc, char** argv) {
    int nPort = argc > 1 ? atoi(argv[1]) : 0;
    int nSeconds = argc > 2 ? atoi(argv[2]) : 10;
    void* xhToken = NetCore_UDPXCore_StartEx(nPort, 2, 5, AF_INET);
    if (xhToken == nullptr) {
        printf("start failed: 0x%08llX\n", NetCore_GetLastError(nullptr));
        return 1;
    }
    NetCore_UDPXCore_RegisterCallBackEx(xhToken, OnDatagram, xhToken);
    int hSocket = -1;
    NetCore_UDPXCore_GetSocketEx(xhToken, &hSocket);
    sockaddr_in st_Addr{};
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    printf("echoing on udp port %d for %d s\n", ntohs(st_Addr.sin_port), nSeconds);

    std::this_thread::sleep_for(std::chrono::seconds(nSeconds));
    unsigned long long nSendBytes = 0, nRecvBytes = 0, nSendPackets = 0, nRecvPackets = 0;
    NetCore_UDPXCore_GetFlowEx(xhToken, &nSendBytes, &nRecvBytes, &nSendPackets, &nRecvPackets);
    printf("received %llu datagrams (%llu bytes), sent %llu (%llu bytes)\n", nRecvPackets, nRecvBytes, nSendPackets,
           nSendBytes);
    NetCore_UDPXCore_DestroyEx(xhToken, true);
    return 0;
}
