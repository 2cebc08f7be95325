#include "serial/NetCore_SerialPort.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <new>
#include <system_error>
#include <utility>

#include "base/Descriptor.h"
#include "base/Error.h"
#include "socket/NetCore_Socket.h"

using netcore::ClearError;
using netcore::Fail;
using netcore::SetErrorCode;
using netcore::UniqueFd;

namespace {

struct SpeedRow {
    int nRate;
    speed_t nConstant;
};

// Searched from the first row to the last without stopping at a match, so the rates of rows 11
// to 17 are applied a second time; callers see only the final setting.
constexpr SpeedRow st_SpeedTable[] = {
    {230400, B230400}, {115200, B115200}, {57600, B57600}, {38400, B38400}, {19200, B19200}, {9600, B9600},
    {4800, B4800},     {2400, B2400},     {1200, B1200},   {300, B300},     {38400, B38400}, {19200, B19200},
    {9600, B9600},     {4800, B4800},     {2400, B2400},   {1200, B1200},   {300, B300},     {200, B200},
    {150, B150},       {134, B134},       {110, B110},     {75, B75},       {50, B50},       {0, B0},
};

constexpr int kReadChunk = 2048;
constexpr int kWaitMillis = 100;

bool IsRunning(const NETCORE_SERIALPORT* pSt_SerialPort) {
    return __atomic_load_n(&pSt_SerialPort->bRunning, __ATOMIC_RELAXED);
}

void SetRunning(NETCORE_SERIALPORT* pSt_SerialPort, bool bRunning) {
    __atomic_store_n(&pSt_SerialPort->bRunning, bRunning, __ATOMIC_RELAXED);
}

}  // namespace

CNetCore_SerialPort::~CNetCore_SerialPort() {
    // Devices still open at unload are closed like CloseDev closes them, threads joined first.
    std::unordered_map<std::string, std::shared_ptr<NETCORE_SERIALPORT>> stl_MapLeft;
    {
        std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
        stl_MapLeft.swap(stl_MapSerialPort);
    }
    for (auto& st_Entry : stl_MapLeft)
        StopDevice(st_Entry.second);
}

bool CNetCore_SerialPort::NetCore_SerialPort_OpenDev(const char* lpszDevice, unsigned int nSpeed, unsigned char cParity,
                                                     unsigned int nStopBits, unsigned int nDataBits,
                                                     CALLBACK_NETCORE_SERIALPORT_RECV fpCall_Recv, void* lParam) {
    ClearError();
    std::shared_ptr<NETCORE_SERIALPORT> pSt_SerialPort;
    try {
        pSt_SerialPort = std::make_shared<NETCORE_SERIALPORT>();
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NETCORE_SERIALPORT_OPEN_MALLOC);
    }
    // A descriptor of -1 (the path cannot be opened) is not tested here: tcgetattr on it fails
    // in SetSpeed, which is the code callers get for a missing device. A null path opens nothing.
    UniqueFd hDevice(lpszDevice != nullptr ? open(lpszDevice, O_RDWR | O_NOCTTY | O_NONBLOCK) : -1);
    // descriptor 0 is refused (records use 0 for "no descriptor"); it is closed again, not kept
    if (hDevice.Get() == 0) return Fail(ERROR_NETCORE_SERIALPORT_OPEN_DEVICE);

    if (!NetCore_SerialPort_SetSpeed(hDevice.Get(), static_cast<int>(nSpeed))) return false;
    if (!NetCore_SerialPort_SetParity(hDevice.Get(), nDataBits, nStopBits, cParity)) return false;

    pSt_SerialPort->hDevice = hDevice.Get();
    pSt_SerialPort->lClass = this;
    pSt_SerialPort->lParam = lParam;
    pSt_SerialPort->fpCall_Recv = fpCall_Recv;
    // a path longer than the record's field is cut there; the table keeps the whole path
    strncpy(pSt_SerialPort->szDevice, lpszDevice, sizeof(pSt_SerialPort->szDevice) - 1);

    std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
    // A device opened again has just been configured again with the new settings; the first
    // record stays in use, and this second opening is closed instead of being left behind
    // (no second read thread competes for the same bytes).
    if (stl_MapSerialPort.count(lpszDevice) > 0) return true;

    if (fpCall_Recv != nullptr) {
        SetRunning(pSt_SerialPort.get(), true);
        try {
            // the thread holds its own reference to the record, see StopDevice
            pSt_SerialPort->pSTDThread = std::make_shared<std::thread>(
                [pSt_Record = pSt_SerialPort] { NetCore_SerialPort_ThreadRead(pSt_Record.get()); });
        } catch (const std::exception&) {
            // the configured descriptor stays open on this path, only the record goes
            hDevice.Release();
            return Fail(ERROR_NETCORE_SERIALPORT_OPEN_THREAD);
        }
    } else {
        SetRunning(pSt_SerialPort.get(), false);
    }
    stl_MapSerialPort.emplace(lpszDevice, pSt_SerialPort);
    hDevice.Release();  // owned by the record from now on
    return true;
}

bool CNetCore_SerialPort::NetCore_SerialPort_CloseDev(const char* lpszDevice) {
    ClearError();
    if (lpszDevice == nullptr) return true;
    std::shared_ptr<NETCORE_SERIALPORT> pSt_SerialPort;
    {
        std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
        auto stl_Iterator = stl_MapSerialPort.find(lpszDevice);
        if (stl_Iterator == stl_MapSerialPort.end()) return true;
        pSt_SerialPort = std::move(stl_Iterator->second);
        stl_MapSerialPort.erase(stl_Iterator);
    }
    // joined outside the lock: the callback may be waiting for the lock in SendData
    StopDevice(pSt_SerialPort);
    return true;
}

void CNetCore_SerialPort::StopDevice(const std::shared_ptr<NETCORE_SERIALPORT>& pSt_SerialPort) {
    if (IsRunning(pSt_SerialPort.get())) {
        SetRunning(pSt_SerialPort.get(), false);
        std::thread* pSTDThread = pSt_SerialPort->pSTDThread.get();
        if (pSTDThread != nullptr && pSTDThread->joinable()) {
            if (pSTDThread->get_id() == std::this_thread::get_id()) {
                // A callback closing its own device: the thread cannot join itself. It leaves its
                // loop once the callback returns (it checks bRunning before reading again) and
                // then drops the last reference to the record.
                pSTDThread->detach();
            } else {
                pSTDThread->join();
            }
        }
    }
    close(pSt_SerialPort->hDevice);
}

bool CNetCore_SerialPort::NetCore_SerialPort_SendData(const char* lpszDevice, unsigned char* puszMsgBuffer,
                                                      int nMsgLen) {
    ClearError();
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    auto stl_Iterator = lpszDevice == nullptr ? stl_MapSerialPort.end() : stl_MapSerialPort.find(lpszDevice);
    if (stl_Iterator == stl_MapSerialPort.end()) {
        SetErrorCode(ERROR_NETCORE_SERIALPORT_SEND_NOTFOUND);
        return false;
    }
    int hDevice = stl_Iterator->second->hDevice;
    if (!CNetCore_Socket().NetCore_Socket_IOSelect(hDevice, false, kWaitMillis))
        return Fail(ERROR_NETCORE_SERIALPORT_SEND_TIMEOUT);

    // A negative length is never handed to the kernel as a huge count (it would read past the
    // caller's buffer); such a write fails, and is reported as one.
    if (nMsgLen < 0) return Fail(ERROR_NETCORE_SERIALPORT_SEND_FAILED);
    ssize_t nWritten = write(hDevice, puszMsgBuffer, static_cast<size_t>(nMsgLen));
    if (nWritten == -1) return Fail(ERROR_NETCORE_SERIALPORT_SEND_FAILED);
    if (nWritten != nMsgLen) return Fail(ERROR_NETCORE_SERIALPORT_SEND_LEN);
    // A complete write also answers false: callers tell success by the error flag staying down.
    return false;
}

bool CNetCore_SerialPort::NetCore_SerialPort_RecvData(const char* lpszDevice, unsigned char* puszMsgBuffer,
                                                      int* pInt_Len) {
    ClearError();
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    auto stl_Iterator = lpszDevice == nullptr ? stl_MapSerialPort.end() : stl_MapSerialPort.find(lpszDevice);
    // Both refusals answer true with the flag up; callers check the flag before the data.
    if (stl_Iterator == stl_MapSerialPort.end()) {
        Fail(ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND);
        return true;
    }
    if (IsRunning(stl_Iterator->second.get())) {
        Fail(ERROR_NETCORE_SERIALPORT_RECV_CALLMODE);
        return true;
    }
    return NetCore_SerialPort_ReadAsync(stl_Iterator->second.get(), puszMsgBuffer, pInt_Len);
}

bool CNetCore_SerialPort::NetCore_SerialPort_IsOpenDev(const char* lpszDevice) {
    ClearError();
    // a null path cannot be opened
    if (lpszDevice == nullptr) return false;
    // O_NOCTTY: probing a terminal must not make it the caller's controlling terminal
    int hDevice = open(lpszDevice, O_RDWR | O_EXCL | O_NOCTTY);
    if (hDevice == -1) return false;
    close(hDevice);
    return true;
}

bool CNetCore_SerialPort::NetCore_SerialPort_SetSpeed(int hDevice, int nSpeed) {
    ClearError();
    struct termios st_Attr {};
    if (tcgetattr(hDevice, &st_Attr) != 0) {
        // the flag stays down on this path; only the code tells the device could not be used
        SetErrorCode(ERROR_NETCORE_SERIALPORT_SPEED_GETATTR);
        return false;
    }
    for (const SpeedRow& st_Row : st_SpeedTable) {
        if (st_Row.nRate != nSpeed) continue;
        tcflush(hDevice, TCIOFLUSH);
        cfsetispeed(&st_Attr, st_Row.nConstant);
        cfsetospeed(&st_Attr, st_Row.nConstant);
        if (tcsetattr(hDevice, TCSANOW, &st_Attr) != 0) return Fail(ERROR_NETCORE_SERIALPORT_SPEED_SETATTR);
        if (tcflush(hDevice, TCIOFLUSH) != 0) {
            SetErrorCode(ERROR_NETCORE_SERIALPORT_SPEED_FLUSH);
            return false;
        }
    }
    // a rate in no row leaves the line's speed as it was
    return true;
}

bool CNetCore_SerialPort::NetCore_SerialPort_SetParity(int hDevice, unsigned int nDataBits, unsigned int nStopBits,
                                                       unsigned char cParity) {
    struct termios st_Attr {};
    if (tcgetattr(hDevice, &st_Attr) != 0) return Fail(ERROR_NETCORE_SERIALPORT_PARITY_GETATTR);

    st_Attr.c_cflag &= ~CSIZE;
    switch (nDataBits) {
        case 5:
            st_Attr.c_cflag |= CS5;
            break;
        case 6:
            st_Attr.c_cflag |= CS6;
            break;
        case 7:
            st_Attr.c_cflag |= CS7;
            break;
        case 8:
            st_Attr.c_cflag |= CS8;
            break;
        default:
            return Fail(ERROR_NETCORE_SERIALPORT_PARITY_DATABITS);
    }
    switch (cParity) {
        case NETCORE_SERIALPORT_PARITY_NONE:
            st_Attr.c_cflag &= ~PARENB;
            st_Attr.c_iflag &= ~INPCK;
            break;
        case NETCORE_SERIALPORT_PARITY_ODD:
            st_Attr.c_cflag |= PARENB | PARODD;
            st_Attr.c_iflag |= INPCK;
            break;
        case NETCORE_SERIALPORT_PARITY_EVEN:
            st_Attr.c_cflag |= PARENB;
            st_Attr.c_cflag &= ~PARODD;
            st_Attr.c_iflag |= INPCK;
            break;
        default:
            return Fail(ERROR_NETCORE_SERIALPORT_PARITY_PARITY);
    }
    switch (nStopBits) {
        case 1:
            st_Attr.c_cflag &= ~CSTOPB;
            break;
        case 2:
            st_Attr.c_cflag |= CSTOPB;
            break;
        default:
            return Fail(ERROR_NETCORE_SERIALPORT_PARITY_STOPBITS);
    }
    // Reads never wait in the driver: VMIN 0 with a non-blocking descriptor returns at once.
    st_Attr.c_cc[VTIME] = 150;
    st_Attr.c_cc[VMIN] = 0;
    // The bit values of INLCR|IGNCR|ICRNL (0x1C0) are cleared in the OUTPUT flags on purpose,
    // where they mean OFILL, OFDEL and the newline delay; input translation is left as found,
    // apart from INPCK above.
    st_Attr.c_oflag &= ~static_cast<tcflag_t>(INLCR | IGNCR | ICRNL);
    st_Attr.c_oflag &= ~static_cast<tcflag_t>(ONLCR | OCRNL);
    st_Attr.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ECHOE | ISIG);

    tcflush(hDevice, TCIFLUSH);
    if (tcsetattr(hDevice, TCSANOW, &st_Attr) != 0) return Fail(ERROR_NETCORE_SERIALPORT_PARITY_SETATTR);
    return true;
}

bool CNetCore_SerialPort::NetCore_SerialPort_ReadAsync(NETCORE_SERIALPORT* pSt_SerialPort, unsigned char* puszMsgBuffer,
                                                       int* pInt_Len) {
    ClearError();
    if (!CNetCore_Socket().NetCore_Socket_IOSelect(pSt_SerialPort->hDevice, true, kWaitMillis))
        return Fail(ERROR_NETCORE_SERIALPORT_READ_TIMEOUT);
    // A null buffer or a negative size is never handed to the kernel: such a read fails, and its
    // -1 is handed back as the count like any failed read. A missing length reads nothing.
    if (pInt_Len != nullptr && (*pInt_Len < 0 || (puszMsgBuffer == nullptr && *pInt_Len > 0))) {
        *pInt_Len = -1;
        return true;
    }
    size_t nToRead = pInt_Len != nullptr ? static_cast<size_t>(*pInt_Len) : 0;
    ssize_t nRead = read(pSt_SerialPort->hDevice, puszMsgBuffer, nToRead);
    if (nRead == 0) return Fail(ERROR_NETCORE_SERIALPORT_READ_NODATA);
    // -1 (a line that failed) is handed back as the count, not as a failure
    if (pInt_Len != nullptr) *pInt_Len = static_cast<int>(nRead);
    return true;
}

int CNetCore_SerialPort::NetCore_SerialPort_ThreadRead(void* lParam) {
    auto* pSt_SerialPort = static_cast<NETCORE_SERIALPORT*>(lParam);
    unsigned char tszMsgBuffer[kReadChunk];
    while (IsRunning(pSt_SerialPort)) {
        int nLen = kReadChunk;
        memset(tszMsgBuffer, 0, sizeof(tszMsgBuffer));
        if (pSt_SerialPort->lClass->NetCore_SerialPort_ReadAsync(pSt_SerialPort, tszMsgBuffer, &nLen)) {
            pSt_SerialPort->fpCall_Recv(pSt_SerialPort->szDevice, pSt_SerialPort->hDevice,
                                        reinterpret_cast<const char*>(tszMsgBuffer), nLen, pSt_SerialPort->lParam);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return 0;
}
