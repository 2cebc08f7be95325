// CNetCore_Socket: stateless helpers over the socket calls, used by every network family and
// exported as NetCore_Socket_*.
#pragma once

#include "Ombrelt_NetCore.h"

class NETCORE_API CNetCore_Socket {
public:
    bool NetCore_Socket_Create(int* phSocket, bool bTcp = true, int nIPVer = 2, bool bReserved = false);
    bool NetCore_Socket_Bind(int hSocket, int nPort, bool bListen = true, int nIPVer = 2);
    bool NetCore_Socket_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen, const char* lpszAddr = nullptr,
                             int nPort = 0, int nTimeOut = 3, int nIPVer = 2);
    bool NetCore_Socket_Recv(int hSocket, char* lpszMsgBuffer, int* pInt_MsgLen);
    bool NetCore_Socket_Close(int hSocket);
    bool NetCore_Socket_SetNoneBlock(int hSocket, bool bNoneBlock = true);
    bool NetCore_Socket_SetReAddr(int hSocket);
    bool NetCore_Socket_SetRePort(int hSocket);  // no exported C function
    bool NetCore_Socket_SetTimedOut(int hSocket, int nTimeOut);
    bool NetCore_Socket_KeepAlive(int hSocket, bool bKeepAlive = true);
    bool NetCore_Socket_FastStart(int hSocket, bool bEnable = true);
    bool NetCore_Socket_GetBufferSize(int hSocket, int* pInt_RecvBuf, int* pInt_SendBuf);
    bool NetCore_Socket_SetBufferSize(int hSocket, int nSendBuf, int nRecvBuf);
    bool NetCore_Socket_IOSelect(int hSocket, bool bRead = true, int nTimeOut = 0);
};
