// The serial port through the exported functions, on a pseudo-terminal standing in for a device:
// the test holds the master side and one descriptor of the device side.
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using nctest::CountThreads;
using nctest::ErrorFlag;
using nctest::WaitFor;

constexpr unsigned char kNone = NETCORE_SERIALPORT_PARITY_NONE;
constexpr unsigned char kOdd = NETCORE_SERIALPORT_PARITY_ODD;
constexpr unsigned char kEven = NETCORE_SERIALPORT_PARITY_EVEN;

unsigned long long Code() {
    return NetCore_GetLastError(nullptr);
}

// What a receive callback saw. With hold set, the callback waits until it is cleared and then
// answers through SendData; with closeOwn set, it closes its own device.
struct Received {
    std::mutex lock;
    std::condition_variable changed;
    std::string data, device;
    int hDevice = -1, calls = 0;
    void* lParam = nullptr;
    bool hold = false, closeOwn = false;
    unsigned long long sendCode = 0;

    std::string Data() {
        std::lock_guard<std::mutex> guard(lock);
        return data;
    }
};

void OnData(const char* lpszDevice, int hDevice, const char* lpszMsg, int nLen, void* lParam) {
    auto* received = static_cast<Received*>(lParam);
    std::unique_lock<std::mutex> guard(received->lock);
    received->calls++;
    received->device = lpszDevice;
    received->hDevice = hDevice;
    received->lParam = lParam;
    if (nLen > 0) received->data.append(lpszMsg, static_cast<size_t>(nLen));
    if (received->hold) {
        received->changed.wait(guard, [&] { return !received->hold; });
        unsigned char answer = '!';
        NetCore_SerialPort_SendData(lpszDevice, &answer, 1);
        received->sendCode = Code();
    }
    guard.unlock();
    if (received->closeOwn) NetCore_SerialPort_CloseDev(lpszDevice);
}

class SerialPortTest : public nctest::NetCoreTest {
protected:
    void SetUp() override {
        NetCoreTest::SetUp();
        master.Reset(posix_openpt(O_RDWR | O_NOCTTY));
        char name[128] = {};
        ASSERT_TRUE(master.Get() >= 0 && grantpt(master.Get()) == 0 && unlockpt(master.Get()) == 0 &&
                    ptsname_r(master.Get(), name, sizeof(name)) == 0)
            << strerror(errno);
        devPath = name;
        path = devPath.c_str();
        // keeps the line settings between openings and lets the test read them back
        device.Reset(open(name, O_RDWR | O_NOCTTY | O_NONBLOCK));
        ASSERT_GE(device.Get(), 0) << strerror(errno);
    }
    void TearDown() override {
        master.Reset();
        device.Reset();
        NetCoreTest::TearDown();
    }
    termios Attr() {
        termios attr{};
        EXPECT_EQ(0, tcgetattr(device.Get(), &attr));
        return attr;
    }
    void Type(const std::string& data) {
        ASSERT_EQ(static_cast<ssize_t>(data.size()), write(master.Get(), data.data(), data.size()));
    }
    std::string ReadMaster(size_t count) {
        std::string got;
        WaitFor([&] {
            char buffer[256];
            pollfd pfd{master.Get(), POLLIN, 0};
            ssize_t n = poll(&pfd, 1, 0) == 1 ? read(master.Get(), buffer, sizeof(buffer)) : 0;
            if (n > 0) got.append(buffer, static_cast<size_t>(n));
            return got.size() >= count;
        });
        return got;
    }
    nctest::Fd master, device;
    std::string devPath;
    const char* path = nullptr;
};

TEST_F(SerialPortTest, OpenAppliesTheLineSettings) {
    struct {
        unsigned int rate;
        speed_t speed;
        unsigned char parity;
        unsigned int stop, data;
        tcflag_t size;
    } rows[] = {
        {9600, B9600, kNone, 1, 8, CS8},     {38400, B38400, kOdd, 2, 7, CS7},
        {115200, B115200, kEven, 1, 6, CS6}, {230400, B230400, kNone, 2, 5, CS5},
        {50, B50, kEven, 2, 8, CS8},         {14400, B50, kOdd, 1, 7, CS7},  // a rate in no row keeps the line's speed
    };
    termios before = Attr();
    // output bits the opening must clear, one it must keep, and input bits it must leave alone
    before.c_oflag |= OPOST | ONLCR | OCRNL | OFILL | OFDEL;
    before.c_iflag |= ICRNL | IGNBRK;
    before.c_iflag &= ~INPCK;
    ASSERT_EQ(0, tcsetattr(device.Get(), TCSANOW, &before));
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rate);
        ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, row.rate, row.parity, row.stop, row.data, nullptr, nullptr));
        EXPECT_FALSE(ErrorFlag());
        termios attr = Attr();
        EXPECT_EQ(row.speed, cfgetispeed(&attr));
        EXPECT_EQ(row.speed, cfgetospeed(&attr));
        EXPECT_EQ(row.size, attr.c_cflag & CSIZE);
        EXPECT_EQ(row.parity != kNone, (attr.c_cflag & PARENB) != 0);
        EXPECT_EQ(row.parity != kNone, (attr.c_iflag & INPCK) != 0);
        EXPECT_TRUE(row.parity == kNone || (row.parity == kOdd) == ((attr.c_cflag & PARODD) != 0));
        EXPECT_EQ(row.stop == 2, (attr.c_cflag & CSTOPB) != 0);
        EXPECT_EQ(0, attr.c_cc[VMIN]);
        EXPECT_EQ(150, attr.c_cc[VTIME]);
        EXPECT_EQ(0u, attr.c_lflag & (ICANON | ECHO | ECHOE | ISIG));
        // 0x1C0 and 0x00C are cleared in the output flags; OPOST stays
        EXPECT_EQ(static_cast<tcflag_t>(OPOST), attr.c_oflag & (OPOST | 0x1CCu));
        EXPECT_EQ(before.c_iflag & ~INPCK, attr.c_iflag & ~INPCK);
        EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
    }
}

TEST_F(SerialPortTest, FailedOpeningsLeaveNothingOpen) {
    struct {
        const char* device;
        unsigned char parity;
        unsigned int stop, data;
        unsigned long long code;
    } rows[] = {
        // a path that does not open, or opens as no terminal, fails with the flag down
        {"/nonexistent/serial0", kNone, 1, 8, ERROR_NETCORE_SERIALPORT_SPEED_GETATTR},
        {nullptr, kNone, 1, 8, ERROR_NETCORE_SERIALPORT_SPEED_GETATTR},
        {"/dev/null", kNone, 1, 8, ERROR_NETCORE_SERIALPORT_SPEED_GETATTR},
        {path, 0x4E, 1, 8, ERROR_NETCORE_SERIALPORT_PARITY_PARITY},  // 'N'
        {path, 0xA0, 1, 8, ERROR_NETCORE_SERIALPORT_PARITY_PARITY},
        {path, 0xA4, 1, 8, ERROR_NETCORE_SERIALPORT_PARITY_PARITY},
        {path, kNone, 1, 9, ERROR_NETCORE_SERIALPORT_PARITY_DATABITS},
        {path, kNone, 1, 4, ERROR_NETCORE_SERIALPORT_PARITY_DATABITS},
        {path, kNone, 0, 8, ERROR_NETCORE_SERIALPORT_PARITY_STOPBITS},
        {path, kNone, 3, 8, ERROR_NETCORE_SERIALPORT_PARITY_STOPBITS},
        {path, 0x4E, 3, 9, ERROR_NETCORE_SERIALPORT_PARITY_DATABITS},  // data bits first, then parity
        {path, 0x4E, 3, 8, ERROR_NETCORE_SERIALPORT_PARITY_PARITY},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        nctest::ResetErrorState();
        EXPECT_FALSE(NetCore_SerialPort_OpenDev(row.device, 9600, row.parity, row.stop, row.data, nullptr, nullptr));
        EXPECT_EQ(row.code != ERROR_NETCORE_SERIALPORT_SPEED_GETATTR, ErrorFlag());
        EXPECT_EQ(row.code, Code());
    }
    // nothing was recorded: calls on a path that is not open
    unsigned char buffer[8] = {};
    int len = sizeof(buffer);
    EXPECT_TRUE(NetCore_SerialPort_RecvData(path, buffer, &len));
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND, Code());
    EXPECT_FALSE(NetCore_SerialPort_SendData(path, buffer, 1));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_SEND_NOTFOUND, Code());
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(nullptr));
    // IsOpenDev tells whether the path opens, not whether the library holds it
    EXPECT_TRUE(NetCore_SerialPort_IsOpenDev(path));
    EXPECT_FALSE(NetCore_SerialPort_IsOpenDev("/nonexistent/serial0"));
    EXPECT_FALSE(NetCore_SerialPort_IsOpenDev(nullptr));
    EXPECT_FALSE(ErrorFlag());
}

TEST_F(SerialPortTest, PullModeSendsAndReads) {
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 115200, kNone, 1, 8, nullptr, nullptr));
    EXPECT_TRUE(NetCore_SerialPort_IsOpenDev(path));
    std::string line = "AT+GMR\n";
    auto* bytes = reinterpret_cast<unsigned char*>(&line[0]);
    // a complete write answers false; the flag staying down and no new code tell success
    EXPECT_FALSE(NetCore_SerialPort_SendData(path, bytes, static_cast<int>(line.size())));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(0u, Code());
    EXPECT_EQ(line, ReadMaster(line.size()));  // the newline is not turned into CR LF
    EXPECT_FALSE(NetCore_SerialPort_SendData(path, bytes, -5));
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_SEND_FAILED, Code());

    unsigned char buffer[64] = {};
    int len = sizeof(buffer);
    EXPECT_FALSE(NetCore_SerialPort_RecvData(path, buffer, &len));
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_READ_TIMEOUT, Code());
    EXPECT_EQ(static_cast<int>(sizeof(buffer)), len);
    Type("abcdefghij");
    len = 4;
    ASSERT_TRUE(NetCore_SerialPort_RecvData(path, buffer, &len));
    EXPECT_FALSE(ErrorFlag());
    ASSERT_EQ(4, len);
    std::string got(reinterpret_cast<char*>(buffer), 4);
    EXPECT_TRUE(WaitFor([&] {
        len = sizeof(buffer);
        if (NetCore_SerialPort_RecvData(path, buffer, &len)) got.append(reinterpret_cast<char*>(buffer), len);
        return got.size() >= 10;
    }));
    EXPECT_EQ("abcdefghij", got);
    // with data waiting, a null buffer or a negative size is a read that fails: its -1 is the count
    Type("k");
    for (unsigned char* pBuffer : {static_cast<unsigned char*>(nullptr), buffer}) {
        ASSERT_TRUE(WaitFor([&] {
            len = pBuffer == nullptr ? 1 : -1;
            return NetCore_SerialPort_RecvData(path, pBuffer, &len);
        }));
        EXPECT_EQ(-1, len);
    }
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
    EXPECT_TRUE(NetCore_SerialPort_RecvData(path, buffer, &len));
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND, Code());
}

TEST_F(SerialPortTest, CallbackModeDeliversDataUntilClosed) {
    Received first, second;
    int threads = CountThreads(), fds = nctest::CountOpenFds();
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 57600, kNone, 1, 8, OnData, &first));
    EXPECT_EQ(threads + 1, CountThreads());
    // a second opening configures the line again but leaves no descriptor, record or thread
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 19200, kEven, 2, 7, OnData, &second));
    EXPECT_EQ(threads + 1, CountThreads());
    EXPECT_EQ(fds + 1, nctest::CountOpenFds());
    termios attr = Attr();
    EXPECT_EQ(B19200, cfgetospeed(&attr));
    EXPECT_EQ(static_cast<tcflag_t>(CS7), attr.c_cflag & CSIZE);

    Type("ping");
    ASSERT_TRUE(WaitFor([&] { return first.Data() == "ping"; })) << first.Data();
    {
        std::lock_guard<std::mutex> guard(first.lock);
        EXPECT_EQ(devPath, first.device);
        EXPECT_TRUE(isatty(first.hDevice));
        EXPECT_EQ(&first, first.lParam);
    }
    EXPECT_EQ(0, second.calls);
    unsigned char reply[] = {'o', 'k'};
    NetCore_SerialPort_SendData(path, reply, 2);
    EXPECT_EQ("ok", ReadMaster(2));
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
    EXPECT_EQ(fds, nctest::CountOpenFds());
    EXPECT_TRUE(WaitFor([&] { return CountThreads() == threads; }));
}

TEST_F(SerialPortTest, PullReadIsRefusedInCallbackModeAndCloseLetsTheCallbackSend) {
    Received held;
    held.hold = true;
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 9600, kNone, 1, 8, OnData, &held));
    Type("x");
    ASSERT_TRUE(WaitFor([&] { return held.Data() == "x"; }));
    // the read thread waits in the callback, so nothing else writes the error state now
    unsigned char buffer[16] = {'?'};
    int len = sizeof(buffer);
    EXPECT_TRUE(NetCore_SerialPort_RecvData(path, buffer, &len));
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_RECV_CALLMODE, Code());
    EXPECT_EQ(static_cast<int>(sizeof(buffer)), len);
    EXPECT_EQ('?', buffer[0]);

    // the device leaves the table before CloseDev waits for its thread, whose callback may send
    std::thread closer([&] { NetCore_SerialPort_CloseDev(path); });
    EXPECT_TRUE(WaitFor([&] {
        NetCore_SerialPort_RecvData(path, buffer, &len);
        return Code() == ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND;
    }));
    {
        std::lock_guard<std::mutex> guard(held.lock);
        held.hold = false;
    }
    held.changed.notify_all();
    closer.join();
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_SEND_NOTFOUND, held.sendCode);
}

TEST_F(SerialPortTest, CallbackClosingItsOwnDeviceEndsItsThread) {
    Received closing;
    closing.closeOwn = true;
    int threads = CountThreads();
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 9600, kNone, 1, 8, OnData, &closing));
    Type("bye");
    EXPECT_TRUE(WaitFor([&] { return !closing.Data().empty() && CountThreads() == threads; }));
    unsigned char buffer[4];
    int len = sizeof(buffer);
    EXPECT_TRUE(NetCore_SerialPort_RecvData(path, buffer, &len));
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND, Code());
    // the fixture checks that the descriptor is closed
}

}  // namespace
