// The serial port through the exported functions, on a pseudo-terminal standing in for a device:
// the test holds the master side and one descriptor of the device side.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <tuple>

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

// A call's result and the error state it left.
void Expect(bool result, bool wanted, bool flag, unsigned long long code) {
    EXPECT_EQ(wanted, result);
    EXPECT_EQ(flag, ErrorFlag());
    EXPECT_EQ(code, Code());
}

// What a receive callback saw; with closeOwn set, it closes its own device.
struct Received {
    std::mutex lock;
    std::string data, who;  // who: the device path, and whether the descriptor and argument fit
    bool closeOwn = false;

    std::string Data() {
        std::lock_guard<std::mutex> guard(lock);
        return data;
    }
};

void OnData(const char* lpszDevice, int hDevice, const char* lpszMsg, int nLen, void* lParam) {
    auto* received = static_cast<Received*>(lParam);
    {
        std::lock_guard<std::mutex> guard(received->lock);
        received->who = lpszDevice + std::string(isatty(hDevice) && lParam == received ? " ok" : " wrong");
        received->data.append(lpszMsg, static_cast<size_t>(nLen));
    }
    if (received->closeOwn) NetCore_SerialPort_CloseDev(lpszDevice);
}

class SerialPortTest : public nctest::NetCoreTest {
protected:
    void SetUp() override {
        NetCoreTest::SetUp();
        master.Reset(open("/dev/ptmx", O_RDWR | O_NOCTTY | O_NONBLOCK));
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
        char buffer[256];
        WaitFor([&] {
            ssize_t n = read(master.Get(), buffer, sizeof(buffer));
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
        tcflag_t parity = row.parity == kNone ? 0 : row.parity == kOdd ? PARENB | PARODD : PARENB;
        // 0x1C0 and 0x00C are cleared in the output flags and OPOST stays; the input flags stay
        // but for INPCK, which goes with parity
        EXPECT_EQ(
            std::make_tuple(row.speed, row.speed, row.size | parity | (row.stop == 2 ? CSTOPB : 0u), 0, 150, 0u,
                            static_cast<tcflag_t>(OPOST), before.c_iflag | (parity != 0 ? INPCK : 0u)),
            std::make_tuple(cfgetispeed(&attr), cfgetospeed(&attr),
                            attr.c_cflag & (CSIZE | PARENB | (parity != 0 ? PARODD : 0u) | CSTOPB),
                            int(attr.c_cc[VMIN]), int(attr.c_cc[VTIME]), attr.c_lflag & (ICANON | ECHO | ECHOE | ISIG),
                            attr.c_oflag & (OPOST | 0x1CCu), attr.c_iflag));
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
        Expect(NetCore_SerialPort_OpenDev(row.device, 9600, row.parity, row.stop, row.data, nullptr, nullptr), false,
               row.code != ERROR_NETCORE_SERIALPORT_SPEED_GETATTR, row.code);
    }
    // nothing was recorded: calls on a path that is not open
    unsigned char buffer[8] = {};
    int len = sizeof(buffer);
    Expect(NetCore_SerialPort_RecvData(path, buffer, &len), true, true, ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND);
    Expect(NetCore_SerialPort_SendData(path, buffer, 1), false, false, ERROR_NETCORE_SERIALPORT_SEND_NOTFOUND);
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
    Expect(NetCore_SerialPort_SendData(path, bytes, static_cast<int>(line.size())), false, false, 0);
    EXPECT_EQ(line, ReadMaster(line.size()));  // the newline is not turned into CR LF
    Expect(NetCore_SerialPort_SendData(path, bytes, -5), false, true, ERROR_NETCORE_SERIALPORT_SEND_FAILED);

    unsigned char buffer[64] = {};
    int len = sizeof(buffer);
    Expect(NetCore_SerialPort_RecvData(path, buffer, &len), false, true, ERROR_NETCORE_SERIALPORT_READ_TIMEOUT);
    EXPECT_EQ(static_cast<int>(sizeof(buffer)), len);
    Type("abcdefghij");
    len = 4;
    Expect(NetCore_SerialPort_RecvData(path, buffer, &len), true, false, ERROR_NETCORE_SERIALPORT_READ_TIMEOUT);
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
    Expect(NetCore_SerialPort_RecvData(path, buffer, &len), true, true, ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND);
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
        EXPECT_EQ(devPath + " ok", first.who);
    }
    EXPECT_EQ("", second.Data());
    unsigned char buffer[16] = {'o', 'k'};
    NetCore_SerialPort_SendData(path, buffer, 2);
    EXPECT_EQ("ok", ReadMaster(2));
    // a pull read is refused (the read thread writes the error state too, hence the retries)
    int len = sizeof(buffer);
    EXPECT_TRUE(WaitFor([&] {
        return NetCore_SerialPort_RecvData(path, buffer, &len) && Code() == ERROR_NETCORE_SERIALPORT_RECV_CALLMODE;
    }));
    EXPECT_EQ(static_cast<int>(sizeof(buffer)), len);
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
    EXPECT_EQ(fds, nctest::CountOpenFds());
    EXPECT_TRUE(WaitFor([&] { return CountThreads() == threads; }));

    // a callback may close its own device: its thread then ends on its own
    Received closing;
    closing.closeOwn = true;
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 9600, kNone, 1, 8, OnData, &closing));
    Type("bye");
    EXPECT_TRUE(WaitFor([&] { return !closing.Data().empty() && CountThreads() == threads; }));
    Expect(NetCore_SerialPort_RecvData(path, buffer, &len), true, true, ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND);
}

}  // namespace
