// Demo section: the TCP epoll server as an echo server on loopback, under a few hundred clients.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Demo.h"
#include "Ombrelt_NetCore.h"

namespace {

constexpr int kClients = 300;
constexpr int kMessageSize = 64;
constexpr int kSeconds = 3;

std::atomic<int> g_nLogins{0};
std::atomic<int> g_nLeaves{0};

bool OnLogin(const char*, int, void*) {
    g_nLogins++;
    return true;
}
void OnRecv(const char* lpszClientAddr, int, const char* lpszMsg, int nLen, void* lParam) {
    if (lpszMsg != nullptr) NetCore_TCPXCore_SendEx(lParam, lpszClientAddr, lpszMsg, nLen, 3, -1);
}
void OnLeave(const char*, int, void*) {
    g_nLeaves++;
}

// A port free right now: bound to port 0 by the kernel, then let go.
int FreePort() {
    int hSocket = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in st_Addr {};
    st_Addr.sin_family = AF_INET;
    socklen_t nLen = sizeof(st_Addr);
    bind(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), nLen);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    close(hSocket);
    return ntohs(st_Addr.sin_port);
}

struct Client {
    int hSocket = -1;
    int nReceived = 0;  // bytes of the current echo back so far
};

// Keeps one message in flight per client for the given time; returns the echoes completed.
long long RunClients(std::vector<Client>& stl_Clients, int hEpoll, int nSeconds) {
    char tszMessage[kMessageSize];
    memset(tszMessage, 'e', sizeof(tszMessage));
    for (Client& st_Client : stl_Clients)
        send(st_Client.hSocket, tszMessage, sizeof(tszMessage), MSG_NOSIGNAL);

    long long nEchoes = 0, nLastEchoes = 0;
    auto nStart = std::chrono::steady_clock::now();
    auto nNextReport = nStart + std::chrono::seconds(1);
    struct epoll_event st_Events[512];
    for (;;) {
        auto nNow = std::chrono::steady_clock::now();
        if (nNow >= nNextReport) {
            printf("  %2lds: %lld echoes/s over %d clients\n",
                   static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(nNow - nStart).count()),
                   nEchoes - nLastEchoes, static_cast<int>(stl_Clients.size()));
            fflush(stdout);
            nLastEchoes = nEchoes;
            nNextReport += std::chrono::seconds(1);
            if (nNow - nStart >= std::chrono::seconds(nSeconds)) break;
        }
        int nCount = epoll_wait(hEpoll, st_Events, 512, 50);
        for (int i = 0; i < nCount; i++) {
            Client& st_Client = stl_Clients[st_Events[i].data.u32];
            char tszBuffer[4096];
            ssize_t nRet;
            while ((nRet = recv(st_Client.hSocket, tszBuffer, sizeof(tszBuffer), 0)) > 0) {
                st_Client.nReceived += static_cast<int>(nRet);
                while (st_Client.nReceived >= kMessageSize) {
                    st_Client.nReceived -= kMessageSize;
                    nEchoes++;
                    send(st_Client.hSocket, tszMessage, sizeof(tszMessage), MSG_NOSIGNAL);
                }
            }
        }
    }
    return nEchoes;
}

}  // namespace

void DemoTCPXCore() {
    printf("TCP epoll server: echo on 127.0.0.1 with %d clients for %d s\n", kClients, kSeconds);
    void* xhServer = nullptr;
    int nPort = 0;
    // a free port can be taken between the probe and the start: try a few
    for (int i = 0; i < 5 && xhServer == nullptr; i++) {
        nPort = FreePort();
        xhServer = NetCore_TCPXCore_StartEx(nPort, 10000, 2, false, true, 1, AF_INET);
    }
    Report("start the echo server", xhServer != nullptr);
    if (xhServer == nullptr) return;
    Report("register its callbacks",
           NetCore_TCPXCore_RegisterCallBackEx(xhServer, OnLogin, OnRecv, OnLeave, nullptr, xhServer, nullptr));
    printf("  listening on port %d with 2 event threads\n", nPort);

    int hEpoll = epoll_create1(0);
    std::vector<Client> stl_Clients(kClients);
    struct sockaddr_in st_Addr {};
    st_Addr.sin_family = AF_INET;
    st_Addr.sin_port = htons(static_cast<uint16_t>(nPort));
    st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int nConnected = 0;
    for (int i = 0; i < kClients; i++) {
        int hSocket = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)) != 0) {
            close(hSocket);
            continue;
        }
        int nOne = 1;
        setsockopt(hSocket, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
        NetCore_Socket_SetNoneBlock(hSocket, true);
        struct epoll_event st_Event {};
        st_Event.events = EPOLLIN | EPOLLET;
        st_Event.data.u32 = static_cast<uint32_t>(nConnected);
        epoll_ctl(hEpoll, EPOLL_CTL_ADD, hSocket, &st_Event);
        stl_Clients[nConnected++].hSocket = hSocket;
    }
    stl_Clients.resize(nConnected);
    Report("connect the clients", nConnected == kClients);
    for (int i = 0; i < 200 && g_nLogins < nConnected; i++)
        usleep(10 * 1000);
    Report("every client logged in", g_nLogins == nConnected);

    auto nStart = std::chrono::steady_clock::now();
    long long nEchoes = RunClients(stl_Clients, hEpoll, kSeconds);
    double dSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - nStart).count();
    Report("echoes flowed", nEchoes > 0);
    printf("  throughput: %.0f echoes/s, %.2f MB/s each way\n", nEchoes / dSeconds,
           nEchoes * kMessageSize / dSeconds / 1e6);

    unsigned long long nSendBytes = 0, nRecvBytes = 0, nSendPackets = 0, nRecvPackets = 0;
    Report("read the server's flow counters",
           NetCore_TCPXCore_GetFlowEx(xhServer, &nSendBytes, &nRecvBytes, &nSendPackets, &nRecvPackets, nullptr));
    printf("  server: received %llu bytes in %llu reads, sent %llu bytes in %llu sends\n", nRecvBytes, nRecvPackets,
           nSendBytes, nSendPackets);

    for (Client& st_Client : stl_Clients)
        close(st_Client.hSocket);
    close(hEpoll);
    for (int i = 0; i < 200 && g_nLeaves < nConnected; i++)
        usleep(10 * 1000);
    Report("every client's leave was reported", g_nLeaves == nConnected);
    Report("destroy the server", NetCore_TCPXCore_DestroyEx(xhServer, true));
}
