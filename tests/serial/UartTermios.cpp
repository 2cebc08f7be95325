// Makes the pseudo-terminals of these tests keep data bits and parity the way a UART does.
//
// The Linux pseudo-terminal driver forces CS8 and clears PARENB on every tcsetattr, and glibc
// then reports EINVAL because the line did not take the request, so on a bare pty no opening
// with parity or fewer than 8 data bits could succeed or be read back. This test executable
// therefore defines tcsetattr and tcgetattr itself (the library's calls bind to the executable's
// definitions first, so they are exported from it): for pty devices the CSIZE and PARENB bits are kept here, per
// device, and everything else goes to the real line unchanged. Data bits and parity have no effect on the bytes a pty
// carries, so nothing else changes.
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>

#include <map>
#include <mutex>

namespace {

constexpr tcflag_t kKept = CSIZE | PARENB;

std::mutex g_lock;
std::map<dev_t, tcflag_t> g_kept;  // guarded by g_lock

// Unix98 pty device sides have the majors 136 to 143.
bool PtyDevice(int fd, dev_t* device) {
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISCHR(st.st_mode)) return false;
    unsigned int nMajor = major(st.st_rdev);
    *device = st.st_rdev;
    return nMajor >= 136 && nMajor <= 143;
}

template <typename Fn>
Fn Next(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int tcsetattr(int fd, int action,
                                                                const struct termios* attr) noexcept {
    using Fn = int (*)(int, int, const struct termios*);
    static Fn real = Next<Fn>("tcsetattr");
    dev_t device = 0;
    if (attr == nullptr || !PtyDevice(fd, &device)) return real(fd, action, attr);
    struct termios line = *attr;
    line.c_cflag = (line.c_cflag & ~kKept) | CS8;
    int result = real(fd, action, &line);
    if (result == 0) {
        std::lock_guard<std::mutex> guard(g_lock);
        g_kept[device] = attr->c_cflag & kKept;
    }
    return result;
}

extern "C" __attribute__((visibility("default"))) int tcgetattr(int fd, struct termios* attr) noexcept {
    using Fn = int (*)(int, struct termios*);
    static Fn real = Next<Fn>("tcgetattr");
    int result = real(fd, attr);
    dev_t device = 0;
    if (result != 0 || !PtyDevice(fd, &device)) return result;
    std::lock_guard<std::mutex> guard(g_lock);
    auto kept = g_kept.find(device);
    if (kept != g_kept.end()) attr->c_cflag = (attr->c_cflag & ~kKept) | kept->second;
    return result;
}
