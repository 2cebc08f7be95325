// The exported NetCore_TCPXPoll_* functions: each forwards its arguments unchanged to m_TCPXPoll.
#include "Globals.h"

extern "C" {

bool NetCore_TCPXPoll_Start(int nPort, int nMaxClient, int nIPVer) {
    return m_TCPXPoll.NetCore_TCPXPoll_Start(nPort, nMaxClient, nIPVer);
}
bool NetCore_TCPXPoll_RegisterCallBack(CALLBACK_NETCORE_TCPSERVER_LOGIN fpCall_Login,
                                       CALLBACK_NETCORE_TCPSERVER_RECV fpCall_Recv,
                                       CALLBACK_NETCORE_TCPSERVER_LEAVE fpCall_Leave, void* lPLogin, void* lPRecv,
                                       void* lPLeave) {
    return m_TCPXPoll.NetCore_TCPXPoll_RegisterCallBack(fpCall_Login, fpCall_Recv, fpCall_Leave, lPLogin, lPRecv,
                                                        lPLeave);
}
bool NetCore_TCPXPoll_Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen) {
    return m_TCPXPoll.NetCore_TCPXPoll_Send(lpszClientAddr, lpszMsgBuffer, nMsgLen);
}
bool NetCore_TCPXPoll_Close(const char* lpszClientAddr) {
    return m_TCPXPoll.NetCore_TCPXPoll_Close(lpszClientAddr);
}
bool NetCore_TCPXPoll_Stop(bool bClearFlow) {
    return m_TCPXPoll.NetCore_TCPXPoll_Stop(bClearFlow);
}
bool NetCore_TCPXPoll_GetNetFlow(unsigned long long* pInt_FlowUp, unsigned long long* pInt_FlowDown) {
    return m_TCPXPoll.NetCore_TCPXPoll_GetNetFlow(pInt_FlowUp, pInt_FlowDown);
}
bool NetCore_TCPXPoll_GetList(char*** pppszList, int* pInt_ListCount) {
    return m_TCPXPoll.NetCore_TCPXPoll_GetList(pppszList, pInt_ListCount);
}
}
