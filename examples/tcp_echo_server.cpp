// A TCP echo server on the epoll server: every byte a client sends comes straight back.
//
// Usage: tcp_echo_server [port] [seconds]
//   port     TCP port to listen on (default 5000)
//   seconds  stop after this many seconds (default: run until interrupted)
// Try it with: nc 127.0.0.1 5000
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "Ombrelt_NetCore.h"

namespace {

std::atomic<bool> g_bRun{true};

void OnSignal(int) {
    g_bRun = false;
}

// The callbacks run on the server's event threads; the context is the server handle.
bool OnLogin(const char* lpszClientAddr, int hSocket, void*) {
    printf("%s connected (socket %d)\n", lpszClientAddr, hSocket);
    return true;  // false would refuse the client
}

void OnRecv(const char* lpszClientAddr, int, const char* lpszMsg, int nLen, void* lParam) {
    if (lpszMsg == nullptr) return;  // a disabled client; not used here
    // 3 s to get the answer out; -1: no readiness wait before sending
    if (!NetCore_TCPXCore_SendEx(lParam, lpszClientAddr, lpszMsg, nLen, 3, -1)) {
        printf("%s: send failed, code 0x%08llX\n", lpszClientAddr, NetCore_GetLastError(nullptr));
    }
}

void OnLeave(const char* lpszClientAddr, int, void*) {
    printf("%s left\n", lpszClientAddr);
}

}  // namespace

int main(int argc, char** argv) {
    int nPort = argc > 1 ? atoi(argv[1]) : 5000;
    int nSeconds = argc > 2 ? atoi(argv[2]) : 0;

    // up to 10000 clients, one event thread per hardware thread, no keep-alive, address reuse,
    // 1-second flow period, IPv4
    void* xhServer = NetCore_TCPXCore_StartEx(nPort, 10000, 0, false, true, 1, 2);
    if (xhServer == nullptr) {
        int nSysError = 0;
        unsigned long long nCode = NetCore_GetLastError(&nSysError);
        fprintf(stderr, "cannot start on port %d: code 0x%08llX, errno %d\n", nPort, nCode, nSysError);
        return 1;
    }
    // register at once: clients may already be connecting
    NetCore_TCPXCore_RegisterCallBackEx(xhServer, OnLogin, OnRecv, OnLeave, xhServer, xhServer, xhServer);
    printf("echo server on port %d\n", nPort);

    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    for (int i = 0; g_bRun && (nSeconds <= 0 || i < nSeconds * 10); i++)
        usleep(100 * 1000);

    unsigned long long nSendBytes = 0, nRecvBytes = 0, nSendPackets = 0, nRecvPackets = 0;
    NetCore_TCPXCore_GetFlowEx(xhServer, &nSendBytes, &nRecvBytes, &nSendPackets, &nRecvPackets, nullptr);
    printf("received %llu bytes in %llu reads, sent %llu bytes in %llu sends\n", nRecvBytes, nRecvPackets, nSendBytes,
           nSendPackets);
    NetCore_TCPXCore_DestroyEx(xhServer, true);
    return 0;
}
