// The exported NetCore_UDPSelect_*, NetCore_BroadCast_* and NetCore_GroupCast_* functions: each
// forwards its arguments unchanged to m_UDPSelect, m_BroadCast or m_GroupCast.
#include "Globals.h"

extern "C" {

void* NetCore_UDPSelect_Start(int nPort, int nIPVer) {
    return m_UDPSelect.NetCore_UDPSelect_Start(nPort, nIPVer);
}
bool NetCore_UDPSelect_GetSocket(void* lPClass, int* phSocket) {
    return m_UDPSelect.NetCore_UDPSelect_GetSocket(lPClass, phSocket);
}
bool NetCore_UDPSelect_Send(void* lPClass, const char* lpszMsgBuffer, int nMsgLen, const char* lpszAddr, int nPort) {
    return m_UDPSelect.NetCore_UDPSelect_Send(lPClass, lpszMsgBuffer, nMsgLen, lpszAddr, nPort);
}
bool NetCore_UDPSelect_Recv(void* lPClass, char* ptszAddr, char* ptszMsgBuffer, int* pInt_Len, bool bSelect) {
    return m_UDPSelect.NetCore_UDPSelect_Recv(lPClass, ptszAddr, ptszMsgBuffer, pInt_Len, bSelect);
}
bool NetCore_UDPSelect_Stop(void* lPClass) {
    return m_UDPSelect.NetCore_UDPSelect_Stop(lPClass);
}
bool NetCore_UDPSelect_SetMode(void* lPClass, bool bCallMode) {
    return m_UDPSelect.NetCore_UDPSelect_SetMode(lPClass, bCallMode);
}
bool NetCore_UDPSelect_RegisterCallBack(void* lPClass, CALLBACK_NETCORE_UDPSELECT_RECV fpCall_Recv, void* lParam) {
    return m_UDPSelect.NetCore_UDPSelect_RegisterCallBack(lPClass, fpCall_Recv, lParam);
}

bool NetCore_BroadCast_Create(int* phSocket, int nPort, const char* lpszAddr) {
    return m_BroadCast.NetCore_BroadCast_Create(phSocket, nPort, lpszAddr);
}
bool NetCore_BroadCast_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen) {
    return m_BroadCast.NetCore_BroadCast_Send(hSocket, lpszMsgBuffer, nMsgLen);
}
bool NetCore_BroadCast_Recv(int hSocket, char* ptszMsgBuffer, int* pInt_Len, char* ptszAddr, int nTimeout) {
    return m_BroadCast.NetCore_BroadCast_Recv(hSocket, ptszMsgBuffer, pInt_Len, ptszAddr, nTimeout);
}
bool NetCore_BroadCast_Close(int hSocket) {
    return m_BroadCast.NetCore_BroadCast_Close(hSocket);
}

bool NetCore_GroupCast_Create(int* phSocket, int nPort, const char* lpszGroupAddr, const char* lpszLocalAddr, int nTTL,
                              bool bLoop, int nIPVer) {
    return m_GroupCast.NetCore_GroupCast_Create(phSocket, nPort, lpszGroupAddr, lpszLocalAddr, nTTL, bLoop, nIPVer);
}
bool NetCore_GroupCast_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen) {
    return m_GroupCast.NetCore_GroupCast_Send(hSocket, lpszMsgBuffer, nMsgLen);
}
bool NetCore_GroupCast_Recv(int hSocket, char* ptszMsgBuffer, int* pInt_Len, char* ptszAddr, int nTimeout) {
    return m_GroupCast.NetCore_GroupCast_Recv(hSocket, ptszMsgBuffer, pInt_Len, ptszAddr, nTimeout);
}
bool NetCore_GroupCast_Close(int hSocket) {
    return m_GroupCast.NetCore_GroupCast_Close(hSocket);
}
}
