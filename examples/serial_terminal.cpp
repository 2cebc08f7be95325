// A small serial terminal: prints what the device sends and writes each line typed on stdin.
//
// Usage: serial_terminal <device> [rate]
// Without a serial device at hand, a linked pair of pseudo-terminals does:
//   socat -d -d pty,raw,echo=0 pty,raw,echo=0     (prints the two /dev/pts paths)
// then run serial_terminal on one path and, for example, `picocom` or a second
// serial_terminal on the other.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Ombrelt_NetCore.h"

namespace {

// Runs on the device's read thread.
void OnData(const char* /*lpszDevice*/, int /*hDevice*/, const char* lpszMsg, int nLen, void* /*lParam*/) {
    if (nLen <= 0) return;  // -1: the line failed (a device that went away)
    fwrite(lpszMsg, 1, static_cast<size_t>(nLen), stdout);
    fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s <device> [rate]\n", argv[0]);
        return 2;
    }
    const char* lpszDevice = argv[1];
    unsigned int nRate = argc > 2 ? static_cast<unsigned int>(strtoul(argv[2], nullptr, 10)) : 115200;

    // 8 data bits, no parity, 1 stop bit; the callback puts the device in read-thread mode
    if (!NetCore_SerialPort_OpenDev(lpszDevice, nRate, NETCORE_SERIALPORT_PARITY_NONE, 1, 8, OnData, nullptr)) {
        int nSysError = 0;
        unsigned long long nCode = NetCore_GetLastError(&nSysError);
        fprintf(stderr, "cannot open %s: code 0x%08llX, errno %d (%s)\n", lpszDevice, nCode, nSysError,
                strerror(nSysError));
        return 1;
    }
    fprintf(stderr, "%s open at %u 8N1; type lines to send, end with Ctrl-D\n", lpszDevice, nRate);

    char tszLine[1024];
    while (fgets(tszLine, sizeof(tszLine), stdin) != nullptr) {
        // SendData answers false even when the write went through: the error flag tells
        NetCore_SerialPort_SendData(lpszDevice, reinterpret_cast<unsigned char*>(tszLine),
                                    static_cast<int>(strlen(tszLine)));
        if (NetCore_IsErrorOccur) fprintf(stderr, "send failed: code 0x%08llX\n", NetCore_GetLastError(nullptr));
    }
    NetCore_SerialPort_CloseDev(lpszDevice);
    return 0;
}
