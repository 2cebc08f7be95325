// Demo section: the UDP epoll server echoing a burst of datagrams from a loopback client.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "Demo.h"
#include "Ombrelt_NetCore.h"

namespace {

void OnDatagram(const char* lpszClientAddr, int, const char* lpszMsgBuffer, int nMsgLen, void* lParam) {
    if (lpszMsgBuffer != nullptr) NetCore_UDPXCore_SendEx(lParam, lpszClientAddr, lpszMsgBuffer, nMsgLen);
}

}  // namespace

void DemoUDPXCore() {
    printf("UDP epoll server on 127.0.0.1 (4 receive threads)\n");
    void* xhToken = NetCore_UDPXCore_StartEx(0, 4, 1, AF_INET);
    Report("start the server on a free port", xhToken != nullptr);
    if (xhToken == nullptr) return;
    Report("register the echo callback", NetCore_UDPXCore_RegisterCallBackEx(xhToken, OnDatagram, xhToken));
    int hServer = -1;
    NetCore_UDPXCore_GetSocketEx(xhToken, &hServer);
    sockaddr_in st_Addr{};
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hServer, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

    int hClient = socket(AF_INET, SOCK_DGRAM, 0);
    connect(hClient, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
    constexpr int kDatagrams = 5000;
    int nEchoes = 0;
    char tszBuffer[2048];
    pollfd st_Poll{hClient, POLLIN, 0};
    auto st_Start = std::chrono::steady_clock::now();
    for (int i = 0; i < kDatagrams; i++) {
        std::string st_Message = "datagram " + std::to_string(i);
        send(hClient, st_Message.data(), st_Message.size(), 0);
        // a window of 16 keeps loopback buffers from overflowing
        while (i - nEchoes >= 16 && poll(&st_Poll, 1, 200) == 1) {
            if (recv(hClient, tszBuffer, sizeof(tszBuffer), 0) > 0) nEchoes++;
        }
    }
    while (nEchoes < kDatagrams && poll(&st_Poll, 1, 200) == 1) {
        if (recv(hClient, tszBuffer, sizeof(tszBuffer), 0) > 0) nEchoes++;
    }
    double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - st_Start).count();
    close(hClient);
    printf("  %d of %d datagrams echoed in %.2f s (%.0f round trips/s)\n", nEchoes, kDatagrams, dSeconds,
           nEchoes / dSeconds);
    Report("every datagram came back", nEchoes == kDatagrams);
    unsigned long long nSendBytes = 0, nRecvBytes = 0, nSendPackets = 0, nRecvPackets = 0;
    NetCore_UDPXCore_GetFlowEx(xhToken, &nSendBytes, &nRecvBytes, &nSendPackets, &nRecvPackets);
    printf("  server flow: received %llu datagrams / %llu bytes, sent %llu / %llu bytes\n", nRecvPackets, nRecvBytes,
           nSendPackets, nSendBytes);
    Report("stop the server", NetCore_UDPXCore_DestroyEx(xhToken, true));
}
