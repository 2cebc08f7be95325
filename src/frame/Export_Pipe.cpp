// The exported NetCore_PIPAnonymous_* and NetCore_PIPNamed_* functions: each forwards its
// arguments unchanged to m_PIPAnonymous or m_PIPNamed.
#include "Globals.h"

extern "C" {

bool NetCore_PIPAnonymous_Create(const char* lpszPipeName, unsigned long* pulReserved) {
    return m_PIPAnonymous.NetCore_PIPAnonymous_Create(lpszPipeName, pulReserved);
}
bool NetCore_PIPAnonymous_Read(const char* lpszPipeName, char* ptszMsgBuffer, int* pInt_Len) {
    return m_PIPAnonymous.NetCore_PIPAnonymous_Read(lpszPipeName, ptszMsgBuffer, pInt_Len);
}
bool NetCore_PIPAnonymous_Write(const char* lpszPipeName, const char* lpszMsgBuffer, int nMsgLen) {
    return m_PIPAnonymous.NetCore_PIPAnonymous_Write(lpszPipeName, lpszMsgBuffer, nMsgLen);
}
bool NetCore_PIPAnonymous_Close(const char* lpszPipeName) {
    return m_PIPAnonymous.NetCore_PIPAnonymous_Close(lpszPipeName);
}

bool NetCore_PIPNamed_Create(const char* lpszPipeName) {
    return m_PIPNamed.NetCore_PIPNamed_Create(lpszPipeName);
}
bool NetCore_PIPNamed_Close(const char* lpszPipeName) {
    return m_PIPNamed.NetCore_PIPNamed_Close(lpszPipeName);
}
bool NetCore_PIPNamed_Read(const char* lpszPipeName, char* ptszMsgBuffer, int* pInt_Len) {
    return m_PIPNamed.NetCore_PIPNamed_Read(lpszPipeName, ptszMsgBuffer, pInt_Len);
}
bool NetCore_PIPNamed_Write(const char* lpszPipeName, const char* lpszMsgBuffer, int nMsgLen) {
    return m_PIPNamed.NetCore_PIPNamed_Write(lpszPipeName, lpszMsgBuffer, nMsgLen);
}
bool NetCore_PIPNamed_OPen(const char* lpszPipeName) {
    return m_PIPNamed.NetCore_PIPNamed_OPen(lpszPipeName);
}
bool NetCore_PIPNamed_WaitConnect(const char* lpszPipeName) {
    return m_PIPNamed.NetCore_PIPNamed_WaitConnect(lpszPipeName);
}
}
