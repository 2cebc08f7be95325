// Demo section: the serial port, on a pseudo-terminal pair standing in for a device and the
// far end of its line.
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "Demo.h"
#include "Ombrelt_NetCore.h"

namespace {

std::atomic<int> g_nReceived{0};
char g_tszReceived[64];

void OnData(const char* lpszDevice, int, const char* lpszMsg, int nLen, void*) {
    if (nLen <= 0 || g_nReceived.load() != 0) return;
    int nCopy = nLen < static_cast<int>(sizeof(g_tszReceived)) - 1 ? nLen : static_cast<int>(sizeof(g_tszReceived)) - 1;
    memcpy(g_tszReceived, lpszMsg, static_cast<size_t>(nCopy));
    g_tszReceived[nCopy] = '\0';
    printf("  callback from %s: %d bytes\n", lpszDevice, nLen);
    g_nReceived.store(nLen);
}

// What the far end of the line received within a second.
std::string ReadLine(int hMaster) {
    char tszBuffer[64] = {};
    struct pollfd st_Poll = {hMaster, POLLIN, 0};
    if (poll(&st_Poll, 1, 1000) <= 0) return "";
    ssize_t nLen = read(hMaster, tszBuffer, sizeof(tszBuffer) - 1);
    return nLen > 0 ? std::string(tszBuffer, static_cast<size_t>(nLen)) : "";
}

}  // namespace

void DemoSerial() {
    printf("Serial port on a pseudo-terminal\n");
    int hMaster = posix_openpt(O_RDWR | O_NOCTTY);
    char tszDevice[128] = {};
    bool bPty = hMaster >= 0 && grantpt(hMaster) == 0 && unlockpt(hMaster) == 0 &&
                ptsname_r(hMaster, tszDevice, sizeof(tszDevice)) == 0;
    Report("make a pseudo-terminal pair", bPty);
    if (!bPty) {
        if (hMaster >= 0) close(hMaster);
        return;
    }
    printf("  device %s\n", tszDevice);
    printf("  device can be opened: %s\n", NetCore_SerialPort_IsOpenDev(tszDevice) ? "yes" : "no");

    Report("open at 115200 8N1 for pull reads",
           NetCore_SerialPort_OpenDev(tszDevice, 115200, NETCORE_SERIALPORT_PARITY_NONE, 1, 8, nullptr, nullptr));
    char tszLine[] = "AT+INFO\n";
    bool bResult = NetCore_SerialPort_SendData(tszDevice, reinterpret_cast<unsigned char*>(tszLine),
                                               static_cast<int>(strlen(tszLine)));
    printf("  SendData answered %s with the error flag %s\n", bResult ? "true" : "false",
           NetCore_IsErrorOccur ? "up" : "down (the write went through)");
    std::string st_Far = ReadLine(hMaster);
    Report("the far end got the line", st_Far == tszLine);

    unsigned char tszBuffer[64] = {};
    int nLen = sizeof(tszBuffer);
    bResult = NetCore_SerialPort_RecvData(tszDevice, tszBuffer, &nLen);
    printf("  pull read with nothing sent: %s, code 0x%08llX (nothing within 100 ms)\n", bResult ? "true" : "false",
           NetCore_GetLastError(nullptr));
    Report("the far end answers", write(hMaster, "OK\n", 3) == 3);
    nLen = sizeof(tszBuffer) - 1;
    Report("pull read", NetCore_SerialPort_RecvData(tszDevice, tszBuffer, &nLen) && nLen == 3);
    Report("close", NetCore_SerialPort_CloseDev(tszDevice));

    Report("open again with a receive callback",
           NetCore_SerialPort_OpenDev(tszDevice, 9600, NETCORE_SERIALPORT_PARITY_NONE, 1, 8, OnData, nullptr));
    Report("the far end sends", write(hMaster, "RING\n", 5) == 5);
    auto st_Deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (g_nReceived.load() == 0 && std::chrono::steady_clock::now() < st_Deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    Report("the callback got it", g_nReceived.load() == 5 && strcmp(g_tszReceived, "RING\n") == 0);
    Report("close (stops the read thread)", NetCore_SerialPort_CloseDev(tszDevice));

    bResult = NetCore_SerialPort_RecvData("/dev/ttyNOPE", tszBuffer, &nLen);
    printf("  pull read of a device not open: %s, flag %d, code 0x%08llX\n", bResult ? "true" : "false",
           NetCore_IsErrorOccur, NetCore_GetLastError(nullptr));
    close(hMaster);
}
