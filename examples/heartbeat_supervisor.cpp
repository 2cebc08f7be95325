// A heartbeat supervisor: peers that stop refreshing are reported through the leave callback.
//
// Usage: heartbeat_supervisor
// Three peers are registered; two keep sending heartbeats, one goes quiet and is timed out after
// about (nTimeNumber + 1) * nTimeOut seconds. A fourth is expelled on demand.
#include <atomic>
#include <chrono>
#include <initializer_list>
#include <cstdio>
#include <thread>

#include "Ombrelt_NetCore.h"

namespace {

std::atomic<int> g_nLeft{0};

void OnLeave(const char* lpszClientAddr, int hSocket, int nLeaveCode, void* lParam) {
    printf("[%s] %s left (socket %d, code %d)\n", static_cast<const char*>(lParam), lpszClientAddr, hSocket,
           nLeaveCode);
    g_nLeft++;
}

}  // namespace

int main() {
    // one-second intervals, one missed interval tolerated
    void* xhNet = SocketOpt_HeartBeat_InitEx(1, 1, OnLeave, const_cast<char*>("supervisor"), true);
    if (xhNet == nullptr) {
        printf("InitEx failed: 0x%08llX\n", NetCore_GetLastError(nullptr));
        return 1;
    }
    for (const char* lpszPeer : {"192.0.2.1:4000", "192.0.2.2:4000", "192.0.2.3:4000"}) {
        SocketOpt_HeartBeat_InsertAddrEx(xhNet, lpszPeer);
    }
    SocketOpt_HeartBeat_ForceOutAddrEx(xhNet, "192.0.2.9:4000", 99, true);

    auto st_Start = std::chrono::steady_clock::now();
    while (g_nLeft < 2 && std::chrono::steady_clock::now() - st_Start < std::chrono::seconds(10)) {
        // heartbeats from the two live peers
        SocketOpt_HeartBeat_ActiveAddrEx(xhNet, "192.0.2.1:4000", nullptr);
        SocketOpt_HeartBeat_ActiveAddrEx(xhNet, "192.0.2.2:4000", nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    long long nIdle = 0;
    SocketOpt_HeartBeat_GetAddrEx(xhNet, "192.0.2.1:4000", &nIdle);
    printf("192.0.2.1:4000 last heard %lld s ago\n", nIdle);
    SocketOpt_HeartBeat_DestoryEx(xhNet);
    return g_nLeft == 2 ? 0 : 1;
}
