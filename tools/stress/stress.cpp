// Stress run of the library's servers, on loopback only: many concurrent TCP clients, connection
// churn with resets, idle, half-closed and trickling peers, a client that stops reading, datagram
// floods, hostile UDX datagrams from many ports, a large heartbeat table, and hostile arguments
// (each call in its own process). Every echo is checked; descriptors, threads and heap are
// measured before and after each scenario. Every loop is bounded by a count or a deadline.
//
// Usage: netcore_stress [--short]     (--short: the CI run, well under two minutes under ASan)
// Exit status 0 when every check held.
#include <arpa/inet.h>
#include <dirent.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Ombrelt_NetCore.h"
#include "udxpeer/UDXPeer.h"

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

int g_nFailures = 0;
std::mt19937 g_Random(20261123);

void Check(bool bOk, const char* lpszWhat) {
    if (bOk) return;
    printf("  FAIL: %s\n", lpszWhat);
    g_nFailures++;
}

bool WaitFor(const std::function<bool()>& fnPred, std::chrono::milliseconds nTimeout = 10s) {
    auto tEnd = Clock::now() + nTimeout;
    while (!fnPred()) {
        if (Clock::now() >= tEnd) return fnPred();
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

// ----- resources ---------------------------------------------------------------------------------

int CountEntries(const char* lpszDir) {
    DIR* pDir = opendir(lpszDir);
    if (pDir == nullptr) return -1;
    int nCount = 0;
    while (dirent* pEntry = readdir(pDir)) {
        if (pEntry->d_name[0] != '.') nCount++;
    }
    closedir(pDir);
    return nCount;
}

long long HeapBytes() {
    if (__sanitizer_get_current_allocated_bytes != nullptr) return __sanitizer_get_current_allocated_bytes();
#if defined(__GLIBC__)
    return static_cast<long long>(mallinfo2().uordblks);
#else
    return static_cast<long long>(mallinfo().uordblks);
#endif
}

struct Usage {
    int nFds;
    int nThreads;
    long long nHeap;
};

Usage Measure() {
    // the descriptor list counts the directory being read
    return {CountEntries("/proc/self/fd") - 1, CountEntries("/proc/self/task"), HeapBytes()};
}

// Heap left behind by the library's tables (hash buckets kept after a clear) stays small; a leak
// per client or per datagram does not.
constexpr long long kHeapSlack = 512 * 1024;

void Report(const char* lpszName, const Usage& st_Before, double dSeconds) {
    Usage st_After{};
    bool bBack = WaitFor([&] {
        st_After = Measure();
        return st_After.nFds == st_Before.nFds && st_After.nThreads == st_Before.nThreads;
    });
    printf("  %s: %.1f s; descriptors %d -> %d, threads %d -> %d, heap %lld -> %lld bytes\n", lpszName, dSeconds,
           st_Before.nFds, st_After.nFds, st_Before.nThreads, st_After.nThreads, st_Before.nHeap, st_After.nHeap);
    Check(bBack, "descriptors and threads back where they started");
    Check(st_After.nHeap - st_Before.nHeap < kHeapSlack, "heap back where it started");
}

// ----- loopback clients ----------------------------------------------------------------------------

int FreePort(int nType) {
    int hSocket = socket(AF_INET, nType, 0);
    sockaddr_in st_Addr{};
    st_Addr.sin_family = AF_INET;
    bind(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    close(hSocket);
    return ntohs(st_Addr.sin_port);
}

// Clients bind their own 127.x.y.z source address, so that closed connections waiting out their
// time on the client side do not use up the ephemeral ports of one address.
int ConnectTcp(int nPort, unsigned nIndex) {
    int hSocket = socket(AF_INET, SOCK_STREAM, 0);
    if (hSocket < 0) return -1;
    sockaddr_in st_Addr{};
    st_Addr.sin_family = AF_INET;
    st_Addr.sin_addr.s_addr = htonl(0x7F000000u | (((nIndex / 250) % 250 + 1) << 8) | (nIndex % 250 + 1));
    bind(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
    st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    st_Addr.sin_port = htons(static_cast<uint16_t>(nPort));
    timeval st_Time{5, 0};
    setsockopt(hSocket, SOL_SOCKET, SO_RCVTIMEO, &st_Time, sizeof(st_Time));
    setsockopt(hSocket, SOL_SOCKET, SO_SNDTIMEO, &st_Time, sizeof(st_Time));
    int nOne = 1;
    setsockopt(hSocket, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
    if (connect(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)) != 0) {
        close(hSocket);
        return -1;
    }
    return hSocket;
}

bool SendAll(int hSocket, const std::string& strData) {
    return send(hSocket, strData.data(), strData.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(strData.size());
}

// Reads exactly the length of strExpected (in as many pieces as it comes) and compares.
bool EchoMatches(int hSocket, const std::string& strExpected) {
    std::string strGot;
    char tszBuffer[4096];
    while (strGot.size() < strExpected.size()) {
        ssize_t nRead = recv(hSocket, tszBuffer, sizeof(tszBuffer), 0);
        if (nRead <= 0) return false;
        strGot.append(tszBuffer, static_cast<size_t>(nRead));
    }
    return strGot == strExpected;
}

void CloseReset(int hSocket) {
    linger st_Linger{1, 0};
    setsockopt(hSocket, SOL_SOCKET, SO_LINGER, &st_Linger, sizeof(st_Linger));
    close(hSocket);
}

std::string Message(unsigned nIndex, size_t nLen) {
    std::string strMsg = "#" + std::to_string(nIndex) + ":";
    while (strMsg.size() < nLen)
        strMsg.push_back(static_cast<char>('a' + (nIndex + strMsg.size()) % 26));
    return strMsg;
}

std::atomic<int> g_nLogins{0};
std::atomic<int> g_nLeaves{0};
std::atomic<bool> g_bEchoFailed{false};

// ----- TCP epoll server: connections held, then churn with faults -------------------------------

void* g_xhTCP = nullptr;

bool TCPLogin(const char*, int, void*) {
    g_nLogins++;
    return true;
}
void TCPRecv(const char* lpszAddr, int, const char* lpszData, int nLen, void*) {
    if (!NetCore_TCPXCore_SendEx(g_xhTCP, lpszAddr, lpszData, nLen, 3, -1)) g_bEchoFailed = true;
}
void TCPLeave(const char*, int, void*) {
    g_nLeaves++;
}

// One churn cycle; the kind of peer rotates: orderly, reset, half-closed, idle, trickling.
bool ChurnCycle(int nPort, unsigned nCycle, int nKind) {
    int hSocket = ConnectTcp(nPort, nCycle);
    if (hSocket < 0) return false;
    std::string strMsg = Message(nCycle, 16 + nCycle % 200);
    bool bOk = true;
    switch (nKind) {
        case 0:
            bOk = SendAll(hSocket, strMsg) && EchoMatches(hSocket, strMsg);
            close(hSocket);
            break;
        case 1:
            bOk = SendAll(hSocket, strMsg) && EchoMatches(hSocket, strMsg);
            CloseReset(hSocket);
            break;
        case 2:
            bOk = SendAll(hSocket, strMsg) && shutdown(hSocket, SHUT_WR) == 0 && EchoMatches(hSocket, strMsg);
            close(hSocket);
            break;
        case 3:
            close(hSocket);
            break;
        default:
            strMsg.resize(8);
            for (char ch : strMsg)
                bOk = bOk && SendAll(hSocket, std::string(1, ch));
            bOk = bOk && EchoMatches(hSocket, strMsg);
            close(hSocket);
            break;
    }
    return bOk;
}

void TCPXCoreScenario(int nHeld, int nCycles) {
    printf("TCP epoll server: %d connections held, %d churn cycles\n", nHeld, nCycles);
    Usage st_Before = Measure();
    auto tStart = Clock::now();
    g_nLogins = g_nLeaves = 0;
    g_bEchoFailed = false;
    int nPort = FreePort(SOCK_STREAM);
    g_xhTCP = NetCore_TCPXCore_StartEx(nPort, 1000000, 2, false, true, 1, 2);
    Check(g_xhTCP != nullptr, "TCP epoll server starts");
    if (g_xhTCP == nullptr) return;
    NetCore_TCPXCore_RegisterCallBackEx(g_xhTCP, TCPLogin, TCPRecv, TCPLeave, nullptr, nullptr, nullptr);

    std::vector<int> stl_Held;
    for (int i = 0; i < nHeld; i++) {
        int hSocket = ConnectTcp(nPort, static_cast<unsigned>(i));
        if (hSocket < 0) break;
        stl_Held.push_back(hSocket);
    }
    Check(static_cast<int>(stl_Held.size()) == nHeld, "every held client connects");
    Check(WaitFor([&] { return g_nLogins == static_cast<int>(stl_Held.size()); }), "every held client logs in");
    int nEchoed = 0;
    for (size_t i = 0; i < stl_Held.size(); i++) {
        std::string strMsg = Message(static_cast<unsigned>(i), 64);
        if (SendAll(stl_Held[i], strMsg) && EchoMatches(stl_Held[i], strMsg)) nEchoed++;
    }
    printf("  held: %d of %zu echoes correct\n", nEchoed, stl_Held.size());
    Check(nEchoed == static_cast<int>(stl_Held.size()), "every held client's echo is correct");
    for (int hSocket : stl_Held)
        close(hSocket);
    Check(WaitFor([&] { return g_nLeaves == static_cast<int>(stl_Held.size()); }), "every held client leaves");

    int nBase = g_nLogins;
    int nGood = 0;
    for (int i = 0; i < nCycles; i++) {
        if (ChurnCycle(nPort, static_cast<unsigned>(nHeld + i), i % 5)) nGood++;
    }
    printf("  churn: %d of %d cycles correct (a fifth each orderly, reset, half-closed, idle, trickling)\n", nGood,
           nCycles);
    Check(nGood == nCycles, "every churn cycle echoes correctly");
    Check(WaitFor([&] { return g_nLogins == nBase + nCycles && g_nLeaves == g_nLogins; }),
          "every churned client logs in and leaves once");
    Check(!g_bEchoFailed, "no echo send failed");
    NetCore_TCPXCore_DestroyEx(g_xhTCP, true);
    g_xhTCP = nullptr;
    Report("TCP epoll server", st_Before, std::chrono::duration<double>(Clock::now() - tStart).count());
}

// ----- poll() and select() servers -----------------------------------------------------------------

void PollRecv(const char* lpszAddr, int, const char* lpszData, int nLen, void*) {
    if (!NetCore_TCPXPoll_Send(lpszAddr, lpszData, nLen)) g_bEchoFailed = true;
}
void SelectRecv(const char* lpszAddr, int, const char* lpszData, int nLen, void*) {
    if (!NetCore_TCPSelect_Send(lpszAddr, lpszData, nLen)) g_bEchoFailed = true;
}

std::string LocalAddr(int hSocket) {
    sockaddr_in st_Addr{};
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    char tszAddr[64];
    inet_ntop(AF_INET, &st_Addr.sin_addr, tszAddr, sizeof(tszAddr));
    return std::string(tszAddr) + ":" + std::to_string(ntohs(st_Addr.sin_port));
}

// A client that stops reading, fed a message far larger than the socket buffers from another
// thread: the server must serve everybody else meanwhile, and closing the client ends the send.
struct StuckClient {
    int hSocket = -1;
    std::string strAddr;
    std::vector<char> stl_Big = std::vector<char>(64 << 20, 'x');
    std::atomic<int> nSent{-1};
    std::thread st_Sender;

    void Start(int nPort, int nLoginsBefore, bool (*fnSend)(const char*, const char*, int)) {
        hSocket = ConnectTcp(nPort, 60000);
        WaitFor([&] { return g_nLogins == nLoginsBefore + 1; });
        strAddr = LocalAddr(hSocket);
        st_Sender = std::thread(
            [this, fnSend] { nSent = fnSend(strAddr.c_str(), stl_Big.data(), static_cast<int>(stl_Big.size())); });
        std::this_thread::sleep_for(200ms);  // load, not synchronisation: the send is under way
    }
    void Finish(bool (*fnClose)(const char*)) {
        Check(nSent == -1, "the send to the client that stopped reading is blocked until it is closed");
        fnClose(strAddr.c_str());
        Check(WaitFor([&] { return nSent != -1; }, 5s), "closing the client ends the blocked send");
        st_Sender.join();
        close(hSocket);
        std::vector<char>().swap(stl_Big);  // not to be counted as the server's heap
    }
};

void PollScenario(int nCycles) {
    printf("poll() server: a client that stops reading, %d echo cycles, Stop then Close\n", nCycles);
    Usage st_Before = Measure();
    auto tStart = Clock::now();
    g_nLogins = g_nLeaves = 0;
    g_bEchoFailed = false;
    int nPort = FreePort(SOCK_STREAM);
    NetCore_TCPXPoll_RegisterCallBack(TCPLogin, PollRecv, TCPLeave, nullptr, nullptr, nullptr);
    Check(NetCore_TCPXPoll_Start(nPort, 100000, 2), "poll() server starts");

    // While the send is blocked, newcomers still log in. They stay idle: a group takes an idle
    // client ahead of one with data for departed, which would close the stuck one early.
    StuckClient st_Stuck;
    st_Stuck.Start(nPort, 0, NetCore_TCPXPoll_Send);
    std::vector<int> stl_Idle;
    for (int i = 0; i < 20; i++)
        stl_Idle.push_back(ConnectTcp(nPort, static_cast<unsigned>(i + 1)));
    Check(WaitFor([] { return g_nLogins == 21; }, 5s), "clients log in while a send is blocked");
    st_Stuck.Finish(NetCore_TCPXPoll_Close);
    for (int hSocket : stl_Idle)
        close(hSocket);
    Check(WaitFor([] { return g_nLeaves == 20; }), "the idle clients leave");

    int nEchoed = 0;
    for (int i = 0; i < nCycles; i++) {
        int hSocket = ConnectTcp(nPort, static_cast<unsigned>(i + 21));
        std::string strMsg = Message(static_cast<unsigned>(i), 32);
        bool bOk = hSocket >= 0 && SendAll(hSocket, strMsg) && EchoMatches(hSocket, strMsg);
        if (hSocket >= 0) close(hSocket);
        if (bOk && WaitFor([&] { return g_nLeaves == i + 21; }, 5s)) nEchoed++;
    }
    printf("  %d of %d echo cycles correct\n", nEchoed, nCycles);
    Check(nEchoed == nCycles, "every poll() echo is correct");

    // clients left at Stop are closed by the application afterwards
    std::vector<int> stl_Left;
    for (int i = 0; i < 70; i++)
        stl_Left.push_back(ConnectTcp(nPort, static_cast<unsigned>(nCycles + 21 + i)));
    WaitFor([&] { return g_nLogins == nCycles + 91; });
    NetCore_TCPXPoll_Stop(true);
    for (int hSocket : stl_Left) {
        NetCore_TCPXPoll_Close(LocalAddr(hSocket).c_str());
        close(hSocket);
    }
    Check(!g_bEchoFailed, "no echo send failed");
    Report("poll() server", st_Before, std::chrono::duration<double>(Clock::now() - tStart).count());
}

void SelectScenario(int nHeld, int nCycles) {
    printf("select() server: a client that stops reading, %d connections held, %d churn cycles\n", nHeld, nCycles);
    Usage st_Before = Measure();
    auto tStart = Clock::now();
    g_nLogins = g_nLeaves = 0;
    g_bEchoFailed = false;
    int nPort = FreePort(SOCK_STREAM);
    NetCore_TCPSelect_RegisterCallBack(TCPLogin, SelectRecv, TCPLeave, nullptr, nullptr, nullptr);
    Check(NetCore_TCPSelect_Start(nPort, 10, false, 2), "select() server starts");
    StuckClient st_Stuck;
    st_Stuck.Start(nPort, 0, NetCore_TCPSelect_Send);
    std::vector<int> stl_Held;
    for (int i = 0; i < nHeld; i++)
        stl_Held.push_back(ConnectTcp(nPort, static_cast<unsigned>(i)));
    WaitFor([&] { return g_nLogins == nHeld + 1; });
    int nEchoed = 0;
    for (size_t i = 0; i < stl_Held.size(); i++) {
        std::string strMsg = Message(static_cast<unsigned>(i), 100);
        if (stl_Held[i] >= 0 && SendAll(stl_Held[i], strMsg) && EchoMatches(stl_Held[i], strMsg)) nEchoed++;
    }
    for (int hSocket : stl_Held)
        close(hSocket);
    int nGood = 0;
    for (int i = 0; i < nCycles; i++) {
        if (ChurnCycle(nPort, static_cast<unsigned>(nHeld + i), i % 5)) nGood++;
    }
    printf("  held: %d of %d echoes correct; churn: %d of %d cycles correct\n", nEchoed, nHeld, nGood, nCycles);
    Check(nEchoed == nHeld && nGood == nCycles, "every select() echo is correct");
    Check(WaitFor([&] { return g_nLeaves == nHeld + nCycles; }), "every select() client leaves");
    st_Stuck.Finish(NetCore_TCPSelect_RemoveClient);
    Check(!g_bEchoFailed, "no echo send failed");
    NetCore_TCPSelect_Stop(true);
    Report("select() server", st_Before, std::chrono::duration<double>(Clock::now() - tStart).count());
}

// ----- UDP server flood, UDX hostile datagrams -----------------------------------------------------

void* g_xhUDP = nullptr;
void UDPRecv(const char* lpszAddr, int, const char* lpszData, int nLen, void*) {
    if (nLen > 0) NetCore_UDPXCore_SendEx(g_xhUDP, lpszAddr, lpszData, nLen);
}

int UdpSocketTo(int nPort) {
    int hSocket = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in st_Addr{};
    st_Addr.sin_family = AF_INET;
    st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    st_Addr.sin_port = htons(static_cast<uint16_t>(nPort));
    connect(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
    timeval st_Time{0, 200 * 1000};
    setsockopt(hSocket, SOL_SOCKET, SO_RCVTIMEO, &st_Time, sizeof(st_Time));
    return hSocket;
}

std::string RandomBytes(size_t nLen) {
    std::string strData(nLen, '\0');
    for (char& ch : strData)
        ch = static_cast<char>(g_Random());
    return strData;
}

void UDPScenario(int nSeconds, int nChecked) {
    printf("UDP server: %d s flood of random sizes and garbage, then %d checked echoes\n", nSeconds, nChecked);
    Usage st_Before = Measure();
    auto tStart = Clock::now();
    int nPort = FreePort(SOCK_DGRAM);
    g_xhUDP = NetCore_UDPXCore_StartEx(nPort, 2, 1, 2);
    Check(g_xhUDP != nullptr, "UDP server starts");
    if (g_xhUDP == nullptr) return;
    NetCore_UDPXCore_RegisterCallBackEx(g_xhUDP, UDPRecv, nullptr);
    int hSocket = UdpSocketTo(nPort);
    long long nFlood = 0;
    char tszDrain[4096];
    for (auto tEnd = Clock::now() + std::chrono::seconds(nSeconds); Clock::now() < tEnd;) {
        std::string strData = RandomBytes(g_Random() % 4096);
        send(hSocket, strData.data(), strData.size(), MSG_DONTWAIT);
        while (recv(hSocket, tszDrain, sizeof(tszDrain), MSG_DONTWAIT) > 0) {
        }
        nFlood++;
    }
    std::this_thread::sleep_for(100ms);  // let the tail of the flood's echoes arrive and be drained
    while (recv(hSocket, tszDrain, sizeof(tszDrain), MSG_DONTWAIT) > 0) {
    }
    int nCorrect = 0;
    for (int i = 0; i < nChecked; i++) {
        std::string strMsg = Message(static_cast<unsigned>(i), 1 + g_Random() % 2000);
        for (int nTry = 0; nTry < 5; nTry++) {
            send(hSocket, strMsg.data(), strMsg.size(), 0);
            ssize_t nRead = recv(hSocket, tszDrain, sizeof(tszDrain), 0);
            if (nRead > 0 && std::string(tszDrain, static_cast<size_t>(nRead)) == strMsg) {
                nCorrect++;
                break;
            }
        }
    }
    printf("  %lld flood datagrams; %d of %d checked echoes correct\n", nFlood, nCorrect, nChecked);
    Check(nCorrect == nChecked, "every checked UDP echo is correct");
    close(hSocket);
    NetCore_UDPXCore_DestroyEx(g_xhUDP, true);
    Report("UDP server", st_Before, std::chrono::duration<double>(Clock::now() - tStart).count());
}

void UDXScenario(int nSeconds, int nPorts) {
    printf("UDX endpoint: %d s of hostile datagrams from %d ports, then a peer's messages\n", nSeconds, nPorts);
    Usage st_Before = Measure();
    auto tStart = Clock::now();
    tag_NetCore_UDXConfig st_Config{};
    st_Config.bHeartBeat = true;
    st_Config.bOrder = true;
    st_Config.bReliable = true;
    int nPort = FreePort(SOCK_DGRAM);
    void* xhUDX = NetCore_UDXSocket_InitEx(&st_Config, nPort, 1);
    Check(xhUDX != nullptr, "UDX endpoint starts");
    if (xhUDX == nullptr) return;
    NetCore_UDXSocket_CBSetEx(xhUDX, TCPLogin, TCPLeave, nullptr, nullptr);
    std::vector<int> stl_Ports;
    for (int i = 0; i < nPorts; i++)
        stl_Ports.push_back(UdpSocketTo(nPort));
    const uint32_t nTypes[] = {udxpeer::kData,   udxpeer::kConnect, udxpeer::kResendRequest, udxpeer::kResendGone,
                               udxpeer::kWindow, udxpeer::kClose,   udxpeer::kAck,           0x1234};
    long long nSent = 0;
    for (auto tEnd = Clock::now() + std::chrono::seconds(nSeconds); Clock::now() < tEnd;) {
        int hSocket = stl_Ports[g_Random() % stl_Ports.size()];
        std::string strData;
        if (g_Random() % 2 == 0) {
            strData = RandomBytes(g_Random() % 1500);  // garbage
        } else {
            // a well-formed header with hostile fields: any type, length and serial
            std::string strBody = RandomBytes(g_Random() % 1400);
            strData = udxpeer::Packet(nTypes[g_Random() % 8], static_cast<uint32_t>(g_Random()),
                                      static_cast<uint16_t>(g_Random()),
                                      reinterpret_cast<const uint8_t*>(strBody.data()), strBody.size());
            if (g_Random() % 4 == 0) strData.resize(g_Random() % strData.size());  // cut short
        }
        send(hSocket, strData.data(), strData.size(), MSG_DONTWAIT);
        nSent++;
        if (nSent % 256 == 0) std::this_thread::sleep_for(1ms);  // keep the receive queues from only dropping
    }
    for (int hSocket : stl_Ports)
        close(hSocket);

    int nDelivered = 0;
    const int nMessages = 50;
    {
        udxpeer::Peer st_Peer;
        bool bUp = st_Peer.Open(nPort) && st_Peer.Connect(5s);
        Check(bUp, "a peer connects after the hostile datagrams");
        for (int i = 0; bUp && i < nMessages; i++)
            st_Peer.Send(Message(static_cast<unsigned>(i), 10 + i * 27));
        std::string strPeer = bUp ? st_Peer.LocalAddr() : std::string();
        char tszBuffer[2048];
        auto tEnd = Clock::now() + 10s;
        while (bUp && nDelivered < nMessages && Clock::now() < tEnd) {
            int nLen = 0;
            if (!NetCore_UDXSocket_RecvEx(xhUDX, strPeer.c_str(), tszBuffer, &nLen)) {
                std::this_thread::sleep_for(1ms);
                continue;
            }
            std::string strExpected = Message(static_cast<unsigned>(nDelivered), 10 + nDelivered * 27);
            if (std::string(tszBuffer, static_cast<size_t>(nLen)) != strExpected) break;
            nDelivered++;
        }
        st_Peer.Stop();
    }
    printf("  %lld hostile datagrams; %d of %d peer messages delivered in order and intact\n", nSent, nDelivered,
           nMessages);
    Check(nDelivered == nMessages, "the peer's messages arrive intact");
    NetCore_UDXSocket_DestroyEx(xhUDX);
    Report("UDX endpoint", st_Before, std::chrono::duration<double>(Clock::now() - tStart).count());
}

// ----- heartbeat ----------------------------------------------------------------------------------

std::atomic<int> g_nTimedOut{0};
std::atomic<int> g_nWrongOut{0};
void HeartBeatLeave(const char* lpszAddr, int, int, void*) {
    g_nTimedOut++;
    // only odd peers are left silent
    if (lpszAddr == nullptr || (atoi(strrchr(lpszAddr, ':') + 1) % 2) == 0) g_nWrongOut++;
}

void HeartBeatScenario(int nPeers) {
    printf("heartbeat: %d peers, the even ones kept active, the odd ones left silent\n", nPeers);
    Usage st_Before = Measure();
    auto tStart = Clock::now();
    g_nTimedOut = g_nWrongOut = 0;
    void* xhHB = SocketOpt_HeartBeat_InitEx(1, 1, HeartBeatLeave, nullptr, true);
    Check(xhHB != nullptr, "heartbeat supervisor starts");
    if (xhHB == nullptr) return;
    auto Addr = [](int i) {
        return "10." + std::to_string(i / 65536) + "." + std::to_string(i / 256 % 256) + ":" + std::to_string(i);
    };
    for (int i = 0; i < nPeers; i++)
        SocketOpt_HeartBeat_InsertAddrEx(xhHB, Addr(i).c_str());
    // silent peers leave after about two seconds; the others are refreshed well within one
    for (auto tEnd = Clock::now() + 4s; Clock::now() < tEnd; std::this_thread::sleep_for(300ms)) {
        for (int i = 0; i < nPeers; i += 2)
            SocketOpt_HeartBeat_ActiveAddrEx(xhHB, Addr(i).c_str(), nullptr);
    }
    bool bAll = WaitFor([&] { return g_nTimedOut >= nPeers / 2; }, 5s);
    printf("  %d timed out (expected %d), %d of them kept active\n", g_nTimedOut.load(), nPeers / 2,
           g_nWrongOut.load());
    Check(bAll && g_nTimedOut == nPeers / 2 && g_nWrongOut == 0, "exactly the silent peers time out");
    SocketOpt_HeartBeat_DestoryEx(xhHB);
    Report("heartbeat", st_Before, std::chrono::duration<double>(Clock::now() - tStart).count());
}

// ----- hostile arguments, each call in its own process ----------------------------------------------

void ArgumentScenario() {
    char tszBuffer[2048] = {};
    int nLen = sizeof(tszBuffer);
    int hClosed = socket(AF_INET, SOCK_STREAM, 0);
    close(hClosed);
    const std::vector<std::pair<const char*, std::function<void()>>> stl_Calls = {
        {"Socket_Create null", [] { NetCore_Socket_Create(nullptr, true, 2, false); }},
        {"Socket_Bind closed, huge port", [=] { NetCore_Socket_Bind(hClosed, 1 << 30, true, 2); }},
        {"Socket_Send closed", [=] { NetCore_Socket_Send(hClosed, "x", 1, nullptr, 0, 1, 2); }},
        {"Socket_Send negative length", [=] { NetCore_Socket_Send(hClosed, "x", -5, nullptr, 0, 1, 2); }},
        {"Socket_Recv closed", [&] { NetCore_Socket_Recv(hClosed, tszBuffer, &nLen); }},
        {"Socket_IOSelect negative", [] { NetCore_Socket_IOSelect(-7, true, -1); }},
        {"Socket_IOSelect huge time-out", [=] { NetCore_Socket_IOSelect(hClosed, false, 1 << 30); }},
        {"TCPXCore null handle", [] { NetCore_TCPXCore_SendEx(nullptr, "1.2.3.4:5", "x", 1, 1, 0); }},
        {"TCPXCore_StartEx negative",
         [] { NetCore_TCPXCore_DestroyEx(NetCore_TCPXCore_StartEx(-1, -1, -1, 1, 1, -1, 99), 1); }},
        {"UDPXCore null handle", [] { NetCore_UDPXCore_SendEx(nullptr, "1.2.3.4:5", "x", 1); }},
        {"UDX null config", [] { NetCore_UDXSocket_InitEx(nullptr, 0, 0); }},
        {"UDX null handle", [&] { NetCore_UDXSocket_RecvEx(nullptr, "a", tszBuffer, &nLen); }},
        {"HeartBeat null handle", [] { SocketOpt_HeartBeat_InsertAddrEx(nullptr, "a"); }},
        {"HeartBeat unknown peer",
         [] {
             void* xh = SocketOpt_HeartBeat_InitEx(-1, -1, nullptr, nullptr, false);
             SocketOpt_HeartBeat_ActiveSocketEx(xh, -3, nullptr);
             SocketOpt_HeartBeat_DestoryEx(xh);
         }},
        {"TCPXPoll unknown client", [] { NetCore_TCPXPoll_Send("no such client", "x", 1); }},
        {"TCPSelect unknown client", [] { NetCore_TCPSelect_Send("no such client", "x", 1); }},
        {"TCPSelect_ReadIOEvent null", [] { NetCore_TCPSelect_ReadIOEvent(nullptr, nullptr, nullptr, nullptr); }},
        {"UnixDomain_Send null", [] { NetCore_UnixDomain_Send(-1, nullptr, 1, nullptr); }},
        {"GetLastError null", [] { NetCore_GetLastError(nullptr); }},
    };
    printf("hostile arguments: %zu calls, each in its own process\n", stl_Calls.size());
    int nCrashed = 0;
    for (const auto& st_Call : stl_Calls) {
        fflush(stdout);
        pid_t nPid = fork();
        if (nPid == 0) {
            alarm(10);  // a call that hangs counts as a failure too
            st_Call.second();
            _exit(0);
        }
        int nStatus = 0;
        waitpid(nPid, &nStatus, 0);
        if (!WIFEXITED(nStatus) || WEXITSTATUS(nStatus) != 0) {
            printf("  %s: the process did not survive\n", st_Call.first);
            nCrashed++;
        }
    }
    printf("  %d of %zu calls survived\n", static_cast<int>(stl_Calls.size()) - nCrashed, stl_Calls.size());
    Check(nCrashed == 0, "no argument crashes the process");
}

}  // namespace

int main(int argc, char** argv) {
    bool bShort = argc > 1 && strcmp(argv[1], "--short") == 0;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    // a client and its server end both live in this process
    rlimit st_Limit{};
    getrlimit(RLIMIT_NOFILE, &st_Limit);
    st_Limit.rlim_cur = st_Limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &st_Limit);
    int nHeld = bShort ? 1000 : 10000;
    if (static_cast<rlim_t>(2 * nHeld + 200) > st_Limit.rlim_cur) {
        nHeld = static_cast<int>((st_Limit.rlim_cur - 200) / 2);
        printf("descriptor limit %llu: %d connections held\n", static_cast<unsigned long long>(st_Limit.rlim_cur),
               nHeld);
    }

    Usage st_Start = Measure();
    auto tStart = Clock::now();
    printf("netcore stress (%s): descriptors %d, threads %d, heap %lld bytes\n", bShort ? "short" : "full",
           st_Start.nFds, st_Start.nThreads, st_Start.nHeap);
    ArgumentScenario();  // first, while the process has one thread to fork
    TCPXCoreScenario(nHeld, bShort ? 2500 : 50000);
    PollScenario(bShort ? 100 : 2000);
    SelectScenario(bShort ? 50 : 500, bShort ? 250 : 5000);
    UDPScenario(bShort ? 1 : 5, bShort ? 200 : 2000);
    UDXScenario(bShort ? 2 : 10, bShort ? 100 : 1000);
    HeartBeatScenario(bShort ? 10000 : 100000);
    Report("whole run", st_Start, std::chrono::duration<double>(Clock::now() - tStart).count());
    printf("%s: %d failed check(s)\n", g_nFailures == 0 ? "PASS" : "FAIL", g_nFailures);
    return g_nFailures == 0 ? 0 : 1;
}
