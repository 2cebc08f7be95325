// The exported NetCore_UnixDomain_* functions: each forwards its arguments unchanged to
// m_UnixDomain.
#include "Globals.h"

extern "C" {

bool NetCore_UnixDomain_Start(const char* lpszUnixName, bool bStream) {
    return m_UnixDomain.NetCore_UnixDomain_Start(lpszUnixName, bStream);
}
bool NetCore_UnixDomain_SetCallback(CALLBACK_NETCORE_UNIXDOMAIN_ACCEPT fpCallAccept,
                                    CALLBACK_NETCORE_UNIXDOMAIN_RECV fpCallRecv,
                                    CALLBACK_NETCORE_UNIXDOMAIN_LEAVE fpCallLeave, void* lPAccept, void* lPRecv,
                                    void* lPLeave) {
    return m_UnixDomain.NetCore_UnixDomain_SetCallback(fpCallAccept, fpCallRecv, fpCallLeave, lPAccept, lPRecv,
                                                       lPLeave);
}
bool NetCore_UnixDomain_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen, const char* lpszClientAddr) {
    return m_UnixDomain.NetCore_UnixDomain_Send(hSocket, lpszMsgBuffer, nMsgLen, lpszClientAddr);
}
bool NetCore_UnixDomain_Remove(int hSocket) {
    return m_UnixDomain.NetCore_UnixDomain_Remove(hSocket);
}
bool NetCore_UnixDomain_Stop(void) {
    return m_UnixDomain.NetCore_UnixDomain_Stop();
}
}
