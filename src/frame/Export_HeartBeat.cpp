// The exported SocketOpt_HeartBeat_*Ex functions: each forwards its arguments unchanged to
// m_OptHeartBeat.
#include "Globals.h"

extern "C" {

void* SocketOpt_HeartBeat_InitEx(int nTimeOut, int nTimeNumber,
                                 CALLBACK_NETCORE_SOCKOPT_HEARTBEAT_EVENT fpCall_HeartBeatEvent, void* lParam,
                                 bool bIsAddr) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_InitEx(nTimeOut, nTimeNumber, fpCall_HeartBeatEvent, lParam, bIsAddr);
}
bool SocketOpt_HeartBeat_DestoryEx(void* xhNet) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_DestoryEx(xhNet);
}
bool SocketOpt_HeartBeat_ForceOutAddrEx(void* xhNet, const char* lpszClientAddr, int nLeaveCode, bool bAdd) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_ForceOutAddrEx(xhNet, lpszClientAddr, nLeaveCode, bAdd);
}
bool SocketOpt_HeartBeat_ForceOutSktEx(void* xhNet, int hSocket, int nLeaveCode, bool bAdd) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_ForceOutSktEx(xhNet, hSocket, nLeaveCode, bAdd);
}
bool SocketOpt_HeartBeat_InsertAddrEx(void* xhNet, const char* lpszClientAddr) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_InsertAddrEx(xhNet, lpszClientAddr);
}
bool SocketOpt_HeartBeat_InsertSocketEx(void* xhNet, int hSocket) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_InsertSocketEx(xhNet, hSocket);
}
bool SocketOpt_HeartBeat_ActiveAddrEx(void* xhNet, const char* lpszClientAddr,
                                      tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_ActiveAddrEx(xhNet, lpszClientAddr, pSt_ProtocolHeartBeat);
}
bool SocketOpt_HeartBeat_ActiveSocketEx(void* xhNet, int hSocket,
                                        tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_ActiveSocketEx(xhNet, hSocket, pSt_ProtocolHeartBeat);
}
bool SocketOpt_HeartBeat_DeleteAddrEx(void* xhNet, const char* lpszClientAddr) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_DeleteAddrEx(xhNet, lpszClientAddr);
}
bool SocketOpt_HeartBeat_DeleteSocketEx(void* xhNet, int hSocket) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_DeleteSocketEx(xhNet, hSocket);
}
bool SocketOpt_HeartBeat_GetAddrEx(void* xhNet, const char* lpszClientAddr, long long* pInt_Timer) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_GetAddrEx(xhNet, lpszClientAddr, pInt_Timer);
}
bool SocketOpt_HeartBeat_GetSocketEx(void* xhNet, int hSocket, long long* pInt_Timer) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_GetSocketEx(xhNet, hSocket, pInt_Timer);
}
bool SocketOpt_HeartBeat_GetTimeOutEx(void* xhNet, char* ptszClientAddr, int* phSocket) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_GetTimeOutEx(xhNet, ptszClientAddr, phSocket);
}
bool SocketOpt_HeartBeat_SetLoadAttrEx(void* xhNet, int nTime, bool bLoad) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_SetLoadAttrEx(xhNet, nTime, bLoad);
}
bool SocketOpt_HeartBeat_GetLoadAttrEx(void* xhNet, const char* lpszClientAddr, int hSocket,
                                       NETCORE_SOCKOPT_HBLOAD* pSt_HBLoad, NETCORE_SOCKOPT_LOADRATE* pSt_LoadRate) {
    return m_OptHeartBeat.SocketOpt_HeartBeat_GetLoadAttrEx(xhNet, lpszClientAddr, hSocket, pSt_HBLoad, pSt_LoadRate);
}
}
