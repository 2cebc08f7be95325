// The exported NetCore_SerialPort_* functions: each forwards its arguments unchanged to
// m_SerialPort.
#include "Globals.h"

extern "C" {

bool NetCore_SerialPort_OpenDev(const char* lpszDevice, unsigned int nSpeed, unsigned char cParity,
                                unsigned int nStopBits, unsigned int nDataBits,
                                CALLBACK_NETCORE_SERIALPORT_RECV fpCall_Recv, void* lParam) {
    return m_SerialPort.NetCore_SerialPort_OpenDev(lpszDevice, nSpeed, cParity, nStopBits, nDataBits, fpCall_Recv,
                                                   lParam);
}
bool NetCore_SerialPort_CloseDev(const char* lpszDevice) {
    return m_SerialPort.NetCore_SerialPort_CloseDev(lpszDevice);
}
bool NetCore_SerialPort_SendData(const char* lpszDevice, unsigned char* puszMsgBuffer, int nMsgLen) {
    return m_SerialPort.NetCore_SerialPort_SendData(lpszDevice, puszMsgBuffer, nMsgLen);
}
bool NetCore_SerialPort_RecvData(const char* lpszDevice, unsigned char* puszMsgBuffer, int* pInt_Len) {
    return m_SerialPort.NetCore_SerialPort_RecvData(lpszDevice, puszMsgBuffer, pInt_Len);
}
bool NetCore_SerialPort_IsOpenDev(const char* lpszDevice) {
    return m_SerialPort.NetCore_SerialPort_IsOpenDev(lpszDevice);
}
}
