#include "NetCore_PIPNamed.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include "base/Error.h"

using netcore::ClearError;
using netcore::Fail;

CNetCore_PIPNamed::~CNetCore_PIPNamed() {
    for (const auto& stl_Pair : stl_MapPipNamed)
        close(stl_Pair.second.hPipe);
}

bool CNetCore_PIPNamed::NetCore_PIPNamed_Create(const char* lpszPipeName) {
    // Create raises the flag on entry and leaves it up even on success; callers judge it by its
    // result alone.
    netcore::SetErrorFlag(true);
    if (lpszPipeName == nullptr) return Fail(ERROR_NETCORE_PIPE_NAMED_PARAMENT);
    if (mkfifo(lpszPipeName, 0777) == -1) return Fail(ERROR_NETCORE_PIPE_NAMED_MKFIFO);
    int hPipe = open(lpszPipeName, O_RDWR | O_NONBLOCK);
    if (hPipe == -1) return Fail(ERROR_NETCORE_PIPE_NAMED_OPEN);
    return Insert(lpszPipeName, hPipe, true);
}

bool CNetCore_PIPNamed::NetCore_PIPNamed_OPen(const char* lpszPipeName) {
    ClearError();
    if (lpszPipeName == nullptr) return Fail(ERROR_NETCORE_PIPE_NAMED_OPEN_PARAMENT);
    int hPipe = open(lpszPipeName, O_RDWR | O_NONBLOCK);
    if (hPipe == -1) return Fail(ERROR_NETCORE_PIPE_NAMED_OPEN_FAILED);
    return Insert(lpszPipeName, hPipe, false);
}

bool CNetCore_PIPNamed::Insert(const char* lpszPipeName, int hPipe, bool bCreator) {
    NETCORE_PIPNAEMD st_Pipe;
    memset(&st_Pipe, 0, sizeof(st_Pipe));
    st_Pipe.bConnect = false;
    st_Pipe.bCreator = bCreator;
    st_Pipe.hPipe = hPipe;
    // the record keeps as much of the path as it holds; the table is keyed by the whole path
    strncpy(st_Pipe.tszPipeName, lpszPipeName, sizeof(st_Pipe.tszPipeName) - 1);

    std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
    // An existing path keeps its record; the new descriptor could never be reached.
    if (!stl_MapPipNamed.emplace(lpszPipeName, st_Pipe).second) close(hPipe);
    return true;
}

bool CNetCore_PIPNamed::NetCore_PIPNamed_WaitConnect(const char* lpszPipeName) {
    ClearError();
    if (lpszPipeName == nullptr) return Fail(ERROR_NETCORE_PIPE_NAMED_WAIT_PARAMENT);
    return true;
}

bool CNetCore_PIPNamed::NetCore_PIPNamed_Read(const char* lpszPipeName, char* ptszMsgBuffer, int* pInt_Len) {
    ClearError();
    if (lpszPipeName == nullptr || ptszMsgBuffer == nullptr || pInt_Len == nullptr) {
        return Fail(ERROR_NETCORE_PIPE_NAMED_READ_PARAMENT);
    }
    std::shared_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapPipNamed.find(lpszPipeName);
    if (stl_MapIterator == stl_MapPipNamed.end()) return Fail(ERROR_NETCORE_PIPE_NAMED_READ_NOTFOUND);
    if (*pInt_Len < 0) {
        errno = EINVAL;  // what read() would say; a negative size is never passed on
        return Fail(ERROR_NETCORE_PIPE_NAMED_READ_FAILED);
    }
    ssize_t nRead = read(stl_MapIterator->second.hPipe, ptszMsgBuffer, static_cast<size_t>(*pInt_Len));
    if (nRead == -1) return Fail(ERROR_NETCORE_PIPE_NAMED_READ_FAILED);
    *pInt_Len = static_cast<int>(nRead);
    return true;
}

bool CNetCore_PIPNamed::NetCore_PIPNamed_Write(const char* lpszPipeName, const char* lpszMsgBuffer, int nMsgLen) {
    ClearError();
    if (lpszPipeName == nullptr || lpszMsgBuffer == nullptr) return Fail(ERROR_NETCORE_PIPE_NAMED_WRITE_PARAMENT);
    std::shared_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapPipNamed.find(lpszPipeName);
    if (stl_MapIterator == stl_MapPipNamed.end()) return Fail(ERROR_NETCORE_PIPE_NAMED_WRITE_NOTFOUND);
    if (nMsgLen < 0) {
        errno = EINVAL;
        return Fail(ERROR_NETCORE_PIPE_NAMED_WRITE_FAILED);
    }
    ssize_t nWrite = write(stl_MapIterator->second.hPipe, lpszMsgBuffer, static_cast<size_t>(nMsgLen));
    if (nWrite == -1) return Fail(ERROR_NETCORE_PIPE_NAMED_WRITE_FAILED);
    if (nWrite != nMsgLen) return Fail(ERROR_NETCORE_PIPE_NAMED_WRITE_LEN);
    return true;
}

bool CNetCore_PIPNamed::NetCore_PIPNamed_Close(const char* lpszPipeName) {
    ClearError();
    // The path is not looked up: Close takes the first stored FIFO, which callers holding a
    // single FIFO rely on when they pass any name.
    (void)lpszPipeName;
    std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
    auto stl_MapIterator = stl_MapPipNamed.begin();
    if (stl_MapIterator != stl_MapPipNamed.end()) {
        close(stl_MapIterator->second.hPipe);
        if (stl_MapIterator->second.bCreator) unlink(stl_MapIterator->first.c_str());
        stl_MapPipNamed.erase(stl_MapIterator);
    }
    return true;
}
