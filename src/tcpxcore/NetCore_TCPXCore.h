// CNetCore_TCPXCore: a many-client TCP server on edge-triggered epoll. Each event thread owns a
// listening socket on the shared port (port reuse lets the kernel spread connections), an epoll
// instance and a wake-up pipe, and serves every client it accepted for the client's whole life.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Ombrelt_ManagePool.h"
#include "Ombrelt_NetCore.h"
#include "base/FlowCounters.h"
#include "socket/NetCore_Socket.h"

class CNetCore_TCPXCore;

// Size of one read and of the framing buffer.
constexpr int NETCORE_TCPXCORE_BUFFER_SIZE = 8192;
constexpr int NETCORE_TCPXCORE_ENDMARK_SIZE = 256;
constexpr int NETCORE_TCPXCORE_MAX_EVENTS = 10240;

// One event thread.
typedef struct tag_NetCore_TCPEpoll_Events {
    int hPipe[2];  // wake-up pipe: read end, write end
    int hEpoll;
    int hListenSocket;
    struct epoll_event st_Event;  // used for registrations
    struct epoll_event st_Events[NETCORE_TCPXCORE_MAX_EVENTS];
    CNetCore_TCPXCore* pClass;
} NETCORE_TCPEPOLL_EVENTS;

// A spin lock of one byte, for a few fields read and written in a handful of instructions
// (never held across a call that can block or call back).
class NetCore_TCPXCore_SpinLock {
public:
    void lock() {
        while (m_bLocked.exchange(true, std::memory_order_acquire)) {
            while (m_bLocked.load(std::memory_order_relaxed))
                std::this_thread::yield();
        }
    }
    void unlock() { m_bLocked.store(false, std::memory_order_release); }

private:
    std::atomic<bool> m_bLocked{false};
};

// Framing state of one client, allocated only once a limit is set: an idle connection without
// framing carries none of it.
struct NETCORE_TCPEPOLL_FRAMING {
    // one byte more than the buffer, always zero, so the text search for the terminator ends
    char tszRecvBuffer[NETCORE_TCPXCORE_BUFFER_SIZE + 1];
    int nBufLen;
};

// One connection. Held by shared ownership: the tables own it, and an event thread or a sender
// that looked it up keeps it alive while it works on it. The socket is shut down when the client
// is closed and its descriptor released when the last user lets go, so a descriptor number is
// never reused while someone may still call into it.
typedef struct tag_NetCore_TCPEpoll_Client {
    tag_NetCore_TCPEpoll_Client() = default;
    tag_NetCore_TCPEpoll_Client(const tag_NetCore_TCPEpoll_Client&) = delete;
    tag_NetCore_TCPEpoll_Client& operator=(const tag_NetCore_TCPEpoll_Client&) = delete;
    ~tag_NetCore_TCPEpoll_Client();

    CNetCore_TCPXCore* pClass = nullptr;
    int hEpoll = -1;
    int hSocket = -1;
    std::mutex st_LockSend;  // serialises senders
    std::mutex st_LockRecv;  // serialises the receive path
    // guards nPktLen, tszEndMark, pSt_Framing's allocation, fpCallSend and lpSendParam
    NetCore_TCPXCore_SpinLock st_LockLimit;
    std::atomic<bool> bStatus{false};
    std::atomic<bool> bCBSend{false};
    std::atomic<bool> bPaused{false};
    std::atomic<bool> bClosed{false};  // CloseForClient ran: the receive path stops quietly
    unsigned long long nTimeStart = 0;
    std::atomic<unsigned long long> nTimeRecv{0};
    std::atomic<unsigned long long> nTimeSend{0};
    std::atomic<unsigned long long> nSendBytes{0};
    std::atomic<unsigned long long> nRecvBytes{0};
    std::atomic<unsigned long long> nSendPackets{0};
    std::atomic<unsigned long long> nRecvPackets{0};
    std::atomic<unsigned long long> nTimeSendPeriod{0};
    std::atomic<unsigned long long> nTimeRecvPeriod{0};
    std::atomic<unsigned long long> nPeriodSendBytes{0};
    std::atomic<unsigned long long> nPeriodRecvBytes{0};
    std::atomic<unsigned long long> nPeriodSendPackets{0};
    std::atomic<unsigned long long> nPeriodRecvPackets{0};
    // also read without the spin lock, so that a client without framing never takes it
    std::atomic<int> nPktLen{0};
    std::unique_ptr<char[]> ptszEndMark;  // null: no terminator
    std::unique_ptr<NETCORE_TCPEPOLL_FRAMING> pSt_Framing;
    void* lpSendParam = nullptr;
    CALLBACK_NETCORE_TCPXCORE_SEND fpCallSend = nullptr;
    char tszClientAddr[128] = {};
} NETCORE_TCPEPOLL_CLIENT;

class NETCORE_API CNetCore_TCPXCore {
public:
    CNetCore_TCPXCore();
    ~CNetCore_TCPXCore();
    CNetCore_TCPXCore(const CNetCore_TCPXCore&) = delete;
    CNetCore_TCPXCore& operator=(const CNetCore_TCPXCore&) = delete;

    bool NetCore_TCPXCore_Start(int nPort, int nMaxClient = 10000, int nThreads = 0, bool bKeepAlive = false,
                                bool bReuseAddr = true, int nFlowPeriod = 1, int nIPVer = 2);
    bool NetCore_TCPXCore_Destroy(bool bClearFlow = true);
    bool NetCore_TCPXCore_RegisterCallBack(CALLBACK_NETCORE_TCPXCORE_LOGIN fpCallePoll_Login,
                                           CALLBACK_NETCORE_TCPXCORE_RECV fpCallePoll_Recv,
                                           CALLBACK_NETCORE_TCPXCORE_LEAVE fpCallePoll_Leave, void* lPLogin = nullptr,
                                           void* lPRecv = nullptr, void* lPLeave = nullptr);
    bool NetCore_TCPXCore_SendMsg(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen, int nTimeOut = 3,
                                  int nIOSelect = -1);
    bool NetCore_TCPXCore_CBSend(const char* lpszClientAddr, CALLBACK_NETCORE_TCPXCORE_SEND fpCallSend,
                                 void* lParam = nullptr);
    bool NetCore_TCPXCore_SetLimit(const char* lpszClientAddr, int nPktLen, const char* lpszEndMark = nullptr);
    bool NetCore_TCPXCore_GetLimit(const char* lpszClientAddr, int* pInt_PktLen, char* ptszEndMark);
    bool NetCore_TCPXCore_SetStatus(const char* lpszClientAddr, bool bStatus = true);
    bool NetCore_TCPXCore_PasueRecv(const char* lpszClientAddr, bool bRecv);
    bool NetCore_TCPXCore_CloseForClient(const char* lpszClientAddr);
    bool NetCore_TCPXCore_GetAll(char*** pppszListAddr, int* pInt_ListCount);
    bool NetCore_TCPXCore_GetAddrForSocket(int hSocket, char* ptszClientAddr, bool* pbStatus = nullptr);
    bool NetCore_TCPXCore_GetSocketForAddr(const char* lpszClientAddr, int* phSocket);
    bool NetCore_TCPXCore_GetFlow(unsigned long long* pInt_SendBytes, unsigned long long* pInt_RecvBytes,
                                  unsigned long long* pInt_SendPackets = nullptr,
                                  unsigned long long* pInt_RecvPackets = nullptr, const char* lpszClientAddr = nullptr);
    bool NetCore_TCPXCore_GetTime(const char* lpszClientAddr, unsigned long long* pInt_SendTime,
                                  unsigned long long* pInt_RecvTime, unsigned long long* pInt_OnlineTime = nullptr);
    bool NetCore_TCPXCore_GetAverageFlow(unsigned long long* pInt_SendBytes, unsigned long long* pInt_RecvBytes,
                                         unsigned long long* pInt_SendPackets, unsigned long long* pInt_RecvPackets,
                                         const char* lpszClientAddr = nullptr, bool bAll = false);

    // true when called on one of this server's own event threads (a callback)
    bool NetCore_TCPXCore_IsEventThread() const;

protected:
    using ClientPtr = std::shared_ptr<NETCORE_TCPEPOLL_CLIENT>;

    bool NetCore_TCPXCore_Create(int nPort, int nThreads, std::list<THREADPOOL_PARAMENT*>* pStl_ListParam, int nIPVer);
    static void* NetCore_Thread_Recv(void* lParam);
    // Accepts on the probe socket while the server runs. Nothing starts it; kept as a member only.
    static void* NetCore_Thread_Accept(void* lParam);
    bool NetCore_TCPXCore_AcceptClient(NETCORE_TCPEPOLL_EVENTS* pSt_Events, int hListenSocket);
    bool NetCore_TCPXCore_RecvClient(NETCORE_TCPEPOLL_CLIENT* pSt_Client, unsigned long lReserved = 0);
    bool NetCore_TCPXCore_PostClient(NETCORE_TCPEPOLL_CLIENT* pSt_Client);
    bool NetCore_TCPXCore_GetClient(int hSocket, ClientPtr* ppSt_Client);

private:
    ClientPtr FindClient(const char* lpszClientAddr);
    void FrameMessage(NETCORE_TCPEPOLL_CLIENT* pSt_Client, const char* lpszData, int nLen);
    void DeliverRecv(NETCORE_TCPEPOLL_CLIENT* pSt_Client, const char* lpszMsg, int nLen);
    void CountRecv(NETCORE_TCPEPOLL_CLIENT* pSt_Client, int nLen);

    std::atomic<void*> lpLoginParam{nullptr};
    std::atomic<void*> lpLeaveParam{nullptr};
    std::atomic<void*> lpRecvParam{nullptr};
    std::atomic<CALLBACK_NETCORE_TCPXCORE_LOGIN> fpCallePoll_Login{nullptr};
    std::atomic<CALLBACK_NETCORE_TCPXCORE_RECV> fpCallePoll_Recv{nullptr};
    std::atomic<CALLBACK_NETCORE_TCPXCORE_LEAVE> fpCallePoll_Leave{nullptr};
    void* xhPool = nullptr;
    int hListenProbe = -1;
    int nThreadCount = 0;
    bool bReuseAddr = false;
    // the server's totals: bytes sent, packets sent, bytes received, packets received
    enum { kSendBytes, kSendPackets, kRecvBytes, kRecvPackets, kFlowCount };
    netcore::FlowCounters<kFlowCount> st_Flow;
    unsigned long long nTimeStart = 0;
    std::atomic<int> nFlowPeriod{0};
    std::atomic<bool> bStarted{false};
    bool bKeepAlive = false;
    std::atomic<int> nMaxClient{0};
    std::atomic<int> nIPVer{2};
    // Guards stl_MapClients, stl_ListSockets and stl_ListEvents: shared for lookups, exclusive to
    // insert or remove a client and for teardown. Taken before a client's own locks, never
    // while one of them is held, and never held across a callback.
    std::shared_mutex st_Locker;
    CNetCore_Socket m_Socket;
    THREADPOOL_PARAMENT** pSt_ThreadParam = nullptr;
    std::list<NETCORE_TCPEPOLL_EVENTS*> stl_ListEvents;
    // keyed by a view of the client's own tszClientAddr, which lives as long as the entry
    std::unordered_map<std::string_view, ClientPtr> stl_MapClients;
    // the same clients indexed by socket, so that the event path neither scans nor hashes
    std::vector<ClientPtr> stl_ListSockets;
};
