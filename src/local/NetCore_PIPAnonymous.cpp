#include "NetCore_PIPAnonymous.h"

#include <cerrno>
#include <mutex>
#include <unistd.h>

#include "base/Error.h"

using netcore::ClearError;
using netcore::Fail;

namespace {

// The reserved slot's value: not -1 and never a descriptor.
constexpr int kNoDescriptor = -2;

void CloseRecord(const tag_NetCore_NetPipMap_Anonymous& st_Pipe) {
    if (st_Pipe.hReserved >= 0) close(st_Pipe.hReserved);
    close(st_Pipe.hRead);
    close(st_Pipe.hWrite);
}

}  // namespace

CNetCore_PIPAnonymous::~CNetCore_PIPAnonymous() {
    for (const auto& stl_Pair : stl_MapPipAnonymous)
        CloseRecord(stl_Pair.second);
}

bool CNetCore_PIPAnonymous::NetCore_PIPAnonymous_Create(const char* lpszPipeName, unsigned long* pulReserved) {
    ClearError();
    (void)pulReserved;  // accepted for callers that pass one, not used
    if (lpszPipeName == nullptr) return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_PARAMENT);

    int hPipe[3] = {-1, -1, kNoDescriptor};
    if (pipe(hPipe) == -1) return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_CREATE);
    tag_NetCore_NetPipMap_Anonymous st_Pipe{hPipe[0], hPipe[1], hPipe[2]};
    if (st_Pipe.hRead == -1) return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_READEND);
    if (st_Pipe.hWrite == -1) return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_WRITEEND);
    if (st_Pipe.hReserved == -1) return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_RESERVED);

    std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
    // An existing name keeps its pipe; the new pair could never be reached, so it is closed.
    if (!stl_MapPipAnonymous.emplace(lpszPipeName, st_Pipe).second) CloseRecord(st_Pipe);
    return true;
}

bool CNetCore_PIPAnonymous::NetCore_PIPAnonymous_Read(const char* lpszPipeName, char* ptszMsgBuffer, int* pInt_Len) {
    ClearError();
    if (lpszPipeName == nullptr || ptszMsgBuffer == nullptr || pInt_Len == nullptr) {
        return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_READ_PARAMENT);
    }
    // held across the blocking read on purpose: see the lock's declaration
    std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapPipAnonymous.find(lpszPipeName);
    if (stl_MapIterator == stl_MapPipAnonymous.end()) return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_READ_NOTFOUND);
    if (*pInt_Len < 0) {
        errno = EINVAL;  // what read() would say; a negative size is never passed on
        return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_READ_FAILED);
    }
    ssize_t nRead = read(stl_MapIterator->second.hRead, ptszMsgBuffer, static_cast<size_t>(*pInt_Len));
    if (nRead == -1) return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_READ_FAILED);
    *pInt_Len = static_cast<int>(nRead);
    return true;
}

bool CNetCore_PIPAnonymous::NetCore_PIPAnonymous_Write(const char* lpszPipeName, const char* lpszMsgBuffer,
                                                       int nMsgLen) {
    ClearError();
    if (lpszPipeName == nullptr || lpszMsgBuffer == nullptr) return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_PARAMENT);

    std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapPipAnonymous.find(lpszPipeName);
    if (stl_MapIterator == stl_MapPipAnonymous.end()) return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_NOTFOUND);
    if (nMsgLen < 0) {
        errno = EINVAL;
        return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_FAILED);
    }
    ssize_t nWrite = write(stl_MapIterator->second.hWrite, lpszMsgBuffer, static_cast<size_t>(nMsgLen));
    if (nWrite == -1) return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_FAILED);
    if (nWrite != nMsgLen) return Fail(ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_LEN);
    return true;
}

bool CNetCore_PIPAnonymous::NetCore_PIPAnonymous_Close(const char* lpszPipeName) {
    ClearError();
    if (lpszPipeName == nullptr) return true;
    std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapPipAnonymous.find(lpszPipeName);
    if (stl_MapIterator != stl_MapPipAnonymous.end()) {
        CloseRecord(stl_MapIterator->second);
        stl_MapPipAnonymous.erase(stl_MapIterator);
    }
    return true;
}
