// Helpers for the UDP epoll server tests: a callback that records what it is given, and a plain
// UDP peer on loopback.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace udpxtest {

using namespace std::chrono_literals;

struct Delivery {
    std::string addr;
    int socket = -1;
    std::string data;
    int len = 0;  // -1 reports a receive error
    std::thread::id thread;
};

// Registered as the receive callback with itself as the context.
class Recorder {
public:
    static void OnRecv(const char* lpszClientAddr, int hSocket, const char* lpszMsgBuffer, int nMsgLen, void* lParam) {
        auto* self = static_cast<Recorder*>(lParam);
        Delivery d;
        d.addr = lpszClientAddr != nullptr ? lpszClientAddr : "(null)";
        d.socket = hSocket;
        if (lpszMsgBuffer != nullptr && nMsgLen > 0) d.data.assign(lpszMsgBuffer, static_cast<size_t>(nMsgLen));
        d.len = nMsgLen;
        d.thread = std::this_thread::get_id();
        std::lock_guard<std::mutex> lock(self->m_lock);
        self->m_got.push_back(std::move(d));
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_got.size();
    }
    bool WaitCount(size_t n, std::chrono::milliseconds timeout = 5s) {
        return nctest::WaitFor([&] { return Count() >= n; }, timeout);
    }
    std::vector<Delivery> Got() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_got;
    }

private:
    std::mutex m_lock;
    std::vector<Delivery> m_got;
};

inline socklen_t Loopback(int family, int port, sockaddr_storage* addr) {
    *addr = {};
    if (family == AF_INET) {
        auto* in = reinterpret_cast<sockaddr_in*>(addr);
        in->sin_family = AF_INET;
        in->sin_port = htons(static_cast<uint16_t>(port));
        in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return sizeof(sockaddr_in);
    }
    auto* in6 = reinterpret_cast<sockaddr_in6*>(addr);
    in6->sin6_family = AF_INET6;
    in6->sin6_port = htons(static_cast<uint16_t>(port));
    in6->sin6_addr = in6addr_loopback;
    return sizeof(sockaddr_in6);
}

// Sends one datagram to the loopback address of the family.
inline bool SendTo(int fd, int family, int port, const std::string& data) {
    sockaddr_storage addr;
    socklen_t len = Loopback(family, port, &addr);
    return sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&addr), len) ==
           static_cast<ssize_t>(data.size());
}

// Waits up to the time-out for one datagram; empty string when none came.
inline std::string RecvOne(int fd, int timeout_ms = 3000, std::string* from = nullptr) {
    timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    char buf[4096];
    sockaddr_storage addr{};
    socklen_t len = sizeof(addr);
    ssize_t n = recvfrom(fd, buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&addr), &len);
    if (n < 0) return "";
    if (from != nullptr) {
        char text[INET6_ADDRSTRLEN] = "";
        if (addr.ss_family == AF_INET) {
            inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(&addr)->sin_addr, text, sizeof(text));
        } else {
            inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(&addr)->sin6_addr, text, sizeof(text));
        }
        *from = text;
    }
    return std::string(buf, static_cast<size_t>(n));
}

}  // namespace udpxtest
