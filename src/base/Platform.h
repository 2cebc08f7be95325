// Everything that differs between the C libraries we run on (glibc on Linux, bionic on Android)
// lives behind these functions.
#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include <cstddef>

namespace netcore::platform {

// select() on one descriptor, for reading (bRead) or writing, with select's own time-out rules.
// Returns what select returns (-1 with errno, 0 on time-out, else the ready count) and whether
// the descriptor is in the resulting set. Descriptors at or above FD_SETSIZE do not fit an
// fd_set, so they are waited on with ppoll and reported exactly as select reports them.
int SelectOne(int hFd, bool bRead, const struct timeval* pSt_TimeOut, bool* pbIsSet);

// System V shared memory: shmget, shmat (NULL address, no flags), shmdt and shmctl(IPC_RMID),
// with their own results and errno. Android gives applications no System V IPC (its seccomp
// policy kills a process that makes these system calls), so there each fails at once with ENOSYS:
// -1, or (void*)-1 for ShmAt.
int ShmGet(key_t nKey, size_t nSize, int nFlags);
void* ShmAt(int hShm);
int ShmDt(const void* lPBase);
int ShmRemove(int hShm);

}  // namespace netcore::platform
