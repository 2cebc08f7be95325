// The exported NetCore_PIPMMap_* and NetCore_PIPIpc_* functions: each forwards its arguments
// unchanged to m_PIPMMap or m_PIPIpc.
#include "Globals.h"

extern "C" {

bool NetCore_PIPMMap_Create(const char* lpszName, const char* lpszFile, int nSize) {
    return m_PIPMMap.NetCore_PIPMMap_Create(lpszName, lpszFile, nSize);
}
bool NetCore_PIPMMap_Write(const char* lpszName, void* lPBuffer, int nLen, int nPos) {
    return m_PIPMMap.NetCore_PIPMMap_Write(lpszName, lPBuffer, nLen, nPos);
}
bool NetCore_PIPMMap_Read(const char* lpszName, void* lPBuffer, int nLen, int nPos) {
    return m_PIPMMap.NetCore_PIPMMap_Read(lpszName, lPBuffer, nLen, nPos);
}
void* NetCore_PIPMMap_GetPointer(const char* lpszName) {
    return m_PIPMMap.NetCore_PIPMMap_GetPointer(lpszName);
}
bool NetCore_PIPMMap_FreePointer(const char* lpszName) {
    return m_PIPMMap.NetCore_PIPMMap_FreePointer(lpszName);
}
bool NetCore_PIPMMap_OPen(const char* lpszName) {
    return m_PIPMMap.NetCore_PIPMMap_OPen(lpszName);
}
bool NetCore_PIPMMap_Close(const char* lpszName) {
    return m_PIPMMap.NetCore_PIPMMap_Close(lpszName);
}

bool NetCore_PIPIpc_Create(int* phShm, int nSize) {
    return m_PIPIpc.NetCore_PIPIpc_Create(phShm, nSize);
}
bool NetCore_PIPIpc_OPen(int hShm) {
    return m_PIPIpc.NetCore_PIPIpc_OPen(hShm);
}
void* NetCore_PIPIpc_Get(int hShm) {
    return m_PIPIpc.NetCore_PIPIpc_Get(hShm);
}
bool NetCore_PIPIpc_Free(void* lPBase) {
    return m_PIPIpc.NetCore_PIPIpc_Free(lPBase);
}
bool NetCore_PIPIpc_Close(int hShm) {
    return m_PIPIpc.NetCore_PIPIpc_Close(hShm);
}
}
