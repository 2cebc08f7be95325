// Demo section: the UDP epoll server, answering datagrams by their sender's address text.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "Demo.h"
#include "Ombrelt_NetCore.h"

namespace {

struct EchoContext {
    void* xhServer = nullptr;
    std::atomic<int> nReceived{0};
};

void OnDatagram(const char* lpszClientAddr, int hSocket, const char* lpszMsgBuffer, int nMsgLen, void* lParam) {
    (void)hSocket;
    EchoContext* pSt_Context = static_cast<EchoContext*>(lParam);
    if (nMsgLen <= 0) return;
    pSt_Context->nReceived++;
    printf("  server got %d bytes from %s, echoing\n", nMsgLen, lpszClientAddr);
    NetCore_UDPXCore_SendEx(pSt_Context->xhServer, lpszClientAddr, lpszMsgBuffer, nMsgLen);
}

}  // namespace

void DemoUDPXCore() {
    printf("UDP epoll server on 127.0.0.1\n");
    EchoContext st_Context;
    st_Context.xhServer = NetCore_UDPXCore_StartEx(0, 2, 10, AF_INET);
    Report("start a server with 2 receive threads", st_Context.xhServer != nullptr);
    if (st_Context.xhServer == nullptr) return;
    Report("register the receive callback",
           NetCore_UDPXCore_RegisterCallBackEx(st_Context.xhServer, &OnDatagram, &st_Context));
    int hSocket = -1;
    NetCore_UDPXCore_GetSocketEx(st_Context.xhServer, &hSocket);
    struct sockaddr_in st_Addr {};
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    printf("  serving port %d\n", ntohs(st_Addr.sin_port));

    int hClient = socket(AF_INET, SOCK_DGRAM, 0);
    struct timeval st_Wait {
        2, 0
    };
    setsockopt(hClient, SOL_SOCKET, SO_RCVTIMEO, &st_Wait, sizeof(st_Wait));
    const char* lpszHello = "datagram to the server";
    sendto(hClient, lpszHello, strlen(lpszHello), 0, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
    char tszReply[64] = {};
    ssize_t nRet = recv(hClient, tszReply, sizeof(tszReply) - 1, 0);
    Report("the client receives the echo", nRet > 0 && strcmp(tszReply, lpszHello) == 0);

    unsigned long long nSendBytes = 0, nRecvBytes = 0, nSendPackets = 0, nRecvPackets = 0;
    Report("read the flow totals",
           NetCore_UDPXCore_GetFlowEx(st_Context.xhServer, &nSendBytes, &nRecvBytes, &nSendPackets, &nRecvPackets));
    printf("  received %llu datagram(s) / %llu bytes, sent %llu / %llu bytes\n", nRecvPackets, nRecvBytes, nSendPackets,
           nSendBytes);
    bool bOk = NetCore_UDPXCore_GetTimeEx(nullptr, &nRecvBytes, &nSendBytes);
    printf("  a null handle: %s, code 0x%08llX\n", bOk ? "true" : "false", NetCore_GetLastError(nullptr));
    Report("destroy the server", NetCore_UDPXCore_DestroyEx(st_Context.xhServer, true));
    close(hClient);
}
