// CNetCore_TCPXCoreEx: the handle layer of the TCP epoll server. A handle is the address of a
// CNetCore_TCPXCore made by StartEx; only a null handle is detected.
#pragma once

#include "tcpxcore/NetCore_TCPXCore.h"

class NETCORE_API CNetCore_TCPXCoreEx {
public:
    void* NetCore_TCPXCore_StartEx(int nPort, int nMaxClient, int nThreads, bool bKeepAlive, bool bReuseAddr,
                                   int nFlowPeriod, int nIPVer);
    bool NetCore_TCPXCore_DestroyEx(void* xhNet, bool bClearFlow);
    bool NetCore_TCPXCore_SendEx(void* xhNet, const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen,
                                 int nTimeOut, int nIOSelect);
    bool NetCore_TCPXCore_CBSendEx(void* xhNet, const char* lpszClientAddr, CALLBACK_NETCORE_TCPXCORE_SEND fpCallSend,
                                   void* lParam);
    bool NetCore_TCPXCore_GetAllEx(void* xhNet, char*** pppszListAddr, int* pInt_ListCount);
    bool NetCore_TCPXCore_CloseForClientEx(void* xhNet, const char* lpszClientAddr);
    bool NetCore_TCPXCore_SetStatusEx(void* xhNet, const char* lpszClientAddr, bool bStatus);
    bool NetCore_TCPXCore_RegisterCallBackEx(void* xhNet, CALLBACK_NETCORE_TCPXCORE_LOGIN fpCallePoll_Login,
                                             CALLBACK_NETCORE_TCPXCORE_RECV fpCallePoll_Recv,
                                             CALLBACK_NETCORE_TCPXCORE_LEAVE fpCallePoll_Leave, void* lPLogin,
                                             void* lPRecv, void* lPLeave);
    bool NetCore_TCPXCore_GetAddrForSocketEx(void* xhNet, int hSocket, char* ptszClientAddr);
    bool NetCore_TCPXCore_GetSocketForAddrEx(void* xhNet, const char* lpszClientAddr, int* phSocket);
    bool NetCore_TCPXCore_GetFlowEx(void* xhNet, unsigned long long* pInt_SendBytes, unsigned long long* pInt_RecvBytes,
                                    unsigned long long* pInt_SendPackets, unsigned long long* pInt_RecvPackets,
                                    const char* lpszClientAddr);
    bool NetCore_TCPXCore_GetTimeEx(void* xhNet, const char* lpszClientAddr, unsigned long long* pInt_SendTime,
                                    unsigned long long* pInt_RecvTime, unsigned long long* pInt_OnlineTime);
    bool NetCore_TCPXCore_GetAverageFlowEx(void* xhNet, unsigned long long* pInt_SendBytes,
                                           unsigned long long* pInt_RecvBytes, unsigned long long* pInt_SendPackets,
                                           unsigned long long* pInt_RecvPackets, const char* lpszClientAddr, bool bAll);
    bool NetCore_TCPXCore_SetLimitEx(void* xhNet, const char* lpszClientAddr, int nPktLen, const char* lpszEndMark);
    bool NetCore_TCPXCore_GetLimitEx(void* xhNet, const char* lpszClientAddr, int* pInt_PktLen, char* ptszEndMark);
    bool NetCore_TCPXCore_PasueRecvEx(void* xhNet, const char* lpszClientAddr, bool bRecv);
};
