// This executable defines mmap itself: the library's calls bind to the executable's definition
// first (it is exported from it because the library refers to it), and everything that is not
// refused goes on to the next mmap in the lookup order (the C library's, or a sanitizer's).
#include "ExecMemoryPolicy.h"

#include <dlfcn.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<bool> g_refuse{false};
std::atomic<int> g_refused{0};

}  // namespace

extern "C" __attribute__((visibility("default"))) void* mmap(void* addr, size_t length, int prot, int flags, int fd,
                                                             off_t offset) noexcept {
    using Fn = void* (*)(void*, size_t, int, int, int, off_t);
    static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "mmap"));
    if ((prot & PROT_EXEC) != 0 && g_refuse.load()) {
        g_refused++;
        errno = EACCES;
        return MAP_FAILED;
    }
    return real(addr, length, prot, flags, fd, offset);
}

namespace localtest {

RefuseExecutableMappings::RefuseExecutableMappings() {
    g_refused = 0;
    g_refuse = true;
}

RefuseExecutableMappings::~RefuseExecutableMappings() {
    g_refuse = false;
}

int RefuseExecutableMappings::Refused() const {
    return g_refused.load();
}

}  // namespace localtest
