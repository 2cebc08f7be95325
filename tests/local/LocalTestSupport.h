// Helpers for the local-channel tests: unique temporary paths removed at the end of a test, and
// child processes that report through their exit status.
#pragma once

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace localtest {

using namespace std::chrono_literals;

// A path in /tmp that no other test (process) uses; whatever is left there is unlinked at the end.
class TempPath {
public:
    explicit TempPath(const char* tag) {
        static std::atomic<int> counter{0};
        char buffer[96];
        snprintf(buffer, sizeof(buffer), "/tmp/nctest_%s_%d_%d", tag, static_cast<int>(getpid()), counter++);
        m_path = buffer;
        unlink(m_path.c_str());
    }
    ~TempPath() { unlink(m_path.c_str()); }
    TempPath(const TempPath&) = delete;
    TempPath& operator=(const TempPath&) = delete;
    const char* c_str() const { return m_path.c_str(); }
    bool Exists() const {
        struct stat st {};
        return lstat(m_path.c_str(), &st) == 0;
    }
    mode_t Type() const {
        struct stat st {};
        return lstat(m_path.c_str(), &st) == 0 ? (st.st_mode & S_IFMT) : 0;
    }

private:
    std::string m_path;
};

// Runs body in a forked child that exits with its result (0 = success) and never returns.
// Children only make system calls and library calls that start no thread.
inline pid_t ForkChild(const std::function<int()>& body) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
}

// The child's exit status, or -1 when it did not end within the deadline (it is then killed).
inline int WaitChild(pid_t pid, std::chrono::milliseconds timeout = 10s) {
    if (pid <= 0) return -1;
    int status = 0;
    bool ended = nctest::WaitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeout);
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Polls cond every millisecond up to the deadline, for children (no gtest there).
inline bool ChildWait(const std::function<bool()>& cond, std::chrono::milliseconds timeout = 5s) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        usleep(1000);
    }
    return true;
}

inline void ExpectFailure(unsigned long long code) {
    EXPECT_TRUE(nctest::ErrorFlag());
    EXPECT_EQ(code, NetCore_GetLastError(nullptr));
}

}  // namespace localtest
