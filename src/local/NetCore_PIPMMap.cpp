#include "NetCore_PIPMMap.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <unistd.h>

#include "base/Error.h"

using netcore::ClearError;
using netcore::Fail;

namespace {

// Bytes actually mapped: the stated size rounded up to whole pages (offsets past nSize inside
// the last page are real memory and are served), none when the mapping failed.
size_t MappedSize(const NETCORE_PIPMMAP& st_MMap) {
    if (st_MMap.lPBase == MAP_FAILED || st_MMap.lPBase == nullptr) return 0;
    const size_t nPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (st_MMap.nSize + nPage - 1) / nPage * nPage;
}

void Release(const NETCORE_PIPMMAP& st_MMap) {
    if (st_MMap.bFile) close(st_MMap.hFile);
    if (st_MMap.lPBase != MAP_FAILED && st_MMap.lPBase != nullptr) munmap(st_MMap.lPBase, st_MMap.nSize);
}

// The part of [nPos, nPos + nLen) that lies inside a region of nMapped bytes, as an offset into
// the caller's buffer, an offset into the region and a count. Offsets are not checked against the
// region on purpose (callers are not refused), but nothing outside the mapping is ever touched.
struct Span {
    size_t nBufferOffset = 0;
    size_t nRegionOffset = 0;
    size_t nCount = 0;
};

Span Inside(int nLen, int nPos, size_t nMapped) {
    Span st_Span;
    int64_t nBegin = nPos, nEnd = static_cast<int64_t>(nPos) + nLen;
    if (nLen <= 0) return st_Span;
    int64_t nFrom = nBegin < 0 ? 0 : nBegin;
    int64_t nTo = nEnd > static_cast<int64_t>(nMapped) ? static_cast<int64_t>(nMapped) : nEnd;
    if (nFrom >= nTo) return st_Span;
    st_Span.nBufferOffset = static_cast<size_t>(nFrom - nBegin);
    st_Span.nRegionOffset = static_cast<size_t>(nFrom);
    st_Span.nCount = static_cast<size_t>(nTo - nFrom);
    return st_Span;
}

}  // namespace

CNetCore_PIPMMap::~CNetCore_PIPMMap() {
    for (const auto& stl_Pair : stl_MapMMap)
        Release(stl_Pair.second);
}

bool CNetCore_PIPMMap::NetCore_PIPMMap_Create(const char* lpszName, const char* lpszFile, int nSize) {
    ClearError();
    if (lpszName == nullptr) return Fail(ERROR_NETCORE_PIPE_MMAP_PARAMENT);

    NETCORE_PIPMMAP st_MMap;
    memset(&st_MMap, 0, sizeof(st_MMap));
    st_MMap.hFile = -1;
    st_MMap.nSize = static_cast<size_t>(nSize);
    if (lpszFile != nullptr) {
        st_MMap.bFile = true;
        st_MMap.hFile = open(lpszFile, O_RDWR | O_CREAT, 0777);
        if (st_MMap.hFile == -1) return Fail(ERROR_NETCORE_PIPE_MMAP_OPENFILE);
    }
    // MAP_ANONYMOUS with the file's descriptor too: the region is never backed by the file, which
    // is only created and held open. Callers have always used the region as plain shared memory.
    st_MMap.lPBase =
        mmap(nullptr, st_MMap.nSize, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_SHARED | MAP_ANONYMOUS, st_MMap.hFile, 0);
    // A policy that forbids executable memory (an Android app's SELinux domain may) refuses the
    // whole mapping; the region still serves as shared memory, so it is mapped again without it.
    if (st_MMap.lPBase == MAP_FAILED && (errno == EACCES || errno == EPERM)) {
        st_MMap.lPBase =
            mmap(nullptr, st_MMap.nSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, st_MMap.hFile, 0);
    }
    // Only a null mapping is refused. A failed mapping (MAP_FAILED) is kept as a region of no
    // bytes: Create succeeds, GetPointer hands out MAP_FAILED, and Write and Read copy nothing.
    if (st_MMap.lPBase == nullptr) {
        if (st_MMap.bFile) close(st_MMap.hFile);
        return Fail(ERROR_NETCORE_PIPE_MMAP_MAP);
    }
    std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
    // An existing name keeps its region; the new one could never be reached.
    if (!stl_MapMMap.emplace(lpszName, st_MMap).second) Release(st_MMap);
    return true;
}

bool CNetCore_PIPMMap::NetCore_PIPMMap_Write(const char* lpszName, void* lPBuffer, int nLen, int nPos) {
    // Write raises the flag on entry and leaves it up even on success; callers judge it by its
    // result alone.
    netcore::SetErrorFlag(true);
    if (lpszName == nullptr || lPBuffer == nullptr) return Fail(ERROR_NETCORE_PIPE_MMAP_WRITE_PARAMENT);
    std::shared_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapMMap.find(lpszName);
    if (stl_MapIterator == stl_MapMMap.end()) return Fail(ERROR_NETCORE_PIPE_MMAP_WRITE_NOTFOUND);
    const NETCORE_PIPMMAP& st_MMap = stl_MapIterator->second;
    Span st_Span = Inside(nLen, nPos, MappedSize(st_MMap));
    if (st_Span.nCount > 0) {
        memcpy(static_cast<char*>(st_MMap.lPBase) + st_Span.nRegionOffset,
               static_cast<const char*>(lPBuffer) + st_Span.nBufferOffset, st_Span.nCount);
    }
    return true;
}

bool CNetCore_PIPMMap::NetCore_PIPMMap_Read(const char* lpszName, void* lPBuffer, int nLen, int nPos) {
    ClearError();
    if (lpszName == nullptr || lPBuffer == nullptr) return Fail(ERROR_NETCORE_PIPE_MMAP_READ_PARAMENT);
    std::shared_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapMMap.find(lpszName);
    if (stl_MapIterator == stl_MapMMap.end()) return Fail(ERROR_NETCORE_PIPE_MMAP_READ_NOTFOUND);
    const NETCORE_PIPMMAP& st_MMap = stl_MapIterator->second;
    if (nLen <= 0) return true;
    // bytes beyond the mapping read as zero
    memset(lPBuffer, 0, static_cast<size_t>(nLen));
    Span st_Span = Inside(nLen, nPos, MappedSize(st_MMap));
    if (st_Span.nCount > 0) {
        memcpy(static_cast<char*>(lPBuffer) + st_Span.nBufferOffset,
               static_cast<const char*>(st_MMap.lPBase) + st_Span.nRegionOffset, st_Span.nCount);
    }
    return true;
}

void* CNetCore_PIPMMap::NetCore_PIPMMap_GetPointer(const char* lpszName) {
    ClearError();
    if (lpszName == nullptr) return netcore::FailNull(ERROR_NETCORE_PIPE_MMAP_GETPTR_PARAMENT);
    std::shared_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapMMap.find(lpszName);
    if (stl_MapIterator == stl_MapMMap.end()) return netcore::FailNull(ERROR_NETCORE_PIPE_MMAP_GETPTR_NOTFOUND);
    if (stl_MapIterator->second.lPBase == nullptr) return netcore::FailNull(ERROR_NETCORE_PIPE_MMAP_GETPTR_NULL);
    return stl_MapIterator->second.lPBase;
}

bool CNetCore_PIPMMap::NetCore_PIPMMap_FreePointer(const char* lpszName) {
    ClearError();
    if (lpszName == nullptr) return Fail(ERROR_NETCORE_PIPE_MMAP_FREEPTR_PARAMENT);
    return true;  // the pointer stays valid until Close
}

bool CNetCore_PIPMMap::NetCore_PIPMMap_OPen(const char* lpszName) {
    ClearError();
    if (lpszName == nullptr) return Fail(ERROR_NETCORE_PIPE_MMAP_OPEN_PARAMENT);
    return true;  // regions are reached by name; there is nothing to open
}

bool CNetCore_PIPMMap::NetCore_PIPMMap_Close(const char* lpszName) {
    ClearError();
    if (lpszName == nullptr) return true;
    std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapMMap.find(lpszName);
    if (stl_MapIterator != stl_MapMMap.end()) {
        Release(stl_MapIterator->second);
        stl_MapMMap.erase(stl_MapIterator);
    }
    return true;
}
