#include "NetCore_PIPIpc.h"

#include <sys/ipc.h>
#include <unistd.h>

#include "base/Error.h"
#include "base/Platform.h"

using netcore::ClearError;
using netcore::Fail;
namespace platform = netcore::platform;

bool CNetCore_PIPIpc::NetCore_PIPIpc_Create(int* phShm, int nSize) {
    ClearError();
    if (phShm == nullptr) return Fail(ERROR_NETCORE_PIPE_IPC_PARAMENT);
    if (nSize % getpagesize() != 0) return Fail(ERROR_NETCORE_PIPE_IPC_SIZE);
    int hShm = platform::ShmGet(IPC_PRIVATE, static_cast<size_t>(nSize), IPC_CREAT | IPC_EXCL | 0600);
    if (hShm == -1) return Fail(ERROR_NETCORE_PIPE_IPC_SHMGET);
    *phShm = hShm;
    return true;
}

bool CNetCore_PIPIpc::NetCore_PIPIpc_OPen(int hShm) {
    ClearError();
    // the argument is used as a key
    if (platform::ShmGet(static_cast<key_t>(hShm), 0, 0) == -1) return Fail(ERROR_NETCORE_PIPE_IPC_OPEN);
    return true;
}

void* CNetCore_PIPIpc::NetCore_PIPIpc_Get(int hShm) {
    ClearError();
    // shmat's failure value, (void*)-1, is handed back as it is, with no code
    return platform::ShmAt(hShm);
}

bool CNetCore_PIPIpc::NetCore_PIPIpc_Free(void* lPBase) {
    ClearError();
    platform::ShmDt(lPBase);
    return true;
}

bool CNetCore_PIPIpc::NetCore_PIPIpc_Close(int hShm) {
    ClearError();
    platform::ShmRemove(hShm);
    return true;
}
