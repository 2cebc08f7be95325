// Demo section: heartbeat supervision of a few peers, one of which goes quiet.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "Demo.h"
#include "Ombrelt_NetCore.h"

namespace {

struct Departures {
    std::mutex st_Lock;
    std::string st_Addr;
    int nCode = -1;
    std::atomic<int> nCount{0};
};

void OnLeave(const char* lpszClientAddr, int, int nLeaveCode, void* lParam) {
    auto* pSt_Departures = static_cast<Departures*>(lParam);
    std::lock_guard<std::mutex> st_Guard(pSt_Departures->st_Lock);
    pSt_Departures->st_Addr = lpszClientAddr;
    pSt_Departures->nCode = nLeaveCode;
    pSt_Departures->nCount++;
}

}  // namespace

void DemoHeartBeat() {
    printf("Heartbeat supervision (1 s intervals, 1 miss tolerated)\n");
    Departures st_Departures;
    void* xhNet = SocketOpt_HeartBeat_InitEx(1, 1, OnLeave, &st_Departures, true);
    Report("start a supervisor", xhNet != nullptr);
    if (xhNet == nullptr) return;
    const char* lpszPeers[] = {"127.0.0.1:7001", "127.0.0.1:7002", "127.0.0.1:7003"};
    bool bOk = true;
    for (const char* lpszPeer : lpszPeers)
        bOk = SocketOpt_HeartBeat_InsertAddrEx(xhNet, lpszPeer) && bOk;
    Report("register three peers", bOk);

    auto st_Start = std::chrono::steady_clock::now();
    while (st_Departures.nCount == 0 && std::chrono::steady_clock::now() - st_Start < std::chrono::seconds(8)) {
        // the first two send heartbeats, the third stays quiet
        SocketOpt_HeartBeat_ActiveAddrEx(xhNet, lpszPeers[0], nullptr);
        SocketOpt_HeartBeat_ActiveAddrEx(xhNet, lpszPeers[1], nullptr);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - st_Start).count();
    {
        std::lock_guard<std::mutex> st_Guard(st_Departures.st_Lock);
        printf("  after %.1f s the quiet peer %s timed out (leave code %d)\n", dSeconds, st_Departures.st_Addr.c_str(),
               st_Departures.nCode);
        Report("the quiet peer, and only it, was reported",
               st_Departures.nCount == 1 && st_Departures.st_Addr == lpszPeers[2]);
    }
    Report("the live peers are still supervised", SocketOpt_HeartBeat_GetAddrEx(xhNet, lpszPeers[0], nullptr) &&
                                                      SocketOpt_HeartBeat_GetAddrEx(xhNet, lpszPeers[1], nullptr));
    Report("stop the supervisor", SocketOpt_HeartBeat_DestoryEx(xhNet));
}
