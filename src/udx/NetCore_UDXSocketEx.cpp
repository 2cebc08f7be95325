#include "udx/NetCore_UDXSocketEx.h"

#include <new>

#include "base/Error.h"
#include "base/KeepFailed.h"
#include "udx/NetCore_UDXSocket.h"

using netcore::ClearError;
using netcore::Fail;
using netcore::FailNull;

namespace {

CNetCore_UDXSocket* Endpoint(void* xhToken) {
    return static_cast<CNetCore_UDXSocket*>(xhToken);
}

}  // namespace

void* CNetCore_UDXSocketEx::NetCore_UDXSocket_InitEx(tag_NetCore_UDXConfig* pSt_UDXConfig, int nPort, int nTimeFlow) {
    ClearError();
    CNetCore_UDXSocket* pClass_UDX = new (std::nothrow) CNetCore_UDXSocket();
    if (pClass_UDX == nullptr) return FailNull(ERROR_NETCORE_UDX_INITEX_MALLOC);
    if (!pClass_UDX->NetCore_UDXSocket_Init(pSt_UDXConfig, nPort, nTimeFlow)) {
        netcore::KeepFailedInstance(pClass_UDX);
        return nullptr;
    }
    return pClass_UDX;
}

bool CNetCore_UDXSocketEx::NetCore_UDXSocket_CBSetEx(void* xhToken, bool (*fpCall_Login)(char const*, int, void*),
                                                     void (*fpCall_Leave)(char const*, int, void*), void* lParamLogin,
                                                     void* lParamLeave) {
    ClearError();
    if (xhToken == nullptr) return Fail(ERROR_NETCORE_UDX_HANDLE_NULL);
    return Endpoint(xhToken)->NetCore_UDXSocket_CBSet(fpCall_Login, fpCall_Leave, lParamLogin, lParamLeave);
}

bool CNetCore_UDXSocketEx::NetCore_UDXSocket_SendEx(void* xhToken, char const* lpszClientAddr,
                                                    char const* lpszMsgBuffer, int nMsgLen) {
    ClearError();
    if (xhToken == nullptr) return Fail(ERROR_NETCORE_UDX_HANDLE_NULL);
    return Endpoint(xhToken)->NetCore_UDXSocket_Send(lpszClientAddr, lpszMsgBuffer, nMsgLen);
}

bool CNetCore_UDXSocketEx::NetCore_UDXSocket_RecvEx(void* xhToken, char const* lpszClientAddr, char* ptszMsgBuffer,
                                                    int* pInt_MsgLen) {
    ClearError();
    if (xhToken == nullptr) return Fail(ERROR_NETCORE_UDX_HANDLE_NULL);
    return Endpoint(xhToken)->NetCore_UDXSocket_Recv(lpszClientAddr, ptszMsgBuffer, pInt_MsgLen);
}

bool CNetCore_UDXSocketEx::NetCore_UDXSocket_CloseEx(void* xhToken, char const* lpszClientAddr) {
    ClearError();
    if (xhToken == nullptr) return Fail(ERROR_NETCORE_UDX_HANDLE_NULL);
    return Endpoint(xhToken)->NetCore_UDXSocket_Close(lpszClientAddr);
}

bool CNetCore_UDXSocketEx::NetCore_UDXSocket_DestroyEx(void* xhToken) {
    ClearError();
    if (xhToken == nullptr) return Fail(ERROR_NETCORE_UDX_HANDLE_NULL);
    // Destroy's result is not used
    Endpoint(xhToken)->NetCore_UDXSocket_Destroy();
    delete Endpoint(xhToken);
    ClearError();
    return true;
}
