// A chat room on a multicast group: every line typed is sent to the group, and every line the
// group carries is printed, the program's own included.
//
// Usage: multicast_chat <group> <port> <local interface address> <name> [ttl]
//   for example: multicast_chat 239.1.2.3 5000 192.168.1.20 alice
// End with Ctrl-D. The time-to-live (default 1) decides how many routers a line may cross.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
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

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        fprintf(stderr, "usage: multicast_chat <group> <port> <local interface address> <name> [ttl]\n");
        return 2;
    }
    const char* lpszGroup = argv[1];
    const int nPort = atoi(argv[2]);
    const char* lpszLocal = argv[3];
    const std::string strName = argv[4];
    const int nTTL = argc > 5 ? atoi(argv[5]) : 1;

    int hSocket = -1;
    // loop on: this host's other members (and this program) see what it sends
    if (!NetCore_GroupCast_Create(&hSocket, nPort, lpszGroup, lpszLocal, nTTL, true, 2)) {
        return Fail("NetCore_GroupCast_Create");
    }
    printf("joined %s:%d through %s as %s\n", lpszGroup, nPort, lpszLocal, strName.c_str());
    fflush(stdout);

    // The receiver waits in short steps so that it notices the end of the input.
    std::atomic<bool> bRunning{true};
    std::thread stReceiver([&] {
        while (bRunning) {
            char tszBuffer[1500] = {};
            char tszAddr[128] = {};
            int nLen = sizeof(tszBuffer) - 1;
            if (!NetCore_GroupCast_Recv(hSocket, tszBuffer, &nLen, tszAddr, 200)) continue;
            printf("[%s] %.*s\n", tszAddr, nLen, tszBuffer);
            fflush(stdout);
        }
    });

    int nResult = 0;
    std::string strLine;
    while (std::getline(std::cin, strLine)) {
        std::string strMessage = strName + ": " + strLine;
        if (!NetCore_GroupCast_Send(hSocket, strMessage.c_str(), static_cast<int>(strMessage.size()))) {
            nResult = Fail("NetCore_GroupCast_Send");
            break;
        }
    }
    bRunning = false;
    stReceiver.join();
    NetCore_GroupCast_Close(hSocket);
    return nResult;
}
