// Finding peers on the local link with broadcasts: one side announces itself, the other listens
// and lists who it heard.
//
// Usage:
//   broadcast_discovery listen <port> [seconds]            list announcements for a while (10 s)
//   broadcast_discovery announce <port> <name> [count]     announce <name> once a second (3 times)
// Add --bind <address> before the command to bind to one local address instead of all of them.
// Announcements go to 255.255.255.255 and reach every host on the link.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "Ombrelt_NetCore.h"

namespace {

int Fail(const char* lpszWhat) {
    int nSysError = 0;
    unsigned long long nCode = NetCore_GetLastError(&nSysError);
    fprintf(stderr, "%s failed: code 0x%08llX, errno %d (%s)\n", lpszWhat, nCode, nSysError, strerror(nSysError));
    return 1;
}

int Usage() {
    fprintf(stderr,
            "usage: broadcast_discovery [--bind <address>] listen <port> [seconds]\n"
            "       broadcast_discovery [--bind <address>] announce <port> <name> [count]\n");
    return 2;
}

int Listen(int hSocket, int nSeconds) {
    auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(nSeconds);
    int nHeard = 0;
    while (std::chrono::steady_clock::now() < tEnd) {
        char tszBuffer[512] = {};
        char tszAddr[128] = {};
        int nLen = sizeof(tszBuffer) - 1;
        // A false result with an empty wait is the normal case between announcements; judge
        // this receive by its result only (its error flag always reads set).
        if (!NetCore_BroadCast_Recv(hSocket, tszBuffer, &nLen, tszAddr, 200)) continue;
        tszBuffer[nLen] = '\0';
        if (strncmp(tszBuffer, "HELLO ", 6) == 0) {
            printf("heard %s from %s\n", tszBuffer + 6, tszAddr);
            nHeard++;
        }
        fflush(stdout);
    }
    printf("%d announcement(s) heard\n", nHeard);
    return 0;
}

int Announce(int hSocket, const char* lpszName, int nCount) {
    std::string strMessage = std::string("HELLO ") + lpszName;
    for (int i = 0; i < nCount; i++) {
        if (i > 0) std::this_thread::sleep_for(std::chrono::seconds(1));
        if (!NetCore_BroadCast_Send(hSocket, strMessage.c_str(), static_cast<int>(strMessage.size()))) {
            return Fail("NetCore_BroadCast_Send");
        }
        printf("announced %s\n", lpszName);
        fflush(stdout);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int nArg = 1;
    const char* lpszBind = nullptr;
    if (argc > nArg + 1 && strcmp(argv[nArg], "--bind") == 0) {
        lpszBind = argv[nArg + 1];
        nArg += 2;
    }
    if (argc < nArg + 2) return Usage();
    const std::string strCommand = argv[nArg];
    const int nPort = atoi(argv[nArg + 1]);
    if (nPort <= 0 || nPort > 65535) return Usage();

    int hSocket = -1;
    if (!NetCore_BroadCast_Create(&hSocket, nPort, lpszBind)) return Fail("NetCore_BroadCast_Create");
    int nResult;
    if (strCommand == "listen") {
        nResult = Listen(hSocket, argc > nArg + 2 ? atoi(argv[nArg + 2]) : 10);
    } else if (strCommand == "announce" && argc > nArg + 2) {
        nResult = Announce(hSocket, argv[nArg + 2], argc > nArg + 3 ? atoi(argv[nArg + 3]) : 3);
    } else {
        nResult = Usage();
    }
    NetCore_BroadCast_Close(hSocket);
    return nResult;
}
