// The select() TCP server without callbacks: the program pulls the events from the queue and
// answers every message with its length.
//
// Usage: tcp_select_server [port] [seconds]   (defaults: 5001, 30; try `nc 127.0.0.1 5001`)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Ombrelt_NetCore.h"

int main(int argc, char** argv) {
    int nPort = argc > 1 ? atoi(argv[1]) : 5001;
    int nSeconds = argc > 2 ? atoi(argv[2]) : 30;
    setvbuf(stdout, nullptr, _IOLBF, 0);

    // every client thread waits 100 ms per select; no keep-alive; IPv4
    if (!NetCore_TCPSelect_Start(nPort, 100, false, 2)) {
        fprintf(stderr, "start failed: code 0x%08llX\n", NetCore_GetLastError(nullptr));
        return 1;
    }
    printf("server on port %d for %d s\n", nPort, nSeconds);
    auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(nSeconds);
    while (std::chrono::steady_clock::now() < tEnd) {
        char tszAddr[64] = "";  // empty: events of every client
        char tszUnused[1];      // the queue hands out the length of a message, not its bytes
        int nLen = 0;
        unsigned long dwType = 0;  // 0: any type
        if (!NetCore_TCPSelect_ReadIOEvent(tszAddr, tszUnused, &nLen, &dwType)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        if (dwType == 0x01) {
            printf("arrived %s\n", tszAddr);
        } else if (dwType == 0x100) {
            char tszReply[64];
            int nReply = snprintf(tszReply, sizeof(tszReply), "%d bytes\n", nLen);
            printf("data    %s %d bytes\n", tszAddr, nLen);
            NetCore_TCPSelect_Send(tszAddr, tszReply, nReply);
        } else if (dwType == 0x10) {
            printf("left    %s\n", tszAddr);
        }
    }
    unsigned long long nUp = 0, nDown = 0;
    NetCore_TCPSelect_GetFlow(&nUp, &nDown);
    printf("sent %llu bytes, received %llu bytes\n", nUp, nDown);
    NetCore_TCPSelect_Stop(true);  // also ends every client
    return 0;
}
