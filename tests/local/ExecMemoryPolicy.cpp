// This executable defines mmap itself: the library's calls bind to the executable's definition
// first (it is exported from it because the library refers to it). What is not refused goes to the
// system call directly: the next mmap in the lookup order may be a sanitizer's, which is not ready
// for the calls made while the process starts, and this function must not be instrumented either.
#include "ExecMemoryPolicy.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace {

// read and written with the compiler's atomic built-ins, which stay uninstrumented in mmap
bool g_refuse = false;
int g_refused = 0;

}  // namespace

extern "C" __attribute__((visibility("default"), no_sanitize("address", "thread", "undefined"))) void* mmap(
    void* addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept {
    if ((prot & PROT_EXEC) != 0 && __atomic_load_n(&g_refuse, __ATOMIC_SEQ_CST)) {
        __atomic_add_fetch(&g_refused, 1, __ATOMIC_SEQ_CST);
        errno = EACCES;
        return MAP_FAILED;
    }
    // syscall() reports a failure as -1 with errno, which is MAP_FAILED
    return reinterpret_cast<void*>(syscall(SYS_mmap, addr, length, prot, flags, fd, offset));
}

namespace localtest {

RefuseExecutableMappings::RefuseExecutableMappings() {
    __atomic_store_n(&g_refused, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&g_refuse, true, __ATOMIC_SEQ_CST);
}

RefuseExecutableMappings::~RefuseExecutableMappings() {
    __atomic_store_n(&g_refuse, false, __ATOMIC_SEQ_CST);
}

int RefuseExecutableMappings::Refused() const {
    return __atomic_load_n(&g_refused, __ATOMIC_SEQ_CST);
}

}  // namespace localtest
