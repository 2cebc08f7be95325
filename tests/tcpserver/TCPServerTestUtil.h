// Helpers of the TCP server tests: a recorder for the three callbacks and loopback clients.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "Ombrelt_BaseLib.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace tcptest {

struct Event {
    std::string addr;
    int socket;
    std::string data;
};

// Records every callback, in order, with the context it was given.
struct Recorder {
    std::mutex lock;
    std::vector<Event> logins, recvs, leaves;
    std::vector<std::string> order;  // "login addr", "recv addr", "leave addr"
    void* contextSeen = nullptr;
    // optional reactions, run on the server's thread
    void (*onRecv)(Recorder*, const char* addr, const char* data, int len) = nullptr;

    size_t Count(const std::vector<Event>& events) {
        std::lock_guard<std::mutex> guard(lock);
        return events.size();
    }
    std::vector<Event> Copy(const std::vector<Event>& events) {
        std::lock_guard<std::mutex> guard(lock);
        return events;
    }
    bool WaitCount(const std::vector<Event>& events, size_t count) {
        return nctest::WaitFor([&] { return Count(events) >= count; });
    }

    static bool Login(const char* addr, int socket, void* ctx) {
        auto* self = static_cast<Recorder*>(ctx);
        std::lock_guard<std::mutex> guard(self->lock);
        self->logins.push_back({addr, socket, ""});
        self->order.push_back(std::string("login ") + addr);
        return true;
    }
    static void Recv(const char* addr, int socket, const char* data, int len, void* ctx) {
        auto* self = static_cast<Recorder*>(ctx);
        {
            std::lock_guard<std::mutex> guard(self->lock);
            self->recvs.push_back({addr, socket, std::string(data, static_cast<size_t>(len))});
            self->order.push_back(std::string("recv ") + addr);
        }
        if (self->onRecv != nullptr) self->onRecv(self, addr, data, len);
    }
    static void Leave(const char* addr, int socket, void* ctx) {
        auto* self = static_cast<Recorder*>(ctx);
        std::lock_guard<std::mutex> guard(self->lock);
        self->leaves.push_back({addr, socket, ""});
        self->order.push_back(std::string("leave ") + addr);
    }
};

// The address text the server gives a connected client: the client's own end, "%s:%d".
inline std::string AddrText(int fd) {
    sockaddr_storage addr{};
    socklen_t len = sizeof(addr);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    char text[64] = {};
    int port;
    if (addr.ss_family == AF_INET) {
        auto* in = reinterpret_cast<sockaddr_in*>(&addr);
        inet_ntop(AF_INET, &in->sin_addr, text, sizeof(text));
        port = ntohs(in->sin_port);
    } else {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&addr);
        inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof(text));
        port = ntohs(in6->sin6_port);
    }
    return std::string(text) + ":" + std::to_string(port);
}

// A port nobody listens on right now.
inline int FreePort(int family) {
    int port = 0;
    nctest::Fd probe = nctest::ListenTcp(family, &port);
    return port;
}

// Starts a server on a free port (retrying when another process took it meanwhile).
template <typename StartFn>
int StartOnFreePort(int family, StartFn start) {
    for (int attempt = 0; attempt < 10; attempt++) {
        int port = FreePort(family);
        if (start(port)) return port;
    }
    ADD_FAILURE() << "no port to start on";
    return -1;
}

// Waits for data (or the end) on a client socket: the bytes read, "" at end of stream or error.
inline std::string ReadSome(int fd, int timeoutMs = 5000) {
    pollfd entry{fd, POLLIN, 0};
    if (poll(&entry, 1, timeoutMs) != 1) return "<timeout>";
    char buffer[8192];
    ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

inline void SendText(int fd, const std::string& text) {
    ASSERT_EQ(static_cast<ssize_t>(text.size()), send(fd, text.data(), text.size(), MSG_NOSIGNAL));
}

// The list GetList hands out, copied and released through the BaseLib companion.
template <typename GetListFn>
std::vector<std::string> TakeList(GetListFn getList) {
    char** list = nullptr;
    int count = 0;
    if (!getList(&list, &count)) return {};
    std::vector<std::string> result;
    for (int i = 0; i < count; i++) {
        result.emplace_back(list[i]);
    }
    EXPECT_TRUE(BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&list), count));
    EXPECT_EQ(nullptr, list);
    return result;
}

inline void ExpectFailure(unsigned long long code) {
    EXPECT_TRUE(nctest::ErrorFlag());
    EXPECT_EQ(code, NetCore_GetLastError(nullptr));
}

}  // namespace tcptest
