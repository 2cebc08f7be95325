// A lossy UDP relay for tests: it sits between a client (the first address that writes to it)
// and a target port on loopback, and forwards datagrams both ways, dropping, duplicating,
// delaying and reordering them at given rates. Each direction draws from its own generator
// seeded with a fixed value, so the n-th datagram of a direction always meets the same fate.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace udxpeer {

struct RelayOptions {
    double dLoss = 0.01;       // share of datagrams dropped
    double dDuplicate = 0.01;  // share sent twice (the copy a little later)
    double dReorder = 0.02;    // share held back so that later ones overtake them
    int nMaxDelayMs = 10;      // the longest hold-back
    uint32_t nSeed = 20261122;
};

struct RelayStats {
    size_t nForwarded = 0, nDropped = 0, nDuplicated = 0, nReordered = 0;
};

class LossyRelay {
public:
    using Clock = std::chrono::steady_clock;

    LossyRelay() = default;
    LossyRelay(const LossyRelay&) = delete;
    LossyRelay& operator=(const LossyRelay&) = delete;
    ~LossyRelay() { Stop(); }

    bool Start(int nTargetPort, const RelayOptions& st_Options = RelayOptions()) {
        m_st_Options = st_Options;
        m_Random[0].seed(st_Options.nSeed);
        m_Random[1].seed(st_Options.nSeed ^ 0x5bd1e995u);
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
        m_nPort = ntohs(st_Addr.sin_port);
        fcntl(m_hSocket, F_SETFL, fcntl(m_hSocket, F_GETFL) | O_NONBLOCK);
        m_st_Target = st_Addr;
        m_st_Target.sin_port = htons(static_cast<uint16_t>(nTargetPort));
        m_bRun = true;
        m_Thread = std::thread([this] { Run(); });
        return true;
    }

    void Stop() {
        m_bRun = false;
        if (m_Thread.joinable()) m_Thread.join();
        if (m_hSocket >= 0) close(m_hSocket);
        m_hSocket = -1;
    }

    int Port() const { return m_nPort; }
    // The address text the target sees for everything coming through the relay.
    std::string Addr() const { return "127.0.0.1:" + std::to_string(m_nPort); }
    RelayStats Stats() const {
        std::lock_guard<std::mutex> st_Lock(m_Mutex);
        return m_st_Stats;
    }

private:
    struct Pending {
        std::string strData;
        sockaddr_in st_To;
    };

    void Run() {
        std::vector<char> stl_Buffer(65536);
        while (m_bRun) {
            pollfd st_Poll{m_hSocket, POLLIN, 0};
            poll(&st_Poll, 1, 1);
            for (;;) {
                sockaddr_in st_From{};
                socklen_t nLen = sizeof(st_From);
                ssize_t n = recvfrom(m_hSocket, stl_Buffer.data(), stl_Buffer.size(), 0,
                                     reinterpret_cast<sockaddr*>(&st_From), &nLen);
                if (n < 0) break;
                bool bFromTarget =
                    st_From.sin_port == m_st_Target.sin_port && st_From.sin_addr.s_addr == m_st_Target.sin_addr.s_addr;
                if (!bFromTarget) {
                    m_st_Client = st_From;
                    m_bHaveClient = true;
                } else if (!m_bHaveClient) {
                    continue;
                }
                Decide(std::string(stl_Buffer.data(), static_cast<size_t>(n)), bFromTarget ? 1 : 0,
                       bFromTarget ? m_st_Client : m_st_Target);
            }
            Release(Clock::now());
        }
    }

    void Decide(std::string&& strData, int nDirection, const sockaddr_in& st_To) {
        std::mt19937& st_Random = m_Random[nDirection];
        std::uniform_real_distribution<double> st_Share(0.0, 1.0);
        std::uniform_int_distribution<int> st_Delay(1, m_st_Options.nMaxDelayMs);
        // always draw the same numbers per datagram, whatever is decided
        double dLoss = st_Share(st_Random), dDuplicate = st_Share(st_Random), dReorder = st_Share(st_Random);
        int nDelay = st_Delay(st_Random), nCopyDelay = st_Delay(st_Random);
        std::lock_guard<std::mutex> st_Lock(m_Mutex);
        if (dLoss < m_st_Options.dLoss) {
            ++m_st_Stats.nDropped;
            return;
        }
        Clock::time_point tNow = Clock::now();
        Clock::time_point tAt = tNow;
        if (dReorder < m_st_Options.dReorder) {
            tAt += std::chrono::milliseconds(nDelay);
            ++m_st_Stats.nReordered;
        }
        if (dDuplicate < m_st_Options.dDuplicate) {
            m_Queue.emplace(std::make_pair(tAt + std::chrono::milliseconds(nCopyDelay), m_nSequence++),
                            Pending{strData, st_To});
            ++m_st_Stats.nDuplicated;
        }
        m_Queue.emplace(std::make_pair(tAt, m_nSequence++), Pending{std::move(strData), st_To});
    }

    void Release(Clock::time_point tNow) {
        std::lock_guard<std::mutex> st_Lock(m_Mutex);
        while (!m_Queue.empty() && m_Queue.begin()->first.first <= tNow) {
            const Pending& st_Pending = m_Queue.begin()->second;
            sendto(m_hSocket, st_Pending.strData.data(), st_Pending.strData.size(), 0,
                   reinterpret_cast<const sockaddr*>(&st_Pending.st_To), sizeof(st_Pending.st_To));
            ++m_st_Stats.nForwarded;
            m_Queue.erase(m_Queue.begin());
        }
    }

    RelayOptions m_st_Options;
    int m_hSocket = -1;
    int m_nPort = 0;
    sockaddr_in m_st_Target{};
    sockaddr_in m_st_Client{};
    bool m_bHaveClient = false;
    std::mt19937 m_Random[2];
    std::atomic<bool> m_bRun{false};
    std::thread m_Thread;

    mutable std::mutex m_Mutex;
    RelayStats m_st_Stats;
    uint64_t m_nSequence = 0;
    std::map<std::pair<Clock::time_point, uint64_t>, Pending> m_Queue;
};

}  // namespace udxpeer
