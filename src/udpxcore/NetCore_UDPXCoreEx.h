// CNetCore_UDPXCoreEx: the handle layer. StartEx makes a server and hands out its address; the
// other calls take it first. Only a null handle is detected.
#pragma once

#include "Ombrelt_NetCore.h"

class NETCORE_API CNetCore_UDPXCoreEx {
public:
    void* NetCore_UDPXCore_StartEx(int nPort, int nThread, int nTimeFlow, int nIPVer);
    bool NetCore_UDPXCore_GetSocketEx(void* xhToken, int* phSocket);
    bool NetCore_UDPXCore_DestroyEx(void* xhToken, bool bClearFlow);
    bool NetCore_UDPXCore_SendEx(void* xhToken, const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen);
    bool NetCore_UDPXCore_GetFlowEx(void* xhToken, unsigned long long* pInt_SendBytes,
                                    unsigned long long* pInt_RecvBytes, unsigned long long* pInt_SendPackets,
                                    unsigned long long* pInt_RecvPackets);
    bool NetCore_UDPXCore_GetTimeEx(void* xhToken, unsigned long long* pInt_TimeRecv,
                                    unsigned long long* pInt_TimeSend);
    bool NetCore_UDPXCore_GetAverageFlowEx(void* xhToken, unsigned long long* pInt_SendBytes,
                                           unsigned long long* pInt_RecvBytes, unsigned long long* pInt_SendPackets,
                                           unsigned long long* pInt_RecvPackets, bool bWhole);
    bool NetCore_UDPXCore_RegisterCallBackEx(void* xhToken, CALLBACK_NETCORE_UDPXCORE_RECV fpCall_Recv, void* lParam);
};
