#include "PtyPair.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

extern char** environ;

namespace serialtest {

PtyPair::PtyPair() {
    m_master = nctest::Fd(posix_openpt(O_RDWR | O_NOCTTY));
    if (m_master.Get() < 0) {
        ADD_FAILURE() << "posix_openpt: " << strerror(errno);
        return;
    }
    char name[128] = {};
    if (grantpt(m_master.Get()) != 0 || unlockpt(m_master.Get()) != 0 ||
        ptsname_r(m_master.Get(), name, sizeof(name)) != 0) {
        ADD_FAILURE() << "pseudo-terminal set-up: " << strerror(errno);
        return;
    }
    m_path = name;
    m_device = nctest::Fd(open(name, O_RDWR | O_NOCTTY | O_NONBLOCK));
    EXPECT_GE(m_device.Get(), 0) << name << ": " << strerror(errno);
}

void WriteAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        ASSERT_GT(n, 0) << strerror(errno);
        done += static_cast<size_t>(n);
    }
}

std::string ReadFor(int fd, size_t count, std::chrono::milliseconds timeout) {
    std::string got;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (got.size() < count) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(left.count())) <= 0) continue;
        char buffer[256];
        ssize_t n = read(fd, buffer, std::min(sizeof(buffer), count - got.size()));
        if (n <= 0) break;
        got.append(buffer, static_cast<size_t>(n));
    }
    return got;
}

namespace {
std::string FindInPath(const char* program) {
    const char* path = getenv("PATH");
    std::stringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        std::string candidate = dir + "/" + program;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    return "";
}
}  // namespace

bool SocatPair::Start(std::string* why) {
    std::string socat = FindInPath("socat");
    if (socat.empty()) {
        *why = "socat is not installed (tools/install-deps.sh installs it)";
        return false;
    }
    char dir[] = "/tmp/netcore-serial-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        *why = std::string("mkdtemp: ") + strerror(errno);
        return false;
    }
    m_dir = dir;
    m_pathA = m_dir + "/a";
    m_pathB = m_dir + "/b";
    std::string left = "pty,raw,echo=0,link=" + m_pathA;
    std::string right = "pty,raw,echo=0,link=" + m_pathB;
    const char* argv[] = {socat.c_str(), left.c_str(), right.c_str(), nullptr};
    int rc = posix_spawn(&m_pid, socat.c_str(), nullptr, nullptr, const_cast<char**>(argv), environ);
    if (rc != 0) {
        m_pid = -1;
        *why = std::string("posix_spawn socat: ") + strerror(rc);
        return false;
    }
    bool up = nctest::WaitFor(
        [&] { return access(m_pathA.c_str(), R_OK | W_OK) == 0 && access(m_pathB.c_str(), R_OK | W_OK) == 0; }, 10s);
    if (!up) *why = "socat did not create its pseudo-terminals";
    return up;
}

SocatPair::~SocatPair() {
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        int status = 0;
        while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    // socat removes its links on a clean exit; whatever is left goes here
    if (!m_pathA.empty()) unlink(m_pathA.c_str());
    if (!m_pathB.empty()) unlink(m_pathB.c_str());
    if (!m_dir.empty()) rmdir(m_dir.c_str());
}

}  // namespace serialtest
