// The exported NetCore_UDPXCore_*Ex functions: each forwards its arguments unchanged to m_UDPXCore.
#include "Globals.h"

extern "C" {

void* NetCore_UDPXCore_StartEx(int nPort, int nThread, int nTimeFlow, int nIPVer) {
    return m_UDPXCore.NetCore_UDPXCore_StartEx(nPort, nThread, nTimeFlow, nIPVer);
}
bool NetCore_UDPXCore_GetSocketEx(void* xhToken, int* phSocket) {
    return m_UDPXCore.NetCore_UDPXCore_GetSocketEx(xhToken, phSocket);
}
bool NetCore_UDPXCore_DestroyEx(void* xhToken, bool bClearFlow) {
    return m_UDPXCore.NetCore_UDPXCore_DestroyEx(xhToken, bClearFlow);
}
bool NetCore_UDPXCore_SendEx(void* xhToken, const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen) {
    return m_UDPXCore.NetCore_UDPXCore_SendEx(xhToken, lpszClientAddr, lpszMsgBuffer, nMsgLen);
}
bool NetCore_UDPXCore_GetFlowEx(void* xhToken, unsigned long long* pInt_SendBytes, unsigned long long* pInt_RecvBytes,
                                unsigned long long* pInt_SendPackets, unsigned long long* pInt_RecvPackets) {
    return m_UDPXCore.NetCore_UDPXCore_GetFlowEx(xhToken, pInt_SendBytes, pInt_RecvBytes, pInt_SendPackets,
                                                 pInt_RecvPackets);
}
bool NetCore_UDPXCore_GetTimeEx(void* xhToken, unsigned long long* pInt_TimeRecv, unsigned long long* pInt_TimeSend) {
    return m_UDPXCore.NetCore_UDPXCore_GetTimeEx(xhToken, pInt_TimeRecv, pInt_TimeSend);
}
bool NetCore_UDPXCore_GetAverageFlowEx(void* xhToken, unsigned long long* pInt_SendBytes,
                                       unsigned long long* pInt_RecvBytes, unsigned long long* pInt_SendPackets,
                                       unsigned long long* pInt_RecvPackets, bool bWhole) {
    return m_UDPXCore.NetCore_UDPXCore_GetAverageFlowEx(xhToken, pInt_SendBytes, pInt_RecvBytes, pInt_SendPackets,
                                                        pInt_RecvPackets, bWhole);
}
bool NetCore_UDPXCore_RegisterCallBackEx(void* xhToken, CALLBACK_NETCORE_UDPXCORE_RECV fpCall_Recv, void* lParam) {
    return m_UDPXCore.NetCore_UDPXCore_RegisterCallBackEx(xhToken, fpCall_Recv, lParam);
}
}
