// The exported NetCore_UDXSocket_*Ex functions: each forwards its arguments unchanged to m_UDXSocket.
#include "Globals.h"

extern "C" {

void* NetCore_UDXSocket_InitEx(tag_NetCore_UDXConfig* pSt_UDXConfig, int nPort, int nTimeFlow) {
    return m_UDXSocket.NetCore_UDXSocket_InitEx(pSt_UDXConfig, nPort, nTimeFlow);
}
bool NetCore_UDXSocket_CBSetEx(void* xhToken, bool (*fpCall_Login)(char const*, int, void*),
                               void (*fpCall_Leave)(char const*, int, void*), void* lParamLogin, void* lParamLeave) {
    return m_UDXSocket.NetCore_UDXSocket_CBSetEx(xhToken, fpCall_Login, fpCall_Leave, lParamLogin, lParamLeave);
}
bool NetCore_UDXSocket_SendEx(void* xhToken, char const* lpszClientAddr, char const* lpszMsgBuffer, int nMsgLen) {
    return m_UDXSocket.NetCore_UDXSocket_SendEx(xhToken, lpszClientAddr, lpszMsgBuffer, nMsgLen);
}
bool NetCore_UDXSocket_RecvEx(void* xhToken, char const* lpszClientAddr, char* ptszMsgBuffer, int* pInt_MsgLen) {
    return m_UDXSocket.NetCore_UDXSocket_RecvEx(xhToken, lpszClientAddr, ptszMsgBuffer, pInt_MsgLen);
}
bool NetCore_UDXSocket_CloseEx(void* xhToken, char const* lpszClientAddr) {
    return m_UDXSocket.NetCore_UDXSocket_CloseEx(xhToken, lpszClientAddr);
}
bool NetCore_UDXSocket_DestroyEx(void* xhToken) {
    return m_UDXSocket.NetCore_UDXSocket_DestroyEx(xhToken);
}
}
