#include "Platform.h"

#include <cerrno>
#include <ctime>
#include <poll.h>
#include <sys/select.h>
#if !defined(__ANDROID__)
#include <sys/shm.h>
#endif

namespace netcore::platform {
namespace {

constexpr long kMicrosPerSecond = 1000000;
constexpr long kNanosPerSecond = 1000000000;

// The time-out select would use, as a timespec, or false where select refuses it with EINVAL.
bool SelectTimeOut(const struct timeval* pSt_TimeOut, struct timespec* pSt_Spec) {
    if (pSt_TimeOut->tv_sec < 0 || pSt_TimeOut->tv_usec < 0) return false;
#if defined(__BIONIC__)
    // bionic converts the timeval itself and refuses a microseconds field of a second or more.
    if (pSt_TimeOut->tv_usec >= kMicrosPerSecond) return false;
#endif
    // glibc and the kernel fold whole seconds out of the microseconds field.
    pSt_Spec->tv_sec = pSt_TimeOut->tv_sec + pSt_TimeOut->tv_usec / kMicrosPerSecond;
    pSt_Spec->tv_nsec = (pSt_TimeOut->tv_usec % kMicrosPerSecond) * 1000;
    return true;
}

struct timespec Now() {
    struct timespec st_Now {};
    clock_gettime(CLOCK_MONOTONIC, &st_Now);
    return st_Now;
}

struct timespec Remaining(const struct timespec& st_Deadline) {
    struct timespec st_Now = Now();
    struct timespec st_Left {
        st_Deadline.tv_sec - st_Now.tv_sec, st_Deadline.tv_nsec - st_Now.tv_nsec
    };
    if (st_Left.tv_nsec < 0) {
        st_Left.tv_sec -= 1;
        st_Left.tv_nsec += kNanosPerSecond;
    }
    if (st_Left.tv_sec < 0) st_Left = {0, 0};
    return st_Left;
}

// select semantics on top of ppoll: the kernel's select counts a descriptor readable on
// POLLIN/POLLHUP/POLLERR and writable on POLLOUT/POLLERR, and fails with EBADF for a descriptor
// that is not open.
int PollAsSelect(int hFd, bool bRead, const struct timeval* pSt_TimeOut, bool* pbIsSet) {
    struct timespec st_Wait {};
    if (!SelectTimeOut(pSt_TimeOut, &st_Wait)) {
        errno = EINVAL;
        return -1;
    }
    const short nWanted = bRead ? (POLLIN | POLLRDNORM | POLLRDBAND) : (POLLOUT | POLLWRNORM | POLLWRBAND);
    const short nCounted = bRead ? (nWanted | POLLHUP | POLLERR) : (nWanted | POLLERR);
    struct timespec st_Deadline = Now();
    st_Deadline.tv_sec += st_Wait.tv_sec;
    st_Deadline.tv_nsec += st_Wait.tv_nsec;
    if (st_Deadline.tv_nsec >= kNanosPerSecond) {
        st_Deadline.tv_sec += 1;
        st_Deadline.tv_nsec -= kNanosPerSecond;
    }
    for (;;) {
        struct timespec st_Left = Remaining(st_Deadline);
        struct pollfd st_Poll {
            hFd, nWanted, 0
        };
        int nRet = ppoll(&st_Poll, 1, &st_Left, nullptr);
        if (nRet <= 0) return nRet;
        if (st_Poll.revents & POLLNVAL) {
            errno = EBADF;
            return -1;
        }
        if (st_Poll.revents & nCounted) {
            *pbIsSet = true;
            return 1;
        }
        // Only a hang-up while waiting to write: select keeps waiting for the whole time-out.
        st_Left = Remaining(st_Deadline);
        if (st_Left.tv_sec == 0 && st_Left.tv_nsec == 0) return 0;
        struct timespec st_Pause {
            0, 1000000
        };
        if (st_Left.tv_sec == 0 && st_Left.tv_nsec < st_Pause.tv_nsec) st_Pause = st_Left;
        nanosleep(&st_Pause, nullptr);
    }
}

}  // namespace

int SelectOne(int hFd, bool bRead, const struct timeval* pSt_TimeOut, bool* pbIsSet) {
    *pbIsSet = false;
    if (hFd < 0) {
        // select with a negative descriptor count
        errno = EINVAL;
        return -1;
    }
    if (hFd >= FD_SETSIZE) return PollAsSelect(hFd, bRead, pSt_TimeOut, pbIsSet);

    fd_set st_Set;
    FD_ZERO(&st_Set);
    FD_SET(hFd, &st_Set);
    struct timeval st_TimeOut = *pSt_TimeOut;
    int nRet = bRead ? select(hFd + 1, &st_Set, nullptr, nullptr, &st_TimeOut)
                     : select(hFd + 1, nullptr, &st_Set, nullptr, &st_TimeOut);
    if (nRet > 0) *pbIsSet = FD_ISSET(hFd, &st_Set);
    return nRet;
}

#if defined(__ANDROID__)

int ShmGet(key_t, size_t, int) {
    errno = ENOSYS;
    return -1;
}
void* ShmAt(int) {
    errno = ENOSYS;
    return reinterpret_cast<void*>(-1);
}
int ShmDt(const void*) {
    errno = ENOSYS;
    return -1;
}
int ShmRemove(int) {
    errno = ENOSYS;
    return -1;
}

#else

int ShmGet(key_t nKey, size_t nSize, int nFlags) {
    return shmget(nKey, nSize, nFlags);
}
void* ShmAt(int hShm) {
    return shmat(hShm, nullptr, 0);
}
int ShmDt(const void* lPBase) {
    return shmdt(lPBase);
}
int ShmRemove(int hShm) {
    return shmctl(hShm, IPC_RMID, nullptr);
}

#endif

}  // namespace netcore::platform
