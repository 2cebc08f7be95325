#include "NetNamespace.h"

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <vector>

extern char** environ;

namespace dgtest {
namespace {

// Runs `ip <args>` quietly; true when it exits with status 0.
bool RunIp(std::initializer_list<const char*> args) {
    std::vector<char*> argv{const_cast<char*>("ip")};
    for (const char* arg : args)
        argv.push_back(const_cast<char*>(arg));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, "ip", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return false;
    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

bool NetNamespace::Enter() {
    m_hOriginal = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    if (m_hOriginal < 0) {
        m_strWhy = std::string("cannot open this thread's network namespace: ") + strerror(errno);
        return false;
    }
    if (unshare(CLONE_NEWNET) != 0) {
        m_strWhy = std::string("cannot make a network namespace (needs root, or CAP_SYS_ADMIN and CAP_NET_ADMIN): ") +
                   strerror(errno);
        Leave();
        return false;
    }
    struct Step {
        std::initializer_list<const char*> args;
        const char* what;
    };
    const Step steps[] = {
        {{"link", "set", "lo", "up"}, "bring up loopback"},
        {{"link", "add", "nc0", "type", "veth", "peer", "name", "nc1"}, "add a veth pair"},
        {{"addr", "add", "10.77.0.1/24", "broadcast", "10.77.0.255", "dev", "nc0"}, "address the veth"},
        {{"link", "set", "nc0", "up"}, "bring up the veth"},
        {{"link", "set", "nc1", "up"}, "bring up the veth peer"},
        {{"route", "add", "255.255.255.255/32", "dev", "nc0"}, "add the broadcast route"},
        {{"route", "add", "224.0.0.0/4", "dev", "nc0"}, "add the multicast route"},
    };
    for (const Step& step : steps) {
        if (!RunIp(step.args)) {
            m_strWhy = std::string("in a fresh network namespace, `ip` could not ") + step.what;
            Leave();
            return false;
        }
    }
    return true;
}

void NetNamespace::Leave() {
    if (m_hOriginal < 0) return;
    setns(m_hOriginal, CLONE_NEWNET);
    close(m_hOriginal);
    m_hOriginal = -1;
}

}  // namespace dgtest
