// An echo server on the poll() TCP server: every message comes back to its sender.
//
// Usage: tcp_poll_server [port] [seconds]   (defaults: 5000, 30; try `nc 127.0.0.1 5000`)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Ombrelt_BaseLib.h"
#include "Ombrelt_NetCore.h"

namespace {

bool OnLogin(const char* lpszClientAddr, int hSocket, void*) {
    // socket 0: the server is full and the client is turned away
    printf(hSocket == 0 ? "refused %s\n" : "login   %s\n", lpszClientAddr);
    return true;
}

void OnRecv(const char* lpszClientAddr, int, const char* lpszMsgBuffer, int nMsgLen, void*) {
    printf("recv    %s %d bytes\n", lpszClientAddr, nMsgLen);
    NetCore_TCPXPoll_Send(lpszClientAddr, lpszMsgBuffer, nMsgLen);
}

void OnLeave(const char* lpszClientAddr, int, void*) {
    printf("leave   %s\n", lpszClientAddr);
}

}  // namespace

int main(int argc, char** argv) {
    int nPort = argc > 1 ? atoi(argv[1]) : 5000;
    int nSeconds = argc > 2 ? atoi(argv[2]) : 30;
    setvbuf(stdout, nullptr, _IOLBF, 0);

    NetCore_TCPXPoll_RegisterCallBack(OnLogin, OnRecv, OnLeave, nullptr, nullptr, nullptr);
    // up to 100 + 1 clients, IPv4
    if (!NetCore_TCPXPoll_Start(nPort, 100, 2)) {
        int nSysError = 0;
        unsigned long long nCode = NetCore_GetLastError(&nSysError);
        fprintf(stderr, "start failed: code 0x%08llX, errno %d\n", nCode, nSysError);
        return 1;
    }
    printf("echo server on port %d for %d s\n", nPort, nSeconds);
    std::this_thread::sleep_for(std::chrono::seconds(nSeconds));

    unsigned long long nUp = 0, nDown = 0;
    NetCore_TCPXPoll_GetNetFlow(&nUp, &nDown);
    printf("bytes received and sent: %llu\n", nDown);
    // Stop ends the accepting; the clients still connected are closed here
    NetCore_TCPXPoll_Stop(true);
    char** ppszList = nullptr;
    int nCount = 0;
    if (NetCore_TCPXPoll_GetList(&ppszList, &nCount)) {
        for (int i = 0; i < nCount; i++)
            NetCore_TCPXPoll_Close(ppszList[i]);
        BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppszList), nCount);
    }
    return 0;
}
