#include "NetCore_UDPXCoreEx.h"

#include <new>

#include "NetCore_UDPXCore.h"
#include "base/Error.h"
#include "base/KeepFailed.h"

using netcore::ClearError;
using netcore::Fail;

namespace {

CNetCore_UDPXCore* Server(void* xhToken) {
    return static_cast<CNetCore_UDPXCore*>(xhToken);
}

}  // namespace

void* CNetCore_UDPXCoreEx::NetCore_UDPXCore_StartEx(int nPort, int nThread, int nTimeFlow, int nIPVer) {
    ClearError();
    CNetCore_UDPXCore* pClass_Server = new (std::nothrow) CNetCore_UDPXCore;
    if (pClass_Server == nullptr) return netcore::FailNull(ERROR_NETCORE_UDPXCORE_STARTEX_MALLOC);
    if (!pClass_Server->NetCore_UDPXCore_Start(nPort, nThread, nTimeFlow, nIPVer)) {
        netcore::KeepFailedInstance(pClass_Server);
        return nullptr;
    }
    return pClass_Server;
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_DestroyEx(void* xhToken, bool bClearFlow) {
    ClearError();
    if (xhToken == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    // a failed destroy would leave the server, and its handle, in place
    if (!Server(xhToken)->NetCore_UDPXCore_Destroy(bClearFlow)) return false;
    delete Server(xhToken);
    return true;
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_GetSocketEx(void* xhToken, int* phSocket) {
    ClearError();
    if (xhToken == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    return Server(xhToken)->NetCore_UDPXCore_GetSocket(phSocket);
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_SendEx(void* xhToken, const char* lpszClientAddr, const char* lpszMsgBuffer,
                                                  int nMsgLen) {
    ClearError();
    if (xhToken == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    return Server(xhToken)->NetCore_UDPXCore_SendMsg(lpszClientAddr, lpszMsgBuffer, nMsgLen);
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_GetFlowEx(void* xhToken, unsigned long long* pInt_SendBytes,
                                                     unsigned long long* pInt_RecvBytes,
                                                     unsigned long long* pInt_SendPackets,
                                                     unsigned long long* pInt_RecvPackets) {
    ClearError();
    if (xhToken == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    return Server(xhToken)->NetCore_UDPXCore_GetFlow(pInt_SendBytes, pInt_RecvBytes, pInt_SendPackets,
                                                     pInt_RecvPackets);
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_GetTimeEx(void* xhToken, unsigned long long* pInt_TimeRecv,
                                                     unsigned long long* pInt_TimeSend) {
    ClearError();
    if (xhToken == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    return Server(xhToken)->NetCore_UDPXCore_GetTime(pInt_TimeRecv, pInt_TimeSend);
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_GetAverageFlowEx(void* xhToken, unsigned long long* pInt_SendBytes,
                                                            unsigned long long* pInt_RecvBytes,
                                                            unsigned long long* pInt_SendPackets,
                                                            unsigned long long* pInt_RecvPackets, bool bWhole) {
    ClearError();
    if (xhToken == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    return Server(xhToken)->NetCore_UDPXCore_GetAverageFlow(pInt_SendBytes, pInt_RecvBytes, pInt_SendPackets,
                                                            pInt_RecvPackets, bWhole);
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_RegisterCallBackEx(void* xhToken, CALLBACK_NETCORE_UDPXCORE_RECV fpCall_Recv,
                                                              void* lParam) {
    ClearError();
    if (xhToken == nullptr) return Fail(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
    return Server(xhToken)->NetCore_UDPXCore_RegisterCallBack(fpCall_Recv, lParam);
}
