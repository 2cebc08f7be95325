// Datagram echo: the UDP epoll server (NetCore_UDPXCore_*Ex, answering from its receive callback)
// against a minimal echo written directly with recvfrom/sendto on one shared blocking socket, both
// measured in the same run with the same number of receive threads.
//
// For 64- and 1400-byte datagrams and 1, 2 and 4 receive threads it prints
//   - throughput: echoed datagrams per second for one client keeping a window of datagrams in
//     flight on loopback,
//   - CPU: the server's processor time (user + system) per echoed datagram during the throughput
//     run: the process's CPU clock less the client's, which runs alone on the main thread, so
//     what is left is the server's threads' alone; on a busy shared machine it is steadier than
//     the rate,
//   - latency: round-trip time of one datagram at a time (median and 99th percentile),
// each as the median of several runs, and the ratio of the server to its peer, the minimal echo.
//
// Usage: udpxcore_echo [runs (default 5)] [milliseconds per throughput run (default 300)]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <time.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Ombrelt_NetCore.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kWindow = 32;
constexpr int kLatencyWarmUp = 200;
constexpr int kLatencyRounds = 2000;

sockaddr_in Loopback(int nPort) {
    sockaddr_in st_Addr{};
    st_Addr.sin_family = AF_INET;
    st_Addr.sin_port = htons(static_cast<uint16_t>(nPort));
    st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return st_Addr;
}

int BoundPort(int hSocket) {
    sockaddr_in st_Addr{};
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    return ntohs(st_Addr.sin_port);
}

void SetRecvTimeOut(int hSocket, int nMilliseconds) {
    timeval st_Time{nMilliseconds / 1000, (nMilliseconds % 1000) * 1000};
    setsockopt(hSocket, SOL_SOCKET, SO_RCVTIMEO, &st_Time, sizeof(st_Time));
}

// ----- the two servers ---------------------------------------------------------------------------

class EchoServer {
public:
    virtual ~EchoServer() = default;
    virtual int Port() const = 0;
};

// The reference: threads sharing one blocking socket, recvfrom then sendto.
class MinimalEcho : public EchoServer {
public:
    explicit MinimalEcho(int nThreads) {
        m_hSocket = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in st_Addr = Loopback(0);
        st_Addr.sin_addr.s_addr = htonl(INADDR_ANY);
        bind(m_hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
        SetRecvTimeOut(m_hSocket, 50);
        m_nPort = BoundPort(m_hSocket);
        for (int i = 0; i < nThreads; i++) {
            m_stl_Threads.emplace_back([this] {
                char tszBuffer[2048];
                while (m_bRun.load(std::memory_order_relaxed)) {
                    sockaddr_in st_From{};
                    socklen_t nLen = sizeof(st_From);
                    ssize_t nRet = recvfrom(m_hSocket, tszBuffer, sizeof(tszBuffer), 0,
                                            reinterpret_cast<sockaddr*>(&st_From), &nLen);
                    if (nRet > 0) {
                        sendto(m_hSocket, tszBuffer, nRet, 0, reinterpret_cast<sockaddr*>(&st_From), nLen);
                    }
                }
            });
        }
    }
    ~MinimalEcho() override {
        m_bRun = false;
        for (auto& st_Thread : m_stl_Threads)
            st_Thread.join();
        close(m_hSocket);
    }
    int Port() const override { return m_nPort; }

private:
    int m_hSocket = -1;
    int m_nPort = 0;
    std::atomic<bool> m_bRun{true};
    std::vector<std::thread> m_stl_Threads;
};

// The server under test, answering each datagram from its receive callback by address text.
class UDPXCoreEcho : public EchoServer {
public:
    explicit UDPXCoreEcho(int nThreads) {
        m_xhServer = NetCore_UDPXCore_StartEx(0, nThreads, 60, AF_INET);
        if (m_xhServer == nullptr) {
            fprintf(stderr, "NetCore_UDPXCore_StartEx failed: 0x%llX\n", NetCore_GetLastError(nullptr));
            exit(1);
        }
        NetCore_UDPXCore_RegisterCallBackEx(m_xhServer, &UDPXCoreEcho::OnRecv, m_xhServer);
        int hSocket = -1;
        NetCore_UDPXCore_GetSocketEx(m_xhServer, &hSocket);
        m_nPort = BoundPort(hSocket);
    }
    ~UDPXCoreEcho() override { NetCore_UDPXCore_DestroyEx(m_xhServer, true); }
    int Port() const override { return m_nPort; }

private:
    static void OnRecv(const char* lpszClientAddr, int, const char* lpszMsgBuffer, int nMsgLen, void* lParam) {
        if (nMsgLen > 0) NetCore_UDPXCore_SendEx(lParam, lpszClientAddr, lpszMsgBuffer, nMsgLen);
    }
    void* m_xhServer = nullptr;
    int m_nPort = 0;
};

// ----- the client --------------------------------------------------------------------------------

// The client runs on the main thread, under a name of its own while it runs so that a profile
// tells it from the server threads (which the main thread started under the program's name).
struct Client {
    int hSocket;
    sockaddr_in st_Server;
    explicit Client(int nPort) : st_Server(Loopback(nPort)) {
        pthread_setname_np(pthread_self(), "echo-client");
        hSocket = socket(AF_INET, SOCK_DGRAM, 0);
        connect(hSocket, reinterpret_cast<sockaddr*>(&st_Server), sizeof(st_Server));
        int nBuffer = 1 << 20;
        setsockopt(hSocket, SOL_SOCKET, SO_RCVBUF, &nBuffer, sizeof(nBuffer));
    }
    ~Client() {
        close(hSocket);
        pthread_setname_np(pthread_self(), "udpxcore_echo");
    }
};

double ClockSeconds(clockid_t nClock) {
    timespec st_Time{};
    clock_gettime(nClock, &st_Time);
    return static_cast<double>(st_Time.tv_sec) + static_cast<double>(st_Time.tv_nsec) / 1e9;
}

// User + system time of every thread of the process but the calling one (the client's).
double ServerCpuSeconds() {
    return ClockSeconds(CLOCK_PROCESS_CPUTIME_ID) - ClockSeconds(CLOCK_THREAD_CPUTIME_ID);
}

struct Rate {
    double fPerSecond;
    double fCpuMicro;  // the server's, per echoed datagram
};

// Echoed datagrams per second with a window in flight; a lost datagram refills the window after
// a short wait.
Rate Throughput(int nPort, int nSize, int nMilliseconds) {
    Client st_Client(nPort);
    SetRecvTimeOut(st_Client.hSocket, 20);
    std::vector<char> stl_Buffer(static_cast<size_t>(nSize), 'x');
    char tszReply[2048];
    auto Fill = [&] {
        for (int i = 0; i < kWindow; i++)
            send(st_Client.hSocket, stl_Buffer.data(), stl_Buffer.size(), 0);
    };
    // warm up
    Fill();
    auto stWarm = Clock::now() + std::chrono::milliseconds(50);
    while (Clock::now() < stWarm) {
        if (recv(st_Client.hSocket, tszReply, sizeof(tszReply), 0) > 0) {
            send(st_Client.hSocket, stl_Buffer.data(), stl_Buffer.size(), 0);
        } else {
            Fill();
        }
    }
    long long nEchoed = 0;
    double fCpuStart = ServerCpuSeconds();
    auto stStart = Clock::now();
    auto stEnd = stStart + std::chrono::milliseconds(nMilliseconds);
    while (Clock::now() < stEnd) {
        if (recv(st_Client.hSocket, tszReply, sizeof(tszReply), 0) > 0) {
            nEchoed++;
            send(st_Client.hSocket, stl_Buffer.data(), stl_Buffer.size(), 0);
        } else {
            Fill();
        }
    }
    double fSeconds = std::chrono::duration<double>(Clock::now() - stStart).count();
    double fCpu = ServerCpuSeconds() - fCpuStart;
    // let the rest of the window drain before the server goes away
    SetRecvTimeOut(st_Client.hSocket, 5);
    while (recv(st_Client.hSocket, tszReply, sizeof(tszReply), 0) > 0) {
    }
    if (nEchoed == 0) return {0, 0};
    return {static_cast<double>(nEchoed) / fSeconds, fCpu * 1e6 / static_cast<double>(nEchoed)};
}

struct Latency {
    double fMedian;
    double fP99;
};

// Round trip of one datagram at a time, in microseconds.
Latency RoundTrip(int nPort, int nSize) {
    Client st_Client(nPort);
    SetRecvTimeOut(st_Client.hSocket, 200);
    std::vector<char> stl_Buffer(static_cast<size_t>(nSize), 'y');
    char tszReply[2048];
    std::vector<double> stl_Times;
    stl_Times.reserve(kLatencyRounds);
    for (int i = 0; i < kLatencyWarmUp + kLatencyRounds; i++) {
        auto stStart = Clock::now();
        send(st_Client.hSocket, stl_Buffer.data(), stl_Buffer.size(), 0);
        if (recv(st_Client.hSocket, tszReply, sizeof(tszReply), 0) <= 0) continue;  // lost: not timed
        double fMicro = std::chrono::duration<double, std::micro>(Clock::now() - stStart).count();
        if (i >= kLatencyWarmUp) stl_Times.push_back(fMicro);
    }
    std::sort(stl_Times.begin(), stl_Times.end());
    if (stl_Times.empty()) return {0, 0};
    return {stl_Times[stl_Times.size() / 2], stl_Times[stl_Times.size() * 99 / 100]};
}

double Median(std::vector<double> stl_Values) {
    std::sort(stl_Values.begin(), stl_Values.end());
    return stl_Values[stl_Values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    int nRuns = argc > 1 ? std::max(1, atoi(argv[1])) : 5;
    int nMilliseconds = argc > 2 ? std::max(50, atoi(argv[2])) : 300;
    printf("UDP datagram echo on loopback, %u hardware threads, median of %d runs, window %d\n",
           std::thread::hardware_concurrency(), nRuns, kWindow);
    printf(
        "ratio = server / its peer, the minimal recvfrom+sendto echo (throughput: higher is better; cpu and latency: "
        "lower is better)\ncpu = server threads' user+system time per echoed datagram, the client's excluded\n\n");
    printf("%5s %7s | %10s %10s %5s | %7s %7s %5s | %7s %7s %5s | %7s %7s %5s\n", "bytes", "threads", "minimal/s",
           "server/s", "ratio", "min cpu", "srv cpu", "ratio", "min p50", "srv p50", "ratio", "min p99", "srv p99",
           "ratio");
    printf("%5s %7s | %10s %10s %5s | %7s %7s %5s | %7s %7s %5s | %7s %7s %5s\n", "", "", "", "", "", "us/dgm",
           "us/dgm", "", "us", "us", "", "us", "us", "");

    for (int nSize : {64, 1400}) {
        for (int nThreads : {1, 2, 4}) {
            std::vector<double> stl_RefRate, stl_SrvRate, stl_RefCpu, stl_SrvCpu, stl_RefP50, stl_SrvP50, stl_RefP99,
                stl_SrvP99;
            // the two servers take turns, so drifting load on the machine hits both alike
            for (int nRun = 0; nRun < nRuns; nRun++) {
                {
                    MinimalEcho st_Ref(nThreads);
                    Rate st_Rate = Throughput(st_Ref.Port(), nSize, nMilliseconds);
                    stl_RefRate.push_back(st_Rate.fPerSecond);
                    stl_RefCpu.push_back(st_Rate.fCpuMicro);
                    Latency st_Lat = RoundTrip(st_Ref.Port(), nSize);
                    stl_RefP50.push_back(st_Lat.fMedian);
                    stl_RefP99.push_back(st_Lat.fP99);
                }
                {
                    UDPXCoreEcho st_Srv(nThreads);
                    Rate st_Rate = Throughput(st_Srv.Port(), nSize, nMilliseconds);
                    stl_SrvRate.push_back(st_Rate.fPerSecond);
                    stl_SrvCpu.push_back(st_Rate.fCpuMicro);
                    Latency st_Lat = RoundTrip(st_Srv.Port(), nSize);
                    stl_SrvP50.push_back(st_Lat.fMedian);
                    stl_SrvP99.push_back(st_Lat.fP99);
                }
            }
            double fRefRate = Median(stl_RefRate), fSrvRate = Median(stl_SrvRate);
            double fRefCpu = Median(stl_RefCpu), fSrvCpu = Median(stl_SrvCpu);
            double fRefP50 = Median(stl_RefP50), fSrvP50 = Median(stl_SrvP50);
            double fRefP99 = Median(stl_RefP99), fSrvP99 = Median(stl_SrvP99);
            printf("%5d %7d | %10.0f %10.0f %5.2f | %7.1f %7.1f %5.2f | %7.1f %7.1f %5.2f | %7.1f %7.1f %5.2f\n", nSize,
                   nThreads, fRefRate, fSrvRate, fSrvRate / fRefRate, fRefCpu, fSrvCpu, fSrvCpu / fRefCpu, fRefP50,
                   fSrvP50, fSrvP50 / fRefP50, fRefP99, fSrvP99, fSrvP99 / fRefP99);
            fflush(stdout);
        }
    }
    return 0;
}
