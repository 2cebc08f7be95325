// A UDX peer: the connecting side of the protocol, written from the wire format alone (it shares
// no code with the library). It sends CONNECT, numbers its DATA packets, keeps them until they
// are acknowledged, answers RESEND_REQUEST (with the packet, or RESEND_GONE when it no longer has
// it), acknowledges what it received, asks for missing serials, and delivers the payloads in
// serial order. Serials are compared wrap-safe. Header-only, for the tests, the demo and the
// benchmark: one UDP socket per peer, and a thread of its own unless the caller's thread serves it.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace udxpeer {

enum : uint32_t {
    kConnectRefused = 0x0002,
    kData = 0x9000,
    kConnect = 0x9001,
    kConnectOk = 0x9002,
    kResendRequest = 0x9003,
    kResendGone = 0x9004,
    kWindow = 0x9101,
    kClose = 0x9102,
    kAck = 0x9103,
};

constexpr size_t kHeaderSize = 30;
constexpr size_t kPieceSize = 1400;

struct Header {
    uint32_t nType = 0;
    uint32_t nLen = 0;
    uint16_t wSerial = 0;
};

// Little-endian, whatever the host.
inline void EncodeHeader(uint8_t* p, uint32_t nType, uint32_t nLen, uint16_t wSerial) {
    auto put16 = [p](size_t at, uint16_t v) {
        p[at] = static_cast<uint8_t>(v);
        p[at + 1] = static_cast<uint8_t>(v >> 8);
    };
    auto put32 = [p](size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i)
            p[at + i] = static_cast<uint8_t>(v >> (8 * i));
    };
    memset(p, 0, kHeaderSize);
    put16(0, 0x0011);
    put32(10, 8);
    put32(14, nType);
    put32(18, nLen);
    p[22] = 1;
    put16(26, wSerial);
    put16(28, 0x00FF);
}

// False when fewer than 30 bytes are given or a mark or the class is wrong.
inline bool DecodeHeader(const uint8_t* p, size_t n, Header* pHeader) {
    if (n < kHeaderSize) return false;
    auto get16 = [p](size_t at) { return static_cast<uint16_t>(p[at] | (p[at + 1] << 8)); };
    auto get32 = [p](size_t at) {
        uint32_t v = 0;
        for (int i = 3; i >= 0; --i)
            v = (v << 8) | p[at + i];
        return v;
    };
    if (get16(0) != 0x0011 || get16(28) != 0x00FF || get32(10) != 8) return false;
    pHeader->nType = get32(14);
    pHeader->nLen = get32(18);
    pHeader->wSerial = get16(26);
    return true;
}

inline std::string Packet(uint32_t nType, uint32_t nLen, uint16_t wSerial, const void* pPayload = nullptr,
                          size_t nPayload = 0) {
    std::string strPacket(kHeaderSize + nPayload, '\0');
    EncodeHeader(reinterpret_cast<uint8_t*>(&strPacket[0]), nType, nLen, wSerial);
    if (nPayload > 0) memcpy(&strPacket[kHeaderSize], pPayload, nPayload);
    return strPacket;
}

// Distance from b to a on the 16-bit serial circle: negative when a comes before b.
inline int SerialDiff(uint16_t a, uint16_t b) {
    return static_cast<int16_t>(static_cast<uint16_t>(a - b));
}

struct Options {
    uint32_t nWindow = 0;          // receive window announced in CONNECT (0: unlimited)
    int nAckIntervalMs = 100;      // ACK cadence; the ACKs also keep the session supervised
    int nRequestIntervalMs = 200;  // a missing serial is asked for again this often
    int nResendTimeoutMs = 4000;   // unacknowledged DATA waiting this long goes out again
    bool bAutomatic = true;        // false: nothing is sent unasked (a silent peer)
    // false: the peer has no thread of its own; Connect and Recv serve the socket on the caller's
    // thread, as a single-threaded application would (the benchmark's client)
    bool bOwnThread = true;
};

// One control packet the peer received.
struct Event {
    uint32_t nType;
    uint32_t nLen;
    uint16_t wSerial;
};

class Peer {
public:
    using Clock = std::chrono::steady_clock;

    Peer() = default;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { Stop(); }

    // Binds 127.0.0.1 on a free port, aims at nPort on loopback and starts the peer's thread.
    bool Open(int nPort, const Options& st_Options = Options()) {
        m_st_Options = st_Options;
        m_hSocket = socket(AF_INET, SOCK_DGRAM, 0);
        if (m_hSocket < 0) return false;
        sockaddr_in st_Addr{};
        st_Addr.sin_family = AF_INET;
        st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(m_hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)) != 0) return false;
        int nBuffer = 4 << 20;
        setsockopt(m_hSocket, SOL_SOCKET, SO_RCVBUF, &nBuffer, sizeof(nBuffer));
        setsockopt(m_hSocket, SOL_SOCKET, SO_SNDBUF, &nBuffer, sizeof(nBuffer));
        socklen_t nLen = sizeof(st_Addr);
        getsockname(m_hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
        m_nLocalPort = ntohs(st_Addr.sin_port);
        st_Addr.sin_port = htons(static_cast<uint16_t>(nPort));
        if (connect(m_hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)) != 0) return false;
        fcntl(m_hSocket, F_SETFL, fcntl(m_hSocket, F_GETFL) | O_NONBLOCK);
        m_bRun = true;
        if (m_st_Options.bOwnThread) m_Thread = std::thread([this] { Run(); });
        return true;
    }

    void Stop() {
        m_bRun = false;
        if (m_Thread.joinable()) m_Thread.join();
        if (m_hSocket >= 0) close(m_hSocket);
        m_hSocket = -1;
    }

    int LocalPort() const { return m_nLocalPort; }
    // The address text the endpoint names this peer by (when no relay sits between them).
    std::string LocalAddr() const { return "127.0.0.1:" + std::to_string(m_nLocalPort); }

    // Sends CONNECT (again every 200 ms) until CONNECT_OK or CONNECT_REFUSED arrives.
    bool Connect(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> st_Lock(m_Mutex);
        m_bConnecting = true;
        m_tLastConnect = Clock::time_point();
        bool bAnswered = Wait(st_Lock, timeout, [this] { return m_bConnected || m_bRefused; });
        m_bConnecting = false;
        return bAnswered && m_bConnected;
    }

    // Queues one message: cut into 1400-byte pieces, each a DATA packet with the next serial.
    // Senders take turns, so serials go out in order, but the datagrams are written without holding
    // up the peer's thread.
    void Send(const void* pData, size_t nLen) {
        std::lock_guard<std::mutex> st_SendLock(m_SendMutex);
        const uint8_t* p = static_cast<const uint8_t*>(pData);
        size_t nOffset = 0;
        do {
            size_t nPiece = std::min(nLen - nOffset, kPieceSize);
            std::string strPacket;
            {
                std::lock_guard<std::mutex> st_Lock(m_Mutex);
                uint16_t wSerial = m_wSendNext++;
                Kept& st_Kept = m_Kept[wSerial];
                st_Kept.strPacket = Packet(kData, static_cast<uint32_t>(nPiece), wSerial, p + nOffset, nPiece);
                st_Kept.tLastSend = Clock::now();
                strPacket = st_Kept.strPacket;
            }
            Transmit(strPacket);
            nOffset += nPiece;
        } while (nOffset < nLen);
    }
    void Send(const std::string& strData) { Send(strData.data(), strData.size()); }

    // The next payload in serial order.
    bool Recv(std::string* pStr_Data, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> st_Lock(m_Mutex);
        if (!Wait(st_Lock, timeout, [this] { return !m_Delivered.empty(); })) return false;
        *pStr_Data = std::move(m_Delivered.front());
        m_Delivered.pop_front();
        return true;
    }

    // Raw datagrams and single control packets, for tests that speak the protocol by hand.
    void SendRaw(const std::string& strDatagram) {
        std::lock_guard<std::mutex> st_Lock(m_Mutex);
        Transmit(strDatagram);
    }
    void SendControl(uint32_t nType, uint32_t nLen, uint16_t wSerial) { SendRaw(Packet(nType, nLen, wSerial)); }
    void SendClose() { SendControl(kClose, 0, 0); }

    bool Connected() const {
        std::lock_guard<std::mutex> st_Lock(m_Mutex);
        return m_bConnected;
    }
    bool Refused() const {
        std::lock_guard<std::mutex> st_Lock(m_Mutex);
        return m_bRefused;
    }
    // The window the endpoint granted in its CONNECT answer, and the last WINDOW it sent.
    uint32_t GrantedWindow() const {
        std::lock_guard<std::mutex> st_Lock(m_Mutex);
        return m_nGranted;
    }
    uint32_t PeerWindow() const {
        std::lock_guard<std::mutex> st_Lock(m_Mutex);
        return m_nPeerWindow;
    }
    size_t CountOf(uint32_t nType) const {
        std::lock_guard<std::mutex> st_Lock(m_Mutex);
        return static_cast<size_t>(std::count_if(m_Events.begin(), m_Events.end(),
                                                 [nType](const Event& st_Event) { return st_Event.nType == nType; }));
    }
    std::vector<Event> Events() const {
        std::lock_guard<std::mutex> st_Lock(m_Mutex);
        return m_Events;
    }
    // DATA packets received, duplicates included, and DATA datagrams.
    size_t DataPackets() const {
        std::lock_guard<std::mutex> st_Lock(m_Mutex);
        return m_nDataPackets;
    }
    size_t Unacknowledged() const {
        std::lock_guard<std::mutex> st_Lock(m_Mutex);
        return m_Kept.size();
    }
    size_t Resends() const {
        std::lock_guard<std::mutex> st_Lock(m_Mutex);
        return m_nResends;
    }

private:
    struct Kept {
        std::string strPacket;
        Clock::time_point tLastSend;
    };

    void Transmit(const std::string& strDatagram) {
        if (m_hSocket >= 0) send(m_hSocket, strDatagram.data(), strDatagram.size(), 0);
    }

    static bool Elapsed(Clock::time_point tNow, Clock::time_point tThen, int nMs) {
        return tNow - tThen >= std::chrono::milliseconds(nMs);
    }

    // Until the condition holds or the time is up: on the peer's thread a wait on the condition
    // variable, without one the caller's thread serves the socket itself.
    template <typename Pred>
    bool Wait(std::unique_lock<std::mutex>& st_Lock, std::chrono::milliseconds timeout, Pred fnReady) {
        if (m_st_Options.bOwnThread) return m_Cond.wait_for(st_Lock, timeout, fnReady);
        const Clock::time_point tEnd = Clock::now() + timeout;
        for (;;) {
            // the timers run on every call, so that ACKs go out while payloads keep coming
            const Clock::time_point tNow = Clock::now();
            Timers(tNow);
            if (fnReady()) return true;
            if (tNow >= tEnd) return false;
            st_Lock.unlock();
            // what is already queued is read at once; only an empty socket is waited on
            if (!Drain()) {
                auto nMs = std::chrono::duration_cast<std::chrono::milliseconds>(tEnd - tNow).count();
                pollfd st_Poll{m_hSocket, POLLIN, 0};
                poll(&st_Poll, 1, static_cast<int>(std::min<long long>(std::max<long long>(nMs, 1), 2)));
                Drain();
            }
            st_Lock.lock();
        }
    }

    // Reads and handles every datagram queued on the socket; false when there was none.
    bool Drain() {
        constexpr int kBatch = 32;
        bool bAny = false;
        for (;;) {
            mmsghdr st_Msgs[kBatch];
            iovec st_Iovs[kBatch];
            for (int i = 0; i < kBatch; ++i) {
                st_Iovs[i] = {m_Buffers[i], sizeof(m_Buffers[i])};
                st_Msgs[i] = {};
                st_Msgs[i].msg_hdr.msg_iov = &st_Iovs[i];
                st_Msgs[i].msg_hdr.msg_iovlen = 1;
            }
            int nCount = recvmmsg(m_hSocket, st_Msgs, kBatch, MSG_DONTWAIT, nullptr);
            if (nCount <= 0) return bAny;
            bAny = true;
            std::lock_guard<std::mutex> st_Lock(m_Mutex);
            for (int i = 0; i < nCount; ++i)
                HandleDatagram(m_Buffers[i], st_Msgs[i].msg_len);
            if (nCount < kBatch) return true;
        }
    }

    void Run() {
        while (m_bRun) {
            pollfd st_Poll{m_hSocket, POLLIN, 0};
            poll(&st_Poll, 1, 2);
            Drain();
            std::lock_guard<std::mutex> st_Lock(m_Mutex);
            Timers(Clock::now());
        }
    }

    void Timers(Clock::time_point tNow) {
        if (m_bConnecting && !m_bConnected && !m_bRefused && Elapsed(tNow, m_tLastConnect, 200)) {
            Transmit(Packet(kConnect, m_st_Options.nWindow, 0));
            m_tLastConnect = tNow;
        }
        if (!m_bConnected || !m_st_Options.bAutomatic) return;
        if (Elapsed(tNow, m_tLastAck, m_st_Options.nAckIntervalMs)) {
            Transmit(Packet(kAck, 0, m_wRecvNext));
            m_tLastAck = tNow;
        }
        // ask for every serial missing below the highest one received
        int nAsked = 0;
        for (int i = 0; i < m_nAhead && nAsked < 64; ++i) {
            uint16_t wSerial = static_cast<uint16_t>(m_wRecvNext + i);
            if (m_Buffered.count(wSerial) != 0) continue;
            auto stl_It = m_Requested.find(wSerial);
            if (stl_It != m_Requested.end() && !Elapsed(tNow, stl_It->second, m_st_Options.nRequestIntervalMs)) {
                continue;
            }
            Transmit(Packet(kResendRequest, 0, wSerial));
            m_Requested[wSerial] = tNow;
            ++nAsked;
        }
        // Everything sent since the endpoint's last ACK (seconds apart) is kept, so the kept packets
        // are looked over a few times per time-out rather than on every wake-up.
        if (!Elapsed(tNow, m_tLastResendScan, std::max(1, m_st_Options.nResendTimeoutMs / 8))) return;
        m_tLastResendScan = tNow;
        for (auto& stl_Pair : m_Kept) {
            if (Elapsed(tNow, stl_Pair.second.tLastSend, m_st_Options.nResendTimeoutMs)) {
                Transmit(stl_Pair.second.strPacket);
                stl_Pair.second.tLastSend = tNow;
                ++m_nResends;
            }
        }
    }

    void HandleDatagram(const uint8_t* p, size_t n) {
        Header st_Header;
        if (!DecodeHeader(p, n, &st_Header)) return;
        if (st_Header.nType != kData) m_Events.push_back({st_Header.nType, st_Header.nLen, st_Header.wSerial});
        const Clock::time_point tNow = Clock::now();
        switch (st_Header.nType) {
            case kConnectOk:
                m_bConnected = true;
                m_nGranted = st_Header.nLen;
                m_tLastAck = tNow;
                m_Cond.notify_all();
                break;
            case kConnectRefused:
                m_bRefused = true;
                m_nGranted = st_Header.nLen;
                m_Cond.notify_all();
                break;
            case kWindow:
                m_nPeerWindow = st_Header.nLen;
                break;
            case kAck:
                for (auto stl_It = m_Kept.begin(); stl_It != m_Kept.end();) {
                    if (SerialDiff(stl_It->first, st_Header.wSerial) < 0) {
                        stl_It = m_Kept.erase(stl_It);
                    } else {
                        ++stl_It;
                    }
                }
                break;
            case kResendRequest: {
                auto stl_It = m_Kept.find(st_Header.wSerial);
                if (stl_It == m_Kept.end()) {
                    Transmit(Packet(kResendGone, 0, st_Header.wSerial));
                } else if (Elapsed(tNow, stl_It->second.tLastSend, 10)) {
                    // the endpoint repeats a request on every pass until the packet arrives
                    Transmit(stl_It->second.strPacket);
                    stl_It->second.tLastSend = tNow;
                    ++m_nResends;
                }
                break;
            }
            case kResendGone:
                if (SerialDiff(st_Header.wSerial, m_wRecvNext) >= 0) {
                    m_Gone.insert(st_Header.wSerial);
                    Advance();
                }
                break;
            case kData: {
                size_t nOffset = 0;
                while (nOffset < n) {
                    Header st_Packet;
                    if (!DecodeHeader(p + nOffset, n - nOffset, &st_Packet) || st_Packet.nType != kData) break;
                    if (st_Packet.nLen > n - nOffset - kHeaderSize) break;
                    ++m_nDataPackets;
                    OnData(st_Packet.wSerial, p + nOffset + kHeaderSize, st_Packet.nLen);
                    nOffset += kHeaderSize + st_Packet.nLen;
                }
                break;
            }
            default:
                break;
        }
    }

    void OnData(uint16_t wSerial, const uint8_t* p, size_t n) {
        int nDiff = SerialDiff(wSerial, m_wRecvNext);
        if (nDiff < 0 || m_Buffered.count(wSerial) != 0) return;  // a duplicate
        m_Buffered.emplace(wSerial, std::string(reinterpret_cast<const char*>(p), n));
        m_nAhead = std::max(m_nAhead, nDiff + 1);
        Advance();
    }

    void Advance() {
        for (;;) {
            auto stl_It = m_Buffered.find(m_wRecvNext);
            if (stl_It != m_Buffered.end()) {
                m_Delivered.push_back(std::move(stl_It->second));
                m_Buffered.erase(stl_It);
            } else if (m_Gone.erase(m_wRecvNext) == 0) {
                break;
            }
            m_Requested.erase(m_wRecvNext);
            ++m_wRecvNext;
            if (m_nAhead > 0) --m_nAhead;
            m_Cond.notify_all();
        }
    }

    Options m_st_Options;
    int m_hSocket = -1;
    int m_nLocalPort = 0;
    std::atomic<bool> m_bRun{false};
    std::thread m_Thread;
    uint8_t m_Buffers[32][2048];  // one batch of datagrams, read by one thread at a time

    std::mutex m_SendMutex;  // before m_Mutex
    mutable std::mutex m_Mutex;
    std::condition_variable m_Cond;
    bool m_bConnecting = false;
    bool m_bConnected = false;
    bool m_bRefused = false;
    Clock::time_point m_tLastConnect;
    Clock::time_point m_tLastAck;
    uint32_t m_nGranted = 0;
    uint32_t m_nPeerWindow = 0;
    std::vector<Event> m_Events;

    // sending side
    uint16_t m_wSendNext = 0;
    std::map<uint16_t, Kept> m_Kept;
    Clock::time_point m_tLastResendScan;
    size_t m_nResends = 0;

    // receiving side
    uint16_t m_wRecvNext = 0;
    int m_nAhead = 0;  // serials from m_wRecvNext up to the highest one received
    std::map<uint16_t, std::string> m_Buffered;
    std::map<uint16_t, Clock::time_point> m_Requested;
    std::set<uint16_t> m_Gone;
    std::deque<std::string> m_Delivered;
    size_t m_nDataPackets = 0;
};

}  // namespace udxpeer
