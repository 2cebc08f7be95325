// CNetCore_PIPIpc: a thin, stateless layer over System V shared memory segments. Exported as
// NetCore_PIPIpc_* through the global m_PIPIpc. Android has no System V shared memory for
// applications: the platform layer makes every call fail there with ENOSYS.
#pragma once

#include "Ombrelt_NetCore.h"

class NETCORE_API CNetCore_PIPIpc {
public:
    bool NetCore_PIPIpc_Create(int* phShm, int nSize);
    bool NetCore_PIPIpc_OPen(int hShm);
    void* NetCore_PIPIpc_Get(int hShm);
    bool NetCore_PIPIpc_Free(void* lPBase);
    bool NetCore_PIPIpc_Close(int hShm);
};
