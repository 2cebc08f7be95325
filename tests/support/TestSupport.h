// Helpers shared by the test suites: waiting on conditions, loopback peers, and a fixture that
// checks a test leaves no descriptor or thread behind.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>

#include "Ombrelt_NetCore.h"

namespace nctest {

using namespace std::chrono_literals;

// The longest readiness wait every C library takes: bionic's select refuses a microseconds field
// of a second or more, so a wait that is not itself under test stays below 1000 ms.
constexpr int kLongestWaitMs = 999;

// Polls pred until it holds or the deadline passes; returns its last value.
bool WaitFor(const std::function<bool()>& pred, std::chrono::milliseconds timeout = 5s);

int CountOpenFds();
int CountThreads();

// Owns a descriptor in a test.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : m_fd(fd) {}
    Fd(Fd&& other) noexcept : m_fd(other.Release()) {}
    Fd& operator=(Fd&& other) noexcept;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { Reset(); }
    int Get() const { return m_fd; }
    int Release();
    void Reset(int fd = -1);

private:
    int m_fd = -1;
};

bool Ipv6Available();
// The port a bound socket has.
int LocalPort(int fd);
// A loopback TCP listener on a free port (family AF_INET or AF_INET6).
Fd ListenTcp(int family, int* port);
// A connected loopback client.
Fd ConnectTcp(int family, int port);
// A loopback UDP socket bound to a free port.
Fd BindUdp(int family, int* port);
// A connected pair over loopback TCP: client and accepted server side.
void TcpPair(int family, Fd* client, Fd* server);

// Reads NetCore_IsErrorOccur the way the library writes it (any thread may).
bool ErrorFlag();
void ResetErrorState();
// The call's result, then the error flag and code it left (code 0: a success with the flag clear).
void ExpectCode(bool ok, unsigned long long code, const char* what);

// Base fixture: fails a test that leaves descriptors or threads behind.
class NetCoreTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

private:
    int m_fds = 0;
    int m_threads = 0;
};

}  // namespace nctest

// The call fails, raises the error flag and leaves its code (a macro, so a failure names the line).
// The library's own threads clear the flag as they run their operations, so a check that loses
// that race calls again.
#define EXPECT_FAILS(call, code)                                                                              \
    EXPECT_TRUE(nctest::WaitFor([&] {                                                                         \
        return !(call) && nctest::ErrorFlag() && NetCore_GetLastError(nullptr) == (unsigned long long)(code); \
    })) << #call                                                                                              \
        << " left " << NetCore_GetLastError(nullptr) << ", not " << #code
