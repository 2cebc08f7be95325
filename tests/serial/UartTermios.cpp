// Makes the pseudo-terminals of these tests keep data bits and parity the way a UART does.
//
// The Linux pseudo-terminal driver forces CS8 and clears PARENB on every tcsetattr, so on a bare
// pty no opening with parity or fewer than 8 data bits could be read back. This executable
// therefore defines tcsetattr and tcgetattr itself (the library's calls bind to the executable's
// definitions first): for pty devices the CSIZE and PARENB bits are kept here, per device, and
// everything else goes to the real line unchanged. They do not change the bytes a pty carries.
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
    *device = st.st_rdev;
    return major(st.st_rdev) >= 136 && major(st.st_rdev) <= 143;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int tcsetattr(int fd, int action,
                                                                const struct termios* attr) noexcept {
    static auto real = reinterpret_cast<int (*)(int, int, const struct termios*)>(dlsym(RTLD_NEXT, "tcsetattr"));
    dev_t device = 0;
    if (attr == nullptr || !PtyDevice(fd, &device)) return real(fd, action, attr);
    struct termios line = *attr;
    line.c_cflag = (line.c_cflag & ~kKept) | CS8;
    int result = real(fd, action, &line);
    std::lock_guard<std::mutex> guard(g_lock);
    if (result == 0) g_kept[device] = attr->c_cflag & kKept;
    return result;
}

extern "C" __attribute__((visibility("default"))) int tcgetattr(int fd, struct termios* attr) noexcept {
    static auto real = reinterpret_cast<int (*)(int, struct termios*)>(dlsym(RTLD_NEXT, "tcgetattr"));
    int result = real(fd, attr);
    dev_t device = 0;
    if (result != 0 || !PtyDevice(fd, &device)) return result;
    std::lock_guard<std::mutex> guard(g_lock);
    auto kept = g_kept.find(device);
    if (kept != g_kept.end()) attr->c_cflag = (attr->c_cflag & ~kKept) | kept->second;
    return result;
}
