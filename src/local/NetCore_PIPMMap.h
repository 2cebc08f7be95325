// CNetCore_PIPMMap: shared anonymous memory regions known by a name inside the process, with
// copy-in, copy-out and direct-pointer access. Exported as NetCore_PIPMMap_* through the global
// m_PIPMMap.
#pragma once

#include <cstddef>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "Ombrelt_NetCore.h"

struct NETCORE_PIPMMAP {
    bool bFile;    // a file was named at Create: its descriptor is closed by Close
    size_t nSize;  // the length given to Create
    void* lPBase;  // start of the region
    int hFile;
};

class NETCORE_API CNetCore_PIPMMap {
public:
    CNetCore_PIPMMap() = default;
    ~CNetCore_PIPMMap();
    CNetCore_PIPMMap(const CNetCore_PIPMMap&) = delete;
    CNetCore_PIPMMap& operator=(const CNetCore_PIPMMap&) = delete;

    bool NetCore_PIPMMap_Create(const char* lpszName, const char* lpszFile, int nSize);
    bool NetCore_PIPMMap_Write(const char* lpszName, void* lPBuffer, int nLen, int nPos);
    bool NetCore_PIPMMap_Read(const char* lpszName, void* lPBuffer, int nLen, int nPos);
    void* NetCore_PIPMMap_GetPointer(const char* lpszName);
    bool NetCore_PIPMMap_FreePointer(const char* lpszName);
    bool NetCore_PIPMMap_OPen(const char* lpszName);
    bool NetCore_PIPMMap_Close(const char* lpszName);

private:
    // Exclusive for Create and Close, shared for Write, Read and GetPointer. The regions' contents
    // are not guarded: callers coordinate their own access.
    std::shared_mutex st_Locker;
    std::unordered_map<std::string, NETCORE_PIPMMAP> stl_MapMMap;
};
