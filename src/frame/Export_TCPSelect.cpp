// The exported NetCore_TCPSelect_* functions: each forwards its arguments unchanged to m_TCPSelect.
#include "Globals.h"

extern "C" {

bool NetCore_TCPSelect_Start(int nPort, int nTimeOut, bool bKeepAlive, int nIPVer) {
    return m_TCPSelect.NetCore_TCPSelect_Start(nPort, nTimeOut, bKeepAlive, nIPVer);
}
bool NetCore_TCPSelect_RegisterCallBack(CALLBACK_NETCORE_TCPSERVER_LOGIN fpCall_Login,
                                        CALLBACK_NETCORE_TCPSERVER_RECV fpCall_Recv,
                                        CALLBACK_NETCORE_TCPSERVER_LEAVE fpCall_Leave, void* lPLogin, void* lPRecv,
                                        void* lPLeave) {
    return m_TCPSelect.NetCore_TCPSelect_RegisterCallBack(fpCall_Login, fpCall_Recv, fpCall_Leave, lPLogin, lPRecv,
                                                          lPLeave);
}
bool NetCore_TCPSelect_Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen) {
    return m_TCPSelect.NetCore_TCPSelect_Send(lpszClientAddr, lpszMsgBuffer, nMsgLen);
}
bool NetCore_TCPSelect_RemoveClient(const char* lpszClientAddr) {
    return m_TCPSelect.NetCore_TCPSelect_RemoveClient(lpszClientAddr);
}
bool NetCore_TCPSelect_Stop(bool bClearFlow) {
    return m_TCPSelect.NetCore_TCPSelect_Stop(bClearFlow);
}
bool NetCore_TCPSelect_GetFlow(unsigned long long* pInt_FlowUp, unsigned long long* pInt_FlowDown) {
    return m_TCPSelect.NetCore_TCPSelect_GetFlow(pInt_FlowUp, pInt_FlowDown);
}
bool NetCore_TCPSelect_GetList(char*** pppszList, int* pInt_ListCount) {
    return m_TCPSelect.NetCore_TCPSelect_GetList(pppszList, pInt_ListCount);
}
bool NetCore_TCPSelect_ReadIOEvent(char* lpszClientAddr, char* lpszMsgBuffer, int* pInt_Len, unsigned long* pdwType) {
    return m_TCPSelect.NetCore_TCPSelect_ReadIOEvent(lpszClientAddr, lpszMsgBuffer, pInt_Len, pdwType);
}
}
