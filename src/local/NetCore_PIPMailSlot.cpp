#include "NetCore_PIPMailSlot.h"

#include <cstring>
#include <mutex>

#include "base/Error.h"

using netcore::ClearError;
using netcore::Fail;

bool CNetCore_PIPMailSlot::Insert(const char* lpszMailName, const NETCORE_PIPMAILSLOT& st_MailSlot) {
    std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
    stl_MapMailSlot.emplace(lpszMailName, st_MailSlot);  // an existing name keeps its record
    return true;
}

bool CNetCore_PIPMailSlot::Exists(const char* lpszMailName) {
    std::shared_lock<std::shared_mutex> st_Guard(st_Locker);
    return stl_MapMailSlot.find(lpszMailName) != stl_MapMailSlot.end();
}

bool CNetCore_PIPMailSlot::NetCore_PIPMailSlot_Create(const char* lpszMailName) {
    ClearError();
    if (lpszMailName == nullptr) return Fail(ERROR_NETCORE_PIPE_MAILSLOT_PARAMENT);
    NETCORE_PIPMAILSLOT st_MailSlot;
    memset(&st_MailSlot, 0, sizeof(st_MailSlot));
    strncpy(st_MailSlot.tszMailName, lpszMailName, sizeof(st_MailSlot.tszMailName) - 1);
    return Insert(lpszMailName, st_MailSlot);
}

bool CNetCore_PIPMailSlot::NetCore_PIPMailSlot_OPen(const char* lpszMailName) {
    ClearError();
    if (lpszMailName == nullptr) return Fail(ERROR_NETCORE_PIPE_MAILSLOT_OPEN_PARAMENT);
    NETCORE_PIPMAILSLOT st_MailSlot;
    memset(&st_MailSlot, 0, sizeof(st_MailSlot));
    return Insert(lpszMailName, st_MailSlot);
}

bool CNetCore_PIPMailSlot::NetCore_PIPMailSlot_Read(const char* lpszMailName, char* ptszMsgBuffer, int* pInt_Len) {
    // Read raises the flag on entry and leaves it up when it succeeds, as it always has.
    netcore::SetErrorFlag(true);
    if (lpszMailName == nullptr || ptszMsgBuffer == nullptr || pInt_Len == nullptr) {
        return Fail(ERROR_NETCORE_PIPE_MAILSLOT_READ_PARAMENT);
    }
    if (!Exists(lpszMailName)) return Fail(ERROR_NETCORE_PIPE_MAILSLOT_READ_NOTFOUND);
    return true;  // nothing read, *pInt_Len untouched
}

bool CNetCore_PIPMailSlot::NetCore_PIPMailSlot_Write(const char* lpszMailName, const char* lpszMsgBuffer, int nMsgLen) {
    ClearError();
    (void)nMsgLen;
    if (lpszMailName == nullptr || lpszMsgBuffer == nullptr) return Fail(ERROR_NETCORE_PIPE_MAILSLOT_WRITE_PARAMENT);
    if (!Exists(lpszMailName)) return Fail(ERROR_NETCORE_PIPE_MAILSLOT_WRITE_NOTFOUND);
    return true;  // nothing written
}

bool CNetCore_PIPMailSlot::NetCore_PIPMailSlot_Close(const char* lpszMailName) {
    if (lpszMailName == nullptr) return true;
    std::unique_lock<std::shared_mutex> st_Guard(st_Locker);
    stl_MapMailSlot.erase(lpszMailName);
    return true;
}

bool CNetCore_PIPMailSlot::NetCore_PIPMailSlot_SetAttr(const char* lpszMailName, int nMaxSize, int nTimeOut) {
    ClearError();
    (void)nMaxSize;
    (void)nTimeOut;
    if (lpszMailName == nullptr) return Fail(ERROR_NETCORE_PIPE_MAILSLOT_SETATTR_PARAMENT);
    return true;
}

bool CNetCore_PIPMailSlot::NetCore_PIPMailSlot_GetAttr(const char* lpszMailName, int* pInt_MaxSize, int* pInt_NextSize,
                                                       int* pInt_Count) {
    ClearError();
    // the integers are neither read nor written
    (void)pInt_MaxSize;
    (void)pInt_NextSize;
    (void)pInt_Count;
    if (lpszMailName == nullptr) return Fail(ERROR_NETCORE_PIPE_MAILSLOT_GETATTR_PARAMENT);
    return true;
}
