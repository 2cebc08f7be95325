// The exported NetCore_Socket_* functions: each forwards its arguments unchanged to m_Socket.
#include "Globals.h"

extern "C" {

bool NetCore_Socket_Create(int* phSocket, bool bTcp, int nIPVer, bool bReserved) {
    return m_Socket.NetCore_Socket_Create(phSocket, bTcp, nIPVer, bReserved);
}
bool NetCore_Socket_Bind(int hSocket, int nPort, bool bListen, int nIPVer) {
    return m_Socket.NetCore_Socket_Bind(hSocket, nPort, bListen, nIPVer);
}
bool NetCore_Socket_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen, const char* lpszAddr, int nPort,
                         int nTimeOut, int nIPVer) {
    return m_Socket.NetCore_Socket_Send(hSocket, lpszMsgBuffer, nMsgLen, lpszAddr, nPort, nTimeOut, nIPVer);
}
bool NetCore_Socket_Recv(int hSocket, char* lpszMsgBuffer, int* pInt_MsgLen) {
    return m_Socket.NetCore_Socket_Recv(hSocket, lpszMsgBuffer, pInt_MsgLen);
}
bool NetCore_Socket_Close(int hSocket) {
    return m_Socket.NetCore_Socket_Close(hSocket);
}
bool NetCore_Socket_SetNoneBlock(int hSocket, bool bNoneBlock) {
    return m_Socket.NetCore_Socket_SetNoneBlock(hSocket, bNoneBlock);
}
bool NetCore_Socket_SetReAddr(int hSocket) {
    return m_Socket.NetCore_Socket_SetReAddr(hSocket);
}
bool NetCore_Socket_SetTimedOut(int hSocket, int nTimeOut) {
    return m_Socket.NetCore_Socket_SetTimedOut(hSocket, nTimeOut);
}
bool NetCore_Socket_KeepAlive(int hSocket, bool bKeepAlive) {
    return m_Socket.NetCore_Socket_KeepAlive(hSocket, bKeepAlive);
}
bool NetCore_Socket_FastStart(int hSocket, bool bEnable) {
    return m_Socket.NetCore_Socket_FastStart(hSocket, bEnable);
}
bool NetCore_Socket_GetBufferSize(int hSocket, int* pInt_RecvBuf, int* pInt_SendBuf) {
    return m_Socket.NetCore_Socket_GetBufferSize(hSocket, pInt_RecvBuf, pInt_SendBuf);
}
bool NetCore_Socket_SetBufferSize(int hSocket, int nSendBuf, int nRecvBuf) {
    return m_Socket.NetCore_Socket_SetBufferSize(hSocket, nSendBuf, nRecvBuf);
}
bool NetCore_Socket_IOSelect(int hSocket, bool bRead, int nTimeOut) {
    return m_Socket.NetCore_Socket_IOSelect(hSocket, bRead, nTimeOut);
}
}
