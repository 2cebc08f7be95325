// The exported NetCore_TCPXCore_*Ex functions: each forwards its arguments unchanged to m_TCPXCore.
#include "Globals.h"

extern "C" {

void* NetCore_TCPXCore_StartEx(int nPort, int nMaxClient, int nThreads, bool bKeepAlive, bool bReuseAddr,
                               int nFlowPeriod, int nIPVer) {
    return m_TCPXCore.NetCore_TCPXCore_StartEx(nPort, nMaxClient, nThreads, bKeepAlive, bReuseAddr, nFlowPeriod,
                                               nIPVer);
}
bool NetCore_TCPXCore_DestroyEx(void* xhNet, bool bClearFlow) {
    return m_TCPXCore.NetCore_TCPXCore_DestroyEx(xhNet, bClearFlow);
}
bool NetCore_TCPXCore_SendEx(void* xhNet, const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen,
                             int nTimeOut, int nIOSelect) {
    return m_TCPXCore.NetCore_TCPXCore_SendEx(xhNet, lpszClientAddr, lpszMsgBuffer, nMsgLen, nTimeOut, nIOSelect);
}
bool NetCore_TCPXCore_CBSendEx(void* xhNet, const char* lpszClientAddr, CALLBACK_NETCORE_TCPXCORE_SEND fpCallSend,
                               void* lParam) {
    return m_TCPXCore.NetCore_TCPXCore_CBSendEx(xhNet, lpszClientAddr, fpCallSend, lParam);
}
bool NetCore_TCPXCore_GetAllEx(void* xhNet, char*** pppszListAddr, int* pInt_ListCount) {
    return m_TCPXCore.NetCore_TCPXCore_GetAllEx(xhNet, pppszListAddr, pInt_ListCount);
}
bool NetCore_TCPXCore_CloseForClientEx(void* xhNet, const char* lpszClientAddr) {
    return m_TCPXCore.NetCore_TCPXCore_CloseForClientEx(xhNet, lpszClientAddr);
}
bool NetCore_TCPXCore_SetStatusEx(void* xhNet, const char* lpszClientAddr, bool bStatus) {
    return m_TCPXCore.NetCore_TCPXCore_SetStatusEx(xhNet, lpszClientAddr, bStatus);
}
bool NetCore_TCPXCore_RegisterCallBackEx(void* xhNet, CALLBACK_NETCORE_TCPXCORE_LOGIN fpCallePoll_Login,
                                         CALLBACK_NETCORE_TCPXCORE_RECV fpCallePoll_Recv,
                                         CALLBACK_NETCORE_TCPXCORE_LEAVE fpCallePoll_Leave, void* lPLogin, void* lPRecv,
                                         void* lPLeave) {
    return m_TCPXCore.NetCore_TCPXCore_RegisterCallBackEx(xhNet, fpCallePoll_Login, fpCallePoll_Recv, fpCallePoll_Leave,
                                                          lPLogin, lPRecv, lPLeave);
}
bool NetCore_TCPXCore_GetAddrForSocketEx(void* xhNet, int hSocket, char* ptszClientAddr) {
    return m_TCPXCore.NetCore_TCPXCore_GetAddrForSocketEx(xhNet, hSocket, ptszClientAddr);
}
bool NetCore_TCPXCore_GetSocketForAddrEx(void* xhNet, const char* lpszClientAddr, int* phSocket) {
    return m_TCPXCore.NetCore_TCPXCore_GetSocketForAddrEx(xhNet, lpszClientAddr, phSocket);
}
bool NetCore_TCPXCore_GetFlowEx(void* xhNet, unsigned long long* pInt_SendBytes, unsigned long long* pInt_RecvBytes,
                                unsigned long long* pInt_SendPackets, unsigned long long* pInt_RecvPackets,
                                const char* lpszClientAddr) {
    return m_TCPXCore.NetCore_TCPXCore_GetFlowEx(xhNet, pInt_SendBytes, pInt_RecvBytes, pInt_SendPackets,
                                                 pInt_RecvPackets, lpszClientAddr);
}
bool NetCore_TCPXCore_GetTimeEx(void* xhNet, const char* lpszClientAddr, unsigned long long* pInt_SendTime,
                                unsigned long long* pInt_RecvTime, unsigned long long* pInt_OnlineTime) {
    return m_TCPXCore.NetCore_TCPXCore_GetTimeEx(xhNet, lpszClientAddr, pInt_SendTime, pInt_RecvTime, pInt_OnlineTime);
}
bool NetCore_TCPXCore_GetAverageFlowEx(void* xhNet, unsigned long long* pInt_SendBytes,
                                       unsigned long long* pInt_RecvBytes, unsigned long long* pInt_SendPackets,
                                       unsigned long long* pInt_RecvPackets, const char* lpszClientAddr, bool bAll) {
    return m_TCPXCore.NetCore_TCPXCore_GetAverageFlowEx(xhNet, pInt_SendBytes, pInt_RecvBytes, pInt_SendPackets,
                                                        pInt_RecvPackets, lpszClientAddr, bAll);
}
bool NetCore_TCPXCore_SetLimitEx(void* xhNet, const char* lpszClientAddr, int nPktLen, const char* lpszEndMark) {
    return m_TCPXCore.NetCore_TCPXCore_SetLimitEx(xhNet, lpszClientAddr, nPktLen, lpszEndMark);
}
bool NetCore_TCPXCore_GetLimitEx(void* xhNet, const char* lpszClientAddr, int* pInt_PktLen, char* ptszEndMark) {
    return m_TCPXCore.NetCore_TCPXCore_GetLimitEx(xhNet, lpszClientAddr, pInt_PktLen, ptszEndMark);
}
bool NetCore_TCPXCore_PasueRecvEx(void* xhNet, const char* lpszClientAddr, bool bRecv) {
    return m_TCPXCore.NetCore_TCPXCore_PasueRecvEx(xhNet, lpszClientAddr, bRecv);
}
}
