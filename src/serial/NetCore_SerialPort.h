// CNetCore_SerialPort: serial (tty) devices by path, each either read by its own thread that
// hands arrivals to a callback, or read on demand; exported as NetCore_SerialPort_*.
#pragma once

#include <memory>
#include <shared_mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "Ombrelt_NetCore.h"

class CNetCore_SerialPort;

// One open device. The read thread reads bRunning without the table lock, so bRunning is only
// touched through relaxed atomic accesses.
struct NETCORE_SERIALPORT {
    char szDevice[260];
    bool bRunning;
    int hDevice;
    std::shared_ptr<std::thread> pSTDThread;
    CNetCore_SerialPort* lClass;
    void* lParam;
    CALLBACK_NETCORE_SERIALPORT_RECV fpCall_Recv;
};

class NETCORE_API CNetCore_SerialPort {
public:
    CNetCore_SerialPort() = default;
    CNetCore_SerialPort(const CNetCore_SerialPort&) = delete;
    CNetCore_SerialPort& operator=(const CNetCore_SerialPort&) = delete;
    ~CNetCore_SerialPort();

    bool NetCore_SerialPort_OpenDev(const char* lpszDevice, unsigned int nSpeed = 115200,
                                    unsigned char cParity = NETCORE_SERIALPORT_PARITY_NONE, unsigned int nStopBits = 1,
                                    unsigned int nDataBits = 8, CALLBACK_NETCORE_SERIALPORT_RECV fpCall_Recv = nullptr,
                                    void* lParam = nullptr);
    bool NetCore_SerialPort_CloseDev(const char* lpszDevice);
    bool NetCore_SerialPort_SendData(const char* lpszDevice, unsigned char* puszMsgBuffer, int nMsgLen);
    bool NetCore_SerialPort_RecvData(const char* lpszDevice, unsigned char* puszMsgBuffer, int* pInt_Len);
    bool NetCore_SerialPort_IsOpenDev(const char* lpszDevice);

protected:
    bool NetCore_SerialPort_SetSpeed(int hDevice, int nSpeed);
    bool NetCore_SerialPort_SetParity(int hDevice, unsigned int nDataBits, unsigned int nStopBits,
                                      unsigned char cParity);
    bool NetCore_SerialPort_ReadAsync(NETCORE_SERIALPORT* pSt_SerialPort, unsigned char* puszMsgBuffer, int* pInt_Len);
    static int NetCore_SerialPort_ThreadRead(void* lParam);

private:
    // Stops the device's read thread, closes its descriptor. Called with the record already out
    // of the table and without the table lock held.
    static void StopDevice(const std::shared_ptr<NETCORE_SERIALPORT>& pSt_SerialPort);

    // Guards stl_MapSerialPort only; it is the family's one lock and is never held while a read
    // thread is joined, so a callback may call SendData while its device is being closed.
    std::shared_mutex st_Locker;
    // Records are shared with their read thread, which keeps its record alive until it has left
    // its loop (only relevant when a callback closes its own device).
    std::unordered_map<std::string, std::shared_ptr<NETCORE_SERIALPORT>> stl_MapSerialPort;
};
