// A UDP echo server on the UDP epoll server: every datagram is answered, from the receive
// callback, to the address text the callback was given.
//
// Usage: udp_echo [port [seconds]]
//   With a port, serves that port (IPv4) for the given seconds (default 30); try
//   "socat - UDP:127.0.0.1:<port>". Without one, serves a free port and checks itself with one
//   datagram from a local client.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "Ombrelt_NetCore.h"

namespace {

void OnRecv(const char* lpszClientAddr, int hSocket, const char* lpszMsgBuffer, int nMsgLen, void* lParam) {
    (void)hSocket;
    if (nMsgLen < 0) {
        printf("receive error on the server socket\n");
        return;
    }
    printf("%d bytes from %s\n", nMsgLen, lpszClientAddr);
    // lParam is the server's own handle, registered with the callback
    if (!NetCore_UDPXCore_SendEx(lParam, lpszClientAddr, lpszMsgBuffer, nMsgLen)) {
        printf("echo to %s failed: 0x%llX\n", lpszClientAddr, NetCore_GetLastError(nullptr));
    }
}

}  // namespace

int main(int argc, char** argv) {
    int nPort = argc > 1 ? atoi(argv[1]) : 0;
    int nSeconds = argc > 2 ? atoi(argv[2]) : 30;

    void* xhServer = NetCore_UDPXCore_StartEx(nPort, 2, 10, AF_INET);
    if (xhServer == nullptr) {
        int nSysError = 0;
        unsigned long long nCode = NetCore_GetLastError(&nSysError);
        printf("start failed: code 0x%llX, errno %d (%s)\n", nCode, nSysError, strerror(nSysError));
        return 1;
    }
    NetCore_UDPXCore_RegisterCallBackEx(xhServer, &OnRecv, xhServer);
    int hSocket = -1;
    NetCore_UDPXCore_GetSocketEx(xhServer, &hSocket);
    struct sockaddr_in st_Addr {};
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    printf("echoing on UDP port %d\n", ntohs(st_Addr.sin_port));

    int nResult = 0;
    if (nPort > 0) {
        std::this_thread::sleep_for(std::chrono::seconds(nSeconds));
    } else {
        int hClient = socket(AF_INET, SOCK_DGRAM, 0);
        st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        struct timeval st_Wait {
            2, 0
        };
        setsockopt(hClient, SOL_SOCKET, SO_RCVTIMEO, &st_Wait, sizeof(st_Wait));
        const char* lpszHello = "hello, echo";
        sendto(hClient, lpszHello, strlen(lpszHello), 0, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
        char tszReply[64] = {};
        ssize_t nRet = recv(hClient, tszReply, sizeof(tszReply) - 1, 0);
        printf("client got back: \"%s\"\n", nRet > 0 ? tszReply : "(nothing)");
        nResult = (nRet > 0 && strcmp(tszReply, lpszHello) == 0) ? 0 : 1;
        close(hClient);
    }

    unsigned long long nSendBytes = 0, nRecvBytes = 0, nSendPackets = 0, nRecvPackets = 0;
    NetCore_UDPXCore_GetFlowEx(xhServer, &nSendBytes, &nRecvBytes, &nSendPackets, &nRecvPackets);
    printf("received %llu datagrams (%llu bytes), sent %llu (%llu bytes)\n", nRecvPackets, nRecvBytes, nSendPackets,
           nSendBytes);
    NetCore_UDPXCore_DestroyEx(xhServer, true);
    return nResult;
}
