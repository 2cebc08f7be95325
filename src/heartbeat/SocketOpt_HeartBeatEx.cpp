#include "SocketOpt_HeartBeatEx.h"

#include <new>

#include "SocketOpt_HeartBeat.h"
#include "base/Error.h"

using netcore::ClearError;
using netcore::Fail;

namespace {
// The supervisor behind a handle, or null after setting the handle error.
CSocketOpt_HeartBeat* Supervisor(void* xhNet) {
    ClearError();
    if (xhNet == nullptr) {
        Fail(ERROR_NETCORE_HEARTBEAT_EX_HANDLE);
        return nullptr;
    }
    return static_cast<CSocketOpt_HeartBeat*>(xhNet);
}
}  // namespace

void* CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_InitEx(int nTimeOut, int nTimeNumber,
                                                         CALLBACK_NETCORE_SOCKOPT_HEARTBEAT_EVENT fpCall_HeartBeatEvent,
                                                         void* lParam, bool bIsAddr) {
    ClearError();
    CSocketOpt_HeartBeat* pClass_HeartBeat = new (std::nothrow) CSocketOpt_HeartBeat;
    if (pClass_HeartBeat == nullptr) return netcore::FailNull(ERROR_NETCORE_HEARTBEAT_INITEX_MALLOC);
    if (!pClass_HeartBeat->SocketOpt_HeartBeat_Init(nTimeOut, nTimeNumber, fpCall_HeartBeatEvent, lParam, bIsAddr)) {
        // Init's code stands. The instance has no thread and is never handed out, so it is
        // released here rather than left behind.
        delete pClass_HeartBeat;
        return nullptr;
    }
    return pClass_HeartBeat;
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_DestoryEx(void* xhNet) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    if (pClass_HeartBeat == nullptr) return false;
    pClass_HeartBeat->SocketOpt_HeartBeat_Destory();
    delete pClass_HeartBeat;
    return true;
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_ForceOutAddrEx(void* xhNet, const char* lpszClientAddr, int nLeaveCode,
                                                                bool bAdd) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    return pClass_HeartBeat != nullptr &&
           pClass_HeartBeat->SocketOpt_HeartBeat_ForceOutAddr(lpszClientAddr, nLeaveCode, bAdd);
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_ForceOutSktEx(void* xhNet, int hSocket, int nLeaveCode, bool bAdd) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    return pClass_HeartBeat != nullptr && pClass_HeartBeat->SocketOpt_HeartBeat_ForceOutSkt(hSocket, nLeaveCode, bAdd);
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_InsertAddrEx(void* xhNet, const char* lpszClientAddr) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    return pClass_HeartBeat != nullptr && pClass_HeartBeat->SocketOpt_HeartBeat_InsertAddr(lpszClientAddr);
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_InsertSocketEx(void* xhNet, int hSocket) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    return pClass_HeartBeat != nullptr && pClass_HeartBeat->SocketOpt_HeartBeat_InsertSocket(hSocket);
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_ActiveAddrEx(void* xhNet, const char* lpszClientAddr,
                                                              tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    return pClass_HeartBeat != nullptr &&
           pClass_HeartBeat->SocketOpt_HeartBeat_ActiveAddr(lpszClientAddr, pSt_ProtocolHeartBeat);
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_ActiveSocketEx(void* xhNet, int hSocket,
                                                                tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    return pClass_HeartBeat != nullptr &&
           pClass_HeartBeat->SocketOpt_HeartBeat_ActiveSocket(hSocket, pSt_ProtocolHeartBeat);
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_DeleteAddrEx(void* xhNet, const char* lpszClientAddr) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    return pClass_HeartBeat != nullptr && pClass_HeartBeat->SocketOpt_HeartBeat_DeleteAddr(lpszClientAddr);
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_DeleteSocketEx(void* xhNet, int hSocket) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    return pClass_HeartBeat != nullptr && pClass_HeartBeat->SocketOpt_HeartBeat_DeleteSocket(hSocket);
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_GetAddrEx(void* xhNet, const char* lpszClientAddr,
                                                           long long* pInt_Timer) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    return pClass_HeartBeat != nullptr && pClass_HeartBeat->SocketOpt_HeartBeat_GetAddr(lpszClientAddr, pInt_Timer);
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_GetSocketEx(void* xhNet, int hSocket, long long* pInt_Timer) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    return pClass_HeartBeat != nullptr && pClass_HeartBeat->SocketOpt_HeartBeat_GetSocket(hSocket, pInt_Timer);
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_GetTimeOutEx(void* xhNet, char* ptszClientAddr, int* phSocket) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    return pClass_HeartBeat != nullptr && pClass_HeartBeat->SocketOpt_HeartBeat_GetTimeOut(ptszClientAddr, phSocket);
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_SetLoadAttrEx(void* xhNet, int nTime, bool bLoad) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    return pClass_HeartBeat != nullptr && pClass_HeartBeat->SocketOpt_HeartBeat_SetLoadAttr(nTime, bLoad);
}

bool CSocketOpt_HeartBeatEx::SocketOpt_HeartBeat_GetLoadAttrEx(void* xhNet, const char* lpszClientAddr, int hSocket,
                                                               NETCORE_SOCKOPT_HBLOAD* pSt_HBLoad,
                                                               NETCORE_SOCKOPT_LOADRATE* pSt_LoadRate) {
    CSocketOpt_HeartBeat* pClass_HeartBeat = Supervisor(xhNet);
    return pClass_HeartBeat != nullptr &&
           pClass_HeartBeat->SocketOpt_HeartBeat_GetLoadAttr(lpszClientAddr, hSocket, pSt_HBLoad, pSt_LoadRate);
}
