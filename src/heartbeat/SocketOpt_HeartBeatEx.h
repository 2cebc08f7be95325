// CSocketOpt_HeartBeatEx: the handle layer. Each InitEx makes an independent supervisor and hands
// out its address; every other call takes it first. Only a null handle is detected.
#pragma once

#include "Ombrelt_NetCore.h"

class NETCORE_API CSocketOpt_HeartBeatEx {
public:
    void* SocketOpt_HeartBeat_InitEx(int nTimeOut, int nTimeNumber,
                                     CALLBACK_NETCORE_SOCKOPT_HEARTBEAT_EVENT fpCall_HeartBeatEvent, void* lParam,
                                     bool bIsAddr);
    bool SocketOpt_HeartBeat_DestoryEx(void* xhNet);
    bool SocketOpt_HeartBeat_ForceOutAddrEx(void* xhNet, const char* lpszClientAddr, int nLeaveCode, bool bAdd);
    bool SocketOpt_HeartBeat_ForceOutSktEx(void* xhNet, int hSocket, int nLeaveCode, bool bAdd);
    bool SocketOpt_HeartBeat_InsertAddrEx(void* xhNet, const char* lpszClientAddr);
    bool SocketOpt_HeartBeat_InsertSocketEx(void* xhNet, int hSocket);
    bool SocketOpt_HeartBeat_ActiveAddrEx(void* xhNet, const char* lpszClientAddr,
                                          tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat);
    bool SocketOpt_HeartBeat_ActiveSocketEx(void* xhNet, int hSocket,
                                            tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat);
    bool SocketOpt_HeartBeat_DeleteAddrEx(void* xhNet, const char* lpszClientAddr);
    bool SocketOpt_HeartBeat_DeleteSocketEx(void* xhNet, int hSocket);
    bool SocketOpt_HeartBeat_GetAddrEx(void* xhNet, const char* lpszClientAddr, long long* pInt_Timer);
    bool SocketOpt_HeartBeat_GetSocketEx(void* xhNet, int hSocket, long long* pInt_Timer);
    bool SocketOpt_HeartBeat_GetTimeOutEx(void* xhNet, char* ptszClientAddr, int* phSocket);
    bool SocketOpt_HeartBeat_SetLoadAttrEx(void* xhNet, int nTime, bool bLoad);
    bool SocketOpt_HeartBeat_GetLoadAttrEx(void* xhNet, const char* lpszClientAddr, int hSocket,
                                           NETCORE_SOCKOPT_HBLOAD* pSt_HBLoad, NETCORE_SOCKOPT_LOADRATE* pSt_LoadRate);
};
