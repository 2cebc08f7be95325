// What the three parts of the TCP epoll server share: its event masks, the per-thread markers of
// the event loop, and small helpers. Private to src/tcpxcore/.
#pragma once

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include "Ombrelt_BaseLib.h"
#include "tcpxcore/NetCore_TCPXCore.h"

namespace netcore::tcpx {

// EPOLLRDHUP lets a read that comes back short stand for a drained socket: the event then says
// whether the peer's end of stream is already queued behind the data.
constexpr uint32_t kEventsRecv = EPOLLIN | EPOLLRDHUP | EPOLLET;
constexpr uint32_t kEventsRecvSend = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
// A client that keeps its socket full would otherwise hold its event thread forever: after this
// many reads in one event the registration is re-armed, which queues a fresh event behind the
// other clients' ones while data is still waiting, so the drain to EAGAIN goes on from there.
constexpr int kMaxReadsPerEvent = 64;
// Full reads taken from the socket in one call (a loopback segment holds up to 64 KiB).
constexpr int kReadSlices = 8;

// The server whose event loop runs on this thread, if any.
inline thread_local const CNetCore_TCPXCore* t_pEventServer = nullptr;
// The client whose receive callback runs on this thread, if any. The event thread holds a
// reference to it for the whole call, so a send answering it from the callback can skip the
// lookup by address text.
inline thread_local NETCORE_TCPEPOLL_CLIENT* t_pSt_Delivering = nullptr;

inline unsigned long long TickNow() {
    return BaseLib_OperatorTime_GetTickCount64();
}

inline void CloseRaw(int hFd) {
    if (hFd < 0) return;
    shutdown(hFd, SHUT_RDWR);
    close(hFd);
}

inline bool EpollCtl(int hEpoll, int nOp, int hSocket, uint32_t nEvents) {
    struct epoll_event st_Event {};
    st_Event.events = nEvents;
    st_Event.data.fd = hSocket;
    return epoll_ctl(hEpoll, nOp, hSocket, &st_Event) == 0;
}

// Starts a new averaging period when the current one has run longer than the flow period.
inline void RenewPeriod(std::atomic<unsigned long long>& nPeriodStart, unsigned long long nNow, int nFlowPeriod,
                        std::atomic<unsigned long long>& nSnapBytes, const std::atomic<unsigned long long>& nBytes,
                        std::atomic<unsigned long long>& nSnapPackets,
                        const std::atomic<unsigned long long>& nPackets) {
    unsigned long long nStart = nPeriodStart.load(std::memory_order_relaxed);
    if (nNow - nStart > static_cast<unsigned long long>(nFlowPeriod) * 1000ULL) {
        nPeriodStart.store(nNow, std::memory_order_relaxed);
        nSnapBytes.store(nBytes.load(std::memory_order_relaxed), std::memory_order_relaxed);
        nSnapPackets.store(nPackets.load(std::memory_order_relaxed), std::memory_order_relaxed);
    }
}

// Per-client counters have one writer at a time (the receive path under the receive lock, senders
// under the send lock), so a plain load and store adds without a locked instruction.
inline void Add(std::atomic<unsigned long long>& nCounter, unsigned long long nValue) {
    nCounter.store(nCounter.load(std::memory_order_relaxed) + nValue, std::memory_order_relaxed);
}

inline unsigned long long Get(const std::atomic<unsigned long long>& nCounter) {
    return nCounter.load(std::memory_order_relaxed);
}

}  // namespace netcore::tcpx
