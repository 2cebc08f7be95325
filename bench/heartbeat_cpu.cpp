// CPU used by a heartbeat supervisor's thread while it watches many peers.
//
// The thread looks only at the peers whose interval can have run out and, while no peer waits to
// be expelled, sleeps until the clock's next second. Prints the process CPU time per wall second
// (the main thread only sleeps) for an empty supervisor, for 100,000 idle peers by address and by
// socket, and for a reference thread that walks a table of 100,000 peers on every millisecond.
//
// Usage: heartbeat_cpu [seconds per case, default 3]
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <unordered_map>

#include "Ombrelt_NetCore.h"

namespace {

constexpr int kPeers = 100000;

double ProcessCpuSeconds() {
    rusage st_Usage{};
    getrusage(RUSAGE_SELF, &st_Usage);
    return st_Usage.ru_utime.tv_sec + st_Usage.ru_stime.tv_sec +
           (st_Usage.ru_utime.tv_usec + st_Usage.ru_stime.tv_usec) / 1e6;
}

// CPU seconds per wall second over the given time.
double MeasureCpu(int nSeconds) {
    double dStart = ProcessCpuSeconds();
    auto st_Start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(nSeconds));
    double dWall = std::chrono::duration<double>(std::chrono::steady_clock::now() - st_Start).count();
    return (ProcessCpuSeconds() - dStart) / dWall;
}

double Supervised(int nPeers, bool bIsAddr, int nSeconds) {
    void* xhNet = SocketOpt_HeartBeat_InitEx(60, 3, nullptr, nullptr, bIsAddr);
    for (int i = 1; i <= nPeers; i++) {
        bool bOk = bIsAddr ? SocketOpt_HeartBeat_InsertAddrEx(xhNet, ("10.0." + std::to_string(i) + ":80").c_str())
                           : SocketOpt_HeartBeat_InsertSocketEx(xhNet, i);
        if (!bOk) {
            fprintf(stderr, "insert failed: 0x%llX\n", NetCore_GetLastError(nullptr));
            exit(1);
        }
    }
    double dCpu = MeasureCpu(nSeconds);
    SocketOpt_HeartBeat_DestoryEx(xhNet);
    return dCpu;
}

// What a pass costs if every pass walks the whole table.
double NaiveReference(int nPeers, int nSeconds) {
    struct Peer {
        long long nTimeLast;
        int nTimeNumber;
        bool bIsTimeOut;
    };
    std::unordered_map<std::string, Peer> stl_Map;
    for (int i = 1; i <= nPeers; i++)
        stl_Map["10.0." + std::to_string(i) + ":80"] = {time(nullptr), 0, false};
    std::atomic<bool> bRun{true};
    std::atomic<long long> nCounted{0};
    std::thread st_Thread([&] {
        while (bRun) {
            long long nNow = time(nullptr);
            for (auto& stl_Pair : stl_Map) {
                if (!stl_Pair.second.bIsTimeOut && nNow - stl_Pair.second.nTimeLast >= 60) nCounted++;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    double dCpu = MeasureCpu(nSeconds);
    bRun = false;
    st_Thread.join();
    return dCpu;
}

}  // namespace

int main(int argc, char** argv) {
    int nSeconds = argc > 1 ? atoi(argv[1]) : 3;
    printf("heartbeat supervision thread, CPU seconds per wall second (%d s per case)\n", nSeconds);
    double dEmpty = Supervised(0, true, nSeconds);
    double dAddr = Supervised(kPeers, true, nSeconds);
    double dSocket = Supervised(kPeers, false, nSeconds);
    double dNaive = NaiveReference(kPeers, nSeconds);
    printf("  %-44s %6.3f\n", "empty supervisor", dEmpty);
    printf("  %-44s %6.3f\n", "100,000 peers by address", dAddr);
    printf("  %-44s %6.3f\n", "100,000 peers by socket", dSocket);
    printf("  %-44s %6.3f\n", "reference: full walk of 100,000 every 1 ms", dNaive);
    printf("ratio to the reference: by address %.3f, by socket %.3f\n", dAddr / dNaive, dSocket / dNaive);
    return 0;
}
