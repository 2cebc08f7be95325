// The UDX handle layer: an endpoint is named by its address, handed out as an untyped handle.
#pragma once

#include "Ombrelt_NetCore.h"

class NETCORE_API CNetCore_UDXSocketEx {
public:
    void* NetCore_UDXSocket_InitEx(tag_NetCore_UDXConfig* pSt_UDXConfig, int nPort, int nTimeFlow);
    bool NetCore_UDXSocket_CBSetEx(void* xhToken, bool (*fpCall_Login)(char const*, int, void*),
                                   void (*fpCall_Leave)(char const*, int, void*), void* lParamLogin, void* lParamLeave);
    bool NetCore_UDXSocket_SendEx(void* xhToken, char const* lpszClientAddr, char const* lpszMsgBuffer, int nMsgLen);
    bool NetCore_UDXSocket_RecvEx(void* xhToken, char const* lpszClientAddr, char* ptszMsgBuffer, int* pInt_MsgLen);
    bool NetCore_UDXSocket_CloseEx(void* xhToken, char const* lpszClientAddr);
    bool NetCore_UDXSocket_DestroyEx(void* xhToken);
};
