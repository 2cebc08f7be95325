// The UDX session engine: the session table, the reception of datagrams, sending, fetching, the
// deferred close, and one pass of the session thread and of the merging thread. It owns no
// socket, thread or clock: the time comes in as an argument and every datagram leaves through
// the send hook, so the whole protocol runs in tests without sockets or sleeps. CNetCore_UDXSocket
// wraps it with the UDP server, the heartbeat supervisor and the two threads.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "Ombrelt_NetCore.h"
#include "UDXPacket.h"

namespace netcore::udx {

// One session per peer. The serials, windows and flags are changed by several threads without
// a lock of their own (under the shared table lock only), hence relaxed atomics.
struct tag_NetCore_UDXClient {
    // merging buffer (with nMtapLen and nTimeMtap: under st_LockMtap)
    char tszMsgBuffer[UDX_BUFFER_SIZE] = {};
    char tszClientAddr[32] = {};
    unsigned long long nTimeMtap = 0;
    std::atomic<unsigned int> nWindowPeer{0};
    std::atomic<unsigned int> nWindowSelf{0};
    std::atomic<unsigned int> nWindowLast{0};
    unsigned int nMtapLen = 0;
    std::atomic<bool> bConnect{false};
    std::atomic<unsigned short> wAckLast{0};
    std::atomic<unsigned short> wRecvNext{0};
    std::atomic<unsigned short> wRecvCount{0};
    std::atomic<unsigned short> wSendSerial{0};
    // Lock order: st_LockSent before st_LockSend; st_LockRecv is released before st_LockResend
    // is taken. st_LockSerial (ours) makes one sender's pieces take consecutive serials when
    // several threads send to the same peer.
    std::mutex st_LockSent, st_LockSend, st_LockResend, st_LockRecv, st_LockMtap, st_LockSerial;
    std::list<tag_NetCore_UDXData> stl_ListSent;    // sent DATA awaiting acknowledgement
    std::list<tag_NetCore_UDXData> stl_ListSend;    // resends and RESEND_GONE for the next pass
    std::list<tag_NetCore_UDXData> stl_ListResend;  // outstanding RESEND_REQUESTs
    std::list<tag_NetCore_UDXData> stl_ListRecv;    // payloads waiting for the application
    std::list<tag_NetCore_UDXData> stl_ListMtap;    // small DATA waiting to be merged
    // Under st_LockRecv: records the application has fetched, kept with their buffers for
    // the next arrivals, so that the receive threads and the application do not allocate and free
    // every payload across threads; and the length of stl_ListRecv, which a fetch reads first so
    // that polling an empty queue takes no lock the receive threads need.
    std::list<tag_NetCore_UDXData> stl_ListSpare;
    std::atomic<size_t> nRecvQueued{0};
};

// What a test may look at in a session.
struct UDXSessionState {
    unsigned int nWindowPeer, nWindowSelf, nWindowLast, nMtapLen;
    unsigned short wAckLast, wRecvNext, wRecvCount, wSendSerial;
    size_t nSent, nSend, nResend, nRecv, nMtap;
};

class UDXEngine {
public:
    struct Hooks {
        // one datagram to the UDP server
        std::function<void(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen)> fnSend;
        // the following are called only with bHeartBeat on
        std::function<void(const char*)> fnAccepted;  // a session was made (exclusive table lock held)
        std::function<void(const char*)> fnLogin;     // then, with the lock released
        std::function<void(const char*)> fnActive;    // a valid datagram came from the peer
        std::function<void(const char*)> fnRemoved;   // a session was erased (exclusive table lock held)
        std::function<void(const char*)> fnLeave;     // a deferred close was carried out
    };

    UDXEngine(const tag_NetCore_UDXConfig& st_Config, Hooks st_Hooks);
    ~UDXEngine();
    UDXEngine(const UDXEngine&) = delete;
    UDXEngine& operator=(const UDXEngine&) = delete;

    const tag_NetCore_UDXConfig& Config() const { return m_st_Config; }

    bool Accept(const char* lpszClientAddr, unsigned int nWindow);
    bool Parse(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen, unsigned long long nTick);
    bool Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen, unsigned long long nTick);
    bool Recv(const char* lpszClientAddr, char* ptszMsgBuffer, int* pInt_MsgLen, unsigned long long nTick);
    // Queues a deferred close; always true.
    bool Close(const char* lpszClientAddr);
    // Sends CLOSE and erases the session; always true.
    bool ClosePrivate(const char* lpszClientAddr);

    // The session thread: StartTimers once, then per pass RunCloses (with bHeartBeat) and
    // RunSessions. nSeconds is the C clock in whole seconds, nTick the millisecond tick.
    void StartTimers(long long nSeconds);
    void RunCloses();
    void RunSessions(unsigned long long nTick, long long nSeconds);
    // One pass of the merging thread.
    void RunMtap(unsigned long long nTick);
    // Frees every session (no CLOSE, no callback) and the close queue.
    void Clear();

    bool GetState(const char* lpszClientAddr, UDXSessionState* pSt_State);
    size_t SessionCount();
    unsigned long long SendBytes() const { return m_nSendBytes.load(std::memory_order_relaxed); }
    unsigned long long SendPackets() const { return m_nSendPackets.load(std::memory_order_relaxed); }
    unsigned long long RecvBytes() const { return m_nRecvBytes.load(std::memory_order_relaxed); }
    unsigned long long RecvPackets() const { return m_nRecvPackets.load(std::memory_order_relaxed); }

private:
    using ClientMap = std::unordered_map<std::string, tag_NetCore_UDXClient*>;

    void SendRaw(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen);
    void SendControl(const char* lpszClientAddr, uint32_t unPacketType, uint32_t unPayloadLen, uint16_t wSerial);
    bool QueueData(tag_NetCore_UDXClient* pSt_Client, uint16_t wSerial, const char* lpszPayload, int nLen,
                   unsigned long long nTick);
    static void FreeClient(tag_NetCore_UDXClient* pSt_Client);

    const tag_NetCore_UDXConfig m_st_Config;
    const Hooks m_st_Hooks;

    std::atomic<unsigned long long> m_nSendBytes{0}, m_nRecvBytes{0}, m_nSendPackets{0}, m_nRecvPackets{0};

    // Lock order: st_LockerAccept, then st_LockerClose, then st_Locker; st_Locker before any
    // session lock. st_LockerAccept is held across the login callback, so it is never taken
    // with another lock held.
    std::mutex st_LockerAccept;   // one Accept at a time
    std::shared_mutex st_Locker;  // the session table
    std::mutex st_LockerClose;    // the deferred-close list
    ClientMap stl_MapClient;
    std::list<std::string> stl_ListClose;

    // Instance-wide: an ACK or WINDOW to one peer postpones the next one to every peer.
    long long m_nTimeAck = 0;
    long long m_nTimeWindow = 0;
};

}  // namespace netcore::udx
