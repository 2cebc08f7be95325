// Shared memory between a parent and a forked child, both ways the library offers:
// a named mapped region (NetCore_PIPMMap_*) and a System V segment (NetCore_PIPIpc_*).
//
// Usage: shared_memory
// On Android, System V shared memory is not available to applications: the segment part reports
// ERROR_NETCORE_PIPE_IPC_SHMGET with errno ENOSYS and is skipped.
#include <errno.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "Ombrelt_NetCore.h"

namespace {

int RunInChild(int (*fnBody)(int), int nArg) {
    fflush(stdout);
    pid_t nChild = fork();
    if (nChild == 0) _exit(fnBody(nArg));
    int nStatus = 0;
    waitpid(nChild, &nStatus, 0);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 1;
}

int ChildWritesRegion(int) {
    char tszText[] = "hello through a mapped region";
    return NetCore_PIPMMap_Write("example", tszText, sizeof(tszText), 64) ? 0 : 1;
}

int ChildWritesSegment(int hShm) {
    auto* lpszBase = static_cast<char*>(NetCore_PIPIpc_Get(hShm));
    if (lpszBase == reinterpret_cast<void*>(-1)) return 1;
    strcpy(lpszBase, "hello through a System V segment");
    NetCore_PIPIpc_Free(lpszBase);
    return 0;
}

}  // namespace

int main() {
    // A mapped region: created before the fork, so the child shares it.
    if (!NetCore_PIPMMap_Create("example", nullptr, 4096)) {
        printf("mapped region: create failed, code 0x%08llX\n", NetCore_GetLastError(nullptr));
        return 1;
    }
    int nResult = RunInChild(ChildWritesRegion, 0);
    char tszBuffer[64] = {};
    NetCore_PIPMMap_Read("example", tszBuffer, sizeof("hello through a mapped region"), 64);
    printf("mapped region: child %s, parent reads \"%s\"\n", nResult == 0 ? "wrote" : "failed", tszBuffer);
    NetCore_PIPMMap_Close("example");

    // A System V segment: the child attaches it by the identifier it inherits.
    int hShm = -1;
    if (!NetCore_PIPIpc_Create(&hShm, getpagesize())) {
        int nSysError = 0;
        unsigned long long nCode = NetCore_GetLastError(&nSysError);
        printf("segment: create failed, code 0x%08llX, errno %d (%s)%s\n", nCode, nSysError, strerror(nSysError),
               nSysError == ENOSYS ? ": no System V shared memory on this platform" : "");
        return nSysError == ENOSYS ? 0 : 1;
    }
    auto* lpszBase = static_cast<char*>(NetCore_PIPIpc_Get(hShm));
    if (lpszBase == reinterpret_cast<void*>(-1)) {
        printf("segment: attach failed\n");
        NetCore_PIPIpc_Close(hShm);
        return 1;
    }
    int nSegment = RunInChild(ChildWritesSegment, hShm);
    printf("segment %d: child %s, parent reads \"%s\"\n", hShm, nSegment == 0 ? "wrote" : "failed", lpszBase);
    NetCore_PIPIpc_Free(lpszBase);
    NetCore_PIPIpc_Close(hShm);  // removes it
    return nResult == 0 && nSegment == 0 ? 0 : 1;
}
