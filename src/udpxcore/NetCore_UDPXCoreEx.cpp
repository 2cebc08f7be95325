#include "NetCore_UDPXCoreEx.h"

#include <new>

#include "NetCore_UDPXCore.h"
#include "frame/Error.h"

using netcore::ClearError;
using netcore::Fail;

namespace {
// The server behind a handle, or null after setting the handle error.
CNetCore_UDPXCore* Server(void* xhToken) {
    ClearError();
    if (xhToken == nullptr) {
        Fail(ERROR_NETCORE_UDPXCORE_HANDLE_NULL);
        return nullptr;
    }
    return static_cast<CNetCore_UDPXCore*>(xhToken);
}
}  // namespace

void* CNetCore_UDPXCoreEx::NetCore_UDPXCore_StartEx(int nPort, int nThread, int nTimeFlow, int nIPVer) {
    ClearError();
    CNetCore_UDPXCore* pClass_Server = new (std::nothrow) CNetCore_UDPXCore;
    if (pClass_Server == nullptr) return netcore::FailNull(ERROR_NETCORE_UDPXCORE_STARTEX_MALLOC);
    if (!pClass_Server->NetCore_UDPXCore_Start(nPort, nThread, nTimeFlow, nIPVer)) {
        // Start's code stands. The server is never handed out, so what it holds (a socket, epoll
        // instances, pipes) is released here instead of being left behind.
        unsigned long long nCode = netcore::GetErrorCode();
        pClass_Server->NetCore_UDPXCore_Destroy(true);
        delete pClass_Server;
        Fail(nCode);
        return nullptr;
    }
    return pClass_Server;
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_GetSocketEx(void* xhToken, int* phSocket) {
    CNetCore_UDPXCore* pClass_Server = Server(xhToken);
    return pClass_Server != nullptr && pClass_Server->NetCore_UDPXCore_GetSocket(phSocket);
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_DestroyEx(void* xhToken, bool bClearFlow) {
    CNetCore_UDPXCore* pClass_Server = Server(xhToken);
    if (pClass_Server == nullptr) return false;
    if (!pClass_Server->NetCore_UDPXCore_Destroy(bClearFlow)) return false;
    delete pClass_Server;
    return true;
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_SendEx(void* xhToken, const char* lpszClientAddr, const char* lpszMsgBuffer,
                                                  int nMsgLen) {
    CNetCore_UDPXCore* pClass_Server = Server(xhToken);
    return pClass_Server != nullptr && pClass_Server->NetCore_UDPXCore_SendMsg(lpszClientAddr, lpszMsgBuffer, nMsgLen);
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_GetFlowEx(void* xhToken, unsigned long long* pInt_SendBytes,
                                                     unsigned long long* pInt_RecvBytes,
                                                     unsigned long long* pInt_SendPackets,
                                                     unsigned long long* pInt_RecvPackets) {
    CNetCore_UDPXCore* pClass_Server = Server(xhToken);
    return pClass_Server != nullptr &&
           pClass_Server->NetCore_UDPXCore_GetFlow(pInt_SendBytes, pInt_RecvBytes, pInt_SendPackets, pInt_RecvPackets);
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_GetTimeEx(void* xhToken, unsigned long long* pInt_TimeRecv,
                                                     unsigned long long* pInt_TimeSend) {
    CNetCore_UDPXCore* pClass_Server = Server(xhToken);
    return pClass_Server != nullptr && pClass_Server->NetCore_UDPXCore_GetTime(pInt_TimeRecv, pInt_TimeSend);
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_GetAverageFlowEx(void* xhToken, unsigned long long* pInt_SendBytes,
                                                            unsigned long long* pInt_RecvBytes,
                                                            unsigned long long* pInt_SendPackets,
                                                            unsigned long long* pInt_RecvPackets, bool bWhole) {
    CNetCore_UDPXCore* pClass_Server = Server(xhToken);
    return pClass_Server != nullptr && pClass_Server->NetCore_UDPXCore_GetAverageFlow(
                                           pInt_SendBytes, pInt_RecvBytes, pInt_SendPackets, pInt_RecvPackets, bWhole);
}

bool CNetCore_UDPXCoreEx::NetCore_UDPXCore_RegisterCallBackEx(void* xhToken, CALLBACK_NETCORE_UDPXCORE_RECV fpCall_Recv,
                                                              void* lParam) {
    CNetCore_UDPXCore* pClass_Server = Server(xhToken);
    return pClass_Server != nullptr && pClass_Server->NetCore_UDPXCore_RegisterCallBack(fpCall_Recv, lParam);
}
