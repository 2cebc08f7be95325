// Datagram echo: the UDP epoll server against a minimal recvfrom/sendto echo, same run.
//
// For 64- and 1400-byte datagrams and 1, 2 and 4 receive threads, a client on loopback measures
// the round-trip latency (median of sequential pings) and the echo rate with 32 datagrams in
// flight, for the server and for the reference echo, and prints the server's figures as ratios.
//
// Usage: udp_echo [seconds per rate measurement, default 1]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "Ombrelt_NetCore.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Result {
    double dLatencyUs;
    double dRate;
};

int BoundPort(int hSocket) {
    sockaddr_in st_Addr{};
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    return ntohs(st_Addr.sin_port);
}

// The client side, identical for both servers.
Result Measure(int nPort, int nSize, double dSeconds) {
    int hClient = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in st_Server{};
    st_Server.sin_family = AF_INET;
    st_Server.sin_port = htons(static_cast<uint16_t>(nPort));
    st_Server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(hClient, reinterpret_cast<sockaddr*>(&st_Server), sizeof(st_Server));
    std::vector<char> stl_Buffer(nSize, 'e');
    char tszEcho[2048];
    pollfd st_Poll{hClient, POLLIN, 0};

    // latency: one datagram at a time
    std::vector<double> stl_Rtts;
    for (int i = 0; i < 2000; i++) {
        auto st_Start = Clock::now();
        send(hClient, stl_Buffer.data(), stl_Buffer.size(), 0);
        if (poll(&st_Poll, 1, 1000) != 1) continue;  // a lost datagram is retried
        recv(hClient, tszEcho, sizeof(tszEcho), 0);
        stl_Rtts.push_back(std::chrono::duration<double, std::micro>(Clock::now() - st_Start).count());
    }
    std::sort(stl_Rtts.begin(), stl_Rtts.end());
    double dLatency = stl_Rtts.empty() ? 0 : stl_Rtts[stl_Rtts.size() / 2];

    // rate: keep 32 datagrams in flight
    int nInFlight = 0;
    long long nEchoes = 0;
    auto st_End = Clock::now() + std::chrono::duration<double>(dSeconds);
    auto st_Start = Clock::now();
    while (Clock::now() < st_End) {
        while (nInFlight < 32) {
            send(hClient, stl_Buffer.data(), stl_Buffer.size(), 0);
            nInFlight++;
        }
        if (poll(&st_Poll, 1, 100) != 1) {
            nInFlight = 0;  // assume the window was lost and refill it
            continue;
        }
        while (recv(hClient, tszEcho, sizeof(tszEcho), MSG_DONTWAIT) > 0) {
            nEchoes++;
            nInFlight--;
        }
    }
    double dRate = nEchoes / std::chrono::duration<double>(Clock::now() - st_Start).count();
    close(hClient);
    return {dLatency, dRate};
}

struct EchoContext {
    void* xhToken;
};

void OnDatagram(const char* lpszClientAddr, int, const char* lpszMsgBuffer, int nMsgLen, void* lParam) {
    if (lpszMsgBuffer == nullptr) return;
    NetCore_UDPXCore_SendEx(static_cast<EchoContext*>(lParam)->xhToken, lpszClientAddr, lpszMsgBuffer, nMsgLen);
}

Result MeasureServer(int nThreads, int nSize, double dSeconds) {
    EchoContext st_Context{NetCore_UDPXCore_StartEx(0, nThreads, 5, AF_INET)};
    if (st_Context.xhToken == nullptr) {
        fprintf(stderr, "StartEx failed: 0x%llX\n", NetCore_GetLastError(nullptr));
        exit(1);
    }
    NetCore_UDPXCore_RegisterCallBackEx(st_Context.xhToken, OnDatagram, &st_Context);
    int hSocket = -1;
    NetCore_UDPXCore_GetSocketEx(st_Context.xhToken, &hSocket);
    Result st_Result = Measure(BoundPort(hSocket), nSize, dSeconds);
    NetCore_UDPXCore_DestroyEx(st_Context.xhToken, true);
    return st_Result;
}

// The reference: threads in blocking recvfrom/sendto on one socket.
Result MeasureReference(int nThreads, int nSize, double dSeconds) {
    int hSocket = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in st_Addr{};
    st_Addr.sin_family = AF_INET;
    st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
    timeval st_TimeOut{0, 100000};
    setsockopt(hSocket, SOL_SOCKET, SO_RCVTIMEO, &st_TimeOut, sizeof(st_TimeOut));
    std::atomic<bool> bRun{true};
    std::vector<std::thread> stl_Threads;
    for (int i = 0; i < nThreads; i++) {
        stl_Threads.emplace_back([&] {
            char tszBuffer[2048];
            while (bRun) {
                sockaddr_in st_From{};
                socklen_t nLen = sizeof(st_From);
                ssize_t n =
                    recvfrom(hSocket, tszBuffer, sizeof(tszBuffer), 0, reinterpret_cast<sockaddr*>(&st_From), &nLen);
                if (n > 0) sendto(hSocket, tszBuffer, n, 0, reinterpret_cast<sockaddr*>(&st_From), nLen);
            }
        });
    }
    Result st_Result = Measure(BoundPort(hSocket), nSize, dSeconds);
    bRun = false;
    for (auto& st_Thread : stl_Threads)
        st_Thread.join();
    close(hSocket);
    return st_Result;
}

}  // namespace

int main(int argc, char** argv) {
    double dSeconds = argc > 1 ? atof(argv[1]) : 1.0;
    printf("UDP echo on 127.0.0.1: latency = median round trip, rate = echoes/s with 32 in flight\n");
    printf("%6s %8s | %12s %12s | %12s %12s | %8s %8s\n", "bytes", "threads", "server us", "server /s", "ref us",
           "ref /s", "lat x", "rate x");
    for (int nSize : {64, 1400}) {
        for (int nThreads : {1, 2, 4}) {
            Result st_Ref = MeasureReference(nThreads, nSize, dSeconds);
            Result st_Server = MeasureServer(nThreads, nSize, dSeconds);
            printf("%6d %8d | %12.1f %12.0f | %12.1f %12.0f | %8.2f %8.2f\n", nSize, nThreads, st_Server.dLatencyUs,
                   st_Server.dRate, st_Ref.dLatencyUs, st_Ref.dRate, st_Server.dLatencyUs / st_Ref.dLatencyUs,
                   st_Server.dRate / st_Ref.dRate);
        }
    }
    return 0;
}
