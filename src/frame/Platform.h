// Everything that differs between the C libraries we run on (glibc on Linux, bionic on Android)
// lives behind these functions.
#pragma once

#include <sys/time.h>

namespace netcore::platform {

// select() on one descriptor, for reading (bRead) or writing, with select's own time-out rules.
// Returns what select returns (-1 with errno, 0 on time-out, else the ready count) and whether
// the descriptor is in the resulting set. Descriptors at or above FD_SETSIZE do not fit an
// fd_set, so they are waited on with ppoll and reported exactly as select reports them.
int SelectOne(int hFd, bool bRead, const struct timeval* pSt_TimeOut, bool* pbIsSet);

}  // namespace netcore::platform
