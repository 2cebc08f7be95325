#include "NetCore_TCPXCoreEx.h"

#include <new>
#include <thread>

#include "base/Error.h"
#include "base/KeepFailed.h"

using netcore::ClearError;
using netcore::Fail;

namespace {

// Every call but StartEx: clear the flag, refuse a null handle, then run the server operation.
template <typename Fn>
bool WithServer(void* xhNet, Fn&& fnCall) {
    ClearError();
    if (xhNet == nullptr) return Fail(ERROR_NETCORE_TCPXCORE_EX_HANDLE);
    return fnCall(static_cast<CNetCore_TCPXCore*>(xhNet));
}

}  // namespace

void* CNetCore_TCPXCoreEx::NetCore_TCPXCore_StartEx(int nPort, int nMaxClient, int nThreads, bool bKeepAlive,
                                                    bool bReuseAddr, int nFlowPeriod, int nIPVer) {
    ClearError();
    auto* pClass = new (std::nothrow) CNetCore_TCPXCore();
    if (pClass == nullptr) return netcore::FailNull(ERROR_NETCORE_TCPXCORE_EX_START);
    if (!pClass->NetCore_TCPXCore_Start(nPort, nMaxClient, nThreads, bKeepAlive, bReuseAddr, nFlowPeriod, nIPVer)) {
        netcore::KeepFailedInstance(pClass);
        return nullptr;
    }
    return pClass;
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_DestroyEx(void* xhNet, bool bClearFlow) {
    return WithServer(xhNet, [&](CNetCore_TCPXCore* pClass) {
        if (pClass->NetCore_TCPXCore_IsEventThread()) {
            // Called from one of the server's own callbacks: the stop waits for every event
            // thread, this one included, so it finishes on a helper thread once the callback
            // has returned.
            try {
                std::thread([pClass, bClearFlow] {
                    pClass->NetCore_TCPXCore_Destroy(bClearFlow);
                    delete pClass;
                }).detach();
            } catch (const std::system_error&) {
                return Fail(ERROR_NETCORE_TCPXCORE_EX_HANDLE);
            }
            return true;
        }
        pClass->NetCore_TCPXCore_Destroy(bClearFlow);
        delete pClass;
        return true;
    });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_SendEx(void* xhNet, const char* lpszClientAddr, const char* lpszMsgBuffer,
                                                  int nMsgLen, int nTimeOut, int nIOSelect) {
    return WithServer(xhNet, [&](CNetCore_TCPXCore* pClass) {
        return pClass->NetCore_TCPXCore_SendMsg(lpszClientAddr, lpszMsgBuffer, nMsgLen, nTimeOut, nIOSelect);
    });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_CBSendEx(void* xhNet, const char* lpszClientAddr,
                                                    CALLBACK_NETCORE_TCPXCORE_SEND fpCallSend, void* lParam) {
    return WithServer(xhNet, [&](CNetCore_TCPXCore* pClass) {
        return pClass->NetCore_TCPXCore_CBSend(lpszClientAddr, fpCallSend, lParam);
    });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_GetAllEx(void* xhNet, char*** pppszListAddr, int* pInt_ListCount) {
    return WithServer(xhNet, [&](CNetCore_TCPXCore* pClass) {
        return pClass->NetCore_TCPXCore_GetAll(pppszListAddr, pInt_ListCount);
    });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_CloseForClientEx(void* xhNet, const char* lpszClientAddr) {
    return WithServer(
        xhNet, [&](CNetCore_TCPXCore* pClass) { return pClass->NetCore_TCPXCore_CloseForClient(lpszClientAddr); });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_SetStatusEx(void* xhNet, const char* lpszClientAddr, bool bStatus) {
    return WithServer(
        xhNet, [&](CNetCore_TCPXCore* pClass) { return pClass->NetCore_TCPXCore_SetStatus(lpszClientAddr, bStatus); });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_RegisterCallBackEx(void* xhNet, CALLBACK_NETCORE_TCPXCORE_LOGIN fpLogin,
                                                              CALLBACK_NETCORE_TCPXCORE_RECV fpRecv,
                                                              CALLBACK_NETCORE_TCPXCORE_LEAVE fpLeave, void* lPLogin,
                                                              void* lPRecv, void* lPLeave) {
    return WithServer(xhNet, [&](CNetCore_TCPXCore* pClass) {
        return pClass->NetCore_TCPXCore_RegisterCallBack(fpLogin, fpRecv, fpLeave, lPLogin, lPRecv, lPLeave);
    });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_GetAddrForSocketEx(void* xhNet, int hSocket, char* ptszClientAddr) {
    return WithServer(xhNet, [&](CNetCore_TCPXCore* pClass) {
        return pClass->NetCore_TCPXCore_GetAddrForSocket(hSocket, ptszClientAddr, nullptr);
    });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_GetSocketForAddrEx(void* xhNet, const char* lpszClientAddr, int* phSocket) {
    return WithServer(xhNet, [&](CNetCore_TCPXCore* pClass) {
        return pClass->NetCore_TCPXCore_GetSocketForAddr(lpszClientAddr, phSocket);
    });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_GetFlowEx(void* xhNet, unsigned long long* pInt_SendBytes,
                                                     unsigned long long* pInt_RecvBytes,
                                                     unsigned long long* pInt_SendPackets,
                                                     unsigned long long* pInt_RecvPackets, const char* lpszClientAddr) {
    return WithServer(xhNet, [&](CNetCore_TCPXCore* pClass) {
        return pClass->NetCore_TCPXCore_GetFlow(pInt_SendBytes, pInt_RecvBytes, pInt_SendPackets, pInt_RecvPackets,
                                                lpszClientAddr);
    });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_GetTimeEx(void* xhNet, const char* lpszClientAddr,
                                                     unsigned long long* pInt_SendTime,
                                                     unsigned long long* pInt_RecvTime,
                                                     unsigned long long* pInt_OnlineTime) {
    return WithServer(xhNet, [&](CNetCore_TCPXCore* pClass) {
        return pClass->NetCore_TCPXCore_GetTime(lpszClientAddr, pInt_SendTime, pInt_RecvTime, pInt_OnlineTime);
    });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_GetAverageFlowEx(void* xhNet, unsigned long long* pInt_SendBytes,
                                                            unsigned long long* pInt_RecvBytes,
                                                            unsigned long long* pInt_SendPackets,
                                                            unsigned long long* pInt_RecvPackets,
                                                            const char* lpszClientAddr, bool bAll) {
    return WithServer(xhNet, [&](CNetCore_TCPXCore* pClass) {
        return pClass->NetCore_TCPXCore_GetAverageFlow(pInt_SendBytes, pInt_RecvBytes, pInt_SendPackets,
                                                       pInt_RecvPackets, lpszClientAddr, bAll);
    });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_SetLimitEx(void* xhNet, const char* lpszClientAddr, int nPktLen,
                                                      const char* lpszEndMark) {
    return WithServer(xhNet, [&](CNetCore_TCPXCore* pClass) {
        return pClass->NetCore_TCPXCore_SetLimit(lpszClientAddr, nPktLen, lpszEndMark);
    });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_GetLimitEx(void* xhNet, const char* lpszClientAddr, int* pInt_PktLen,
                                                      char* ptszEndMark) {
    return WithServer(xhNet, [&](CNetCore_TCPXCore* pClass) {
        return pClass->NetCore_TCPXCore_GetLimit(lpszClientAddr, pInt_PktLen, ptszEndMark);
    });
}

bool CNetCore_TCPXCoreEx::NetCore_TCPXCore_PasueRecvEx(void* xhNet, const char* lpszClientAddr, bool bRecv) {
    return WithServer(
        xhNet, [&](CNetCore_TCPXCore* pClass) { return pClass->NetCore_TCPXCore_PasueRecv(lpszClientAddr, bRecv); });
}
