// Makes the pseudo-terminals of these tests keep data bits and parity the way a UART does.
//
// The Linux pseudo-terminal driver forces CS8 and clears PARENB on every tcsetattr, so on a bare
// pty no opening with parity or fewer than 8 data bits could be read back. This executable
// therefore defines tcsetattr and tcgetattr itself (the library's calls bind to the executable's
// definitions first): the CSIZE and PARENB bits last set are kept here, and everything else goes
// to the real line unchanged. They do not change the bytes a pty carries. A test drives one
// pseudo-terminal at a time, so one value serves.
#include <dlfcn.h>
#include <termios.h>

#include <atomic>

namespace {

constexpr tcflag_t kKept = CSIZE | PARENB;
std::atomic<tcflag_t> g_kept{CS8};

template <typename Fn>
Fn Real(Fn, const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int tcsetattr(int fd, int action, const termios* attr) noexcept {
    static auto real = Real(&tcsetattr, "tcsetattr");
    termios line = *attr;
    line.c_cflag = (line.c_cflag & ~kKept) | CS8;
    int result = real(fd, action, &line);
    if (result == 0) g_kept = attr->c_cflag & kKept;
    return result;
}

extern "C" __attribute__((visibility("default"))) int tcgetattr(int fd, termios* attr) noexcept {
    static auto real = Real(&tcgetattr, "tcgetattr");
    int result = real(fd, attr);
    if (result == 0) attr->c_cflag = (attr->c_cflag & ~kKept) | g_kept;
    return result;
}
