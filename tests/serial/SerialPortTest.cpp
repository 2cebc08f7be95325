// The serial port through the exported functions, on a pseudo-terminal standing in for a device:
// the test holds the master side and one descriptor of the device side.
//
// The Linux pseudo-terminal driver forces CS8 and clears PARENB on every tcsetattr, so on a bare
// pty no opening with parity or fewer than 8 data bits could be read back. This executable
// therefore defines tcsetattr itself (the library's calls bind to the executable's definition
// first): the CSIZE and PARENB bits last asked for are kept here for the test to read, and the
// call goes on to the real line unchanged. A test drives one pseudo-terminal at a time, so one
// value serves.
#include <dlfcn.h>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <tuple>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

static std::atomic<tcflag_t> g_kept{CS8};

extern "C" __attribute__((visibility("default"))) int tcsetattr(int fd, int action, const termios* attr) noexcept {
    static auto real = reinterpret_cast<decltype(&tcsetattr)>(dlsym(RTLD_NEXT, "tcsetattr"));
    g_kept = attr->c_cflag & (CSIZE | PARENB);
    return real(fd, action, attr);
}

namespace {

using namespace nctest;

constexpr unsigned char kNone = NETCORE_SERIALPORT_PARITY_NONE, kOdd = NETCORE_SERIALPORT_PARITY_ODD,
                        kEven = NETCORE_SERIALPORT_PARITY_EVEN;

// A call's result and the error state it left.
void Expect(bool result, bool wanted, bool flag, unsigned long long code) {
    EXPECT_EQ(std::make_tuple(wanted, flag, code), std::make_tuple(result, ErrorFlag(), NetCore_GetLastError(nullptr)));
}

// What a receive callback saw: the data, then the device path and whether the descriptor is the
// device's; with closeOwn set, it closes its own device.
struct Received {
    std::mutex lock;
    std::string data, who;
    bool closeOwn = false;
    std::string Seen() {
        std::lock_guard<std::mutex> guard(lock);
        return data + who;
    }
};

void OnData(const char* device, int fd, const char* data, int len, void* param) {
    auto* received = static_cast<Received*>(param);
    std::lock_guard<std::mutex> guard(received->lock);
    received->who = device + std::string(isatty(fd) ? " ok" : " wrong");
    received->data.append(data, static_cast<size_t>(len));
    if (received->closeOwn) NetCore_SerialPort_CloseDev(device);
}

class SerialPortTest : public NetCoreTest {
protected:
    // both ends are open before the base fixture counts descriptors
    void SetUp() override {
        ASSERT_TRUE(master.Get() >= 0 && grantpt(master.Get()) == 0 && unlockpt(master.Get()) == 0 &&
                    ptsname_r(master.Get(), path, sizeof(path)) == 0);
        // keeps the line settings between openings and lets the test read them back
        device.Reset(open(path, O_RDWR | O_NOCTTY | O_NONBLOCK));
        ASSERT_GE(device.Get(), 0);
        NetCoreTest::SetUp();
    }
    std::string ReadMaster(size_t count) {
        std::string got;
        char buffer[256];
        WaitFor([&] {
            ssize_t n = read(master.Get(), buffer, sizeof(buffer));
            return got.append(buffer, n > 0 ? static_cast<size_t>(n) : 0).size() >= count;
        });
        return got;
    }
    Fd master{open("/dev/ptmx", O_RDWR | O_NOCTTY | O_NONBLOCK)}, device;
    char path[128] = {};
    termios attr{};
    unsigned char buffer[64] = {'o', 'k'};
    int len = sizeof(buffer);
};

TEST_F(SerialPortTest, OpeningsConfigureTheLineOrFailWithTheirCode) {
    // rate, speed, parity, stop and data bits; the last rate is in no row of the library's table and
    // keeps the line's speed
    std::tuple<unsigned, speed_t, unsigned char, unsigned, unsigned> rows[] = {
        {9600, B9600, kNone, 1, 8},     {38400, B38400, kOdd, 2, 7}, {115200, B115200, kEven, 1, 6},
        {230400, B230400, kNone, 2, 5}, {50, B50, kEven, 2, 8},      {14400, B50, kOdd, 1, 7}};
    const tcflag_t sizes[] = {CS5, CS6, CS7, CS8};
    ASSERT_EQ(0, tcgetattr(device.Get(), &attr));
    // output bits the opening must clear, one it must keep, and input bits it must leave alone
    attr.c_oflag |= OPOST | ONLCR | OCRNL | OFILL | OFDEL;
    const tcflag_t iflag = attr.c_iflag = (attr.c_iflag | ICRNL | IGNBRK) & ~INPCK;
    ASSERT_EQ(0, tcsetattr(device.Get(), TCSANOW, &attr));
    for (auto [rate, speed, parity, stop, data] : rows) {
        SCOPED_TRACE(rate);
        bool opened = NetCore_SerialPort_OpenDev(path, rate, parity, stop, data, nullptr, nullptr);
        ASSERT_EQ(0, tcgetattr(device.Get(), &attr));
        tcflag_t bits = parity == kNone ? 0 : parity == kOdd ? PARENB | PARODD : PARENB;
        // 0x1C0 and 0x00C are cleared in the output flags and OPOST stays; the input flags stay
        // but for INPCK, which goes with parity
        EXPECT_EQ(std::make_tuple(true, false, speed, speed, sizes[data - 5] | bits, stop == 2 ? CSTOPB : 0u, 0, 150,
                                  0u, static_cast<tcflag_t>(OPOST), iflag | (bits != 0 ? INPCK : 0u)),
                  std::make_tuple(opened, ErrorFlag(), cfgetispeed(&attr), cfgetospeed(&attr),
                                  g_kept | (attr.c_cflag & PARODD), attr.c_cflag & CSTOPB, int(attr.c_cc[VMIN]),
                                  int(attr.c_cc[VTIME]), attr.c_lflag & (ICANON | ECHO | ECHOE | ISIG),
                                  attr.c_oflag & (OPOST | 0x1CCu), attr.c_iflag));
        EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
    }

    // a path that does not open, or opens as no terminal, fails with the flag down
    for (const char* device : {"/nonexistent/serial0", "/dev/null", static_cast<const char*>(nullptr)}) {
        ResetErrorState();
        Expect(NetCore_SerialPort_OpenDev(device, 9600, kNone, 1, 8, nullptr, nullptr), false, false,
               ERROR_NETCORE_SERIALPORT_SPEED_GETATTR);
    }
    // data bits are checked first, then parity ('N' is none of the values), then stop bits
    const unsigned long long kParity = ERROR_NETCORE_SERIALPORT_PARITY_PARITY,
                             kData = ERROR_NETCORE_SERIALPORT_PARITY_DATABITS,
                             kStop = ERROR_NETCORE_SERIALPORT_PARITY_STOPBITS;
    std::tuple<unsigned char, unsigned, unsigned, unsigned long long> fails[] = {
        {0x4E, 1, 8, kParity}, {0xA0, 1, 8, kParity}, {0xA4, 1, 8, kParity}, {kNone, 1, 9, kData}, {kNone, 1, 4, kData},
        {kNone, 0, 8, kStop},  {kNone, 3, 8, kStop},  {0x4E, 3, 9, kData},   {0x4E, 3, 8, kParity}};
    for (const auto& row : fails) {
        SCOPED_TRACE(&row - fails);
        auto [parity, stop, data, code] = row;
        ResetErrorState();
        Expect(NetCore_SerialPort_OpenDev(path, 9600, parity, stop, data, nullptr, nullptr), false, true, code);
    }
    // nothing was recorded: calls on a path that is not open
    Expect(NetCore_SerialPort_RecvData(path, buffer, &len), true, true, ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND);
    Expect(NetCore_SerialPort_SendData(path, buffer, 1), false, false, ERROR_NETCORE_SERIALPORT_SEND_NOTFOUND);
    // IsOpenDev tells whether the path opens, not whether the library holds it
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path) && NetCore_SerialPort_CloseDev(nullptr) &&
                NetCore_SerialPort_IsOpenDev(path));
    EXPECT_FALSE(NetCore_SerialPort_IsOpenDev("/nonexistent/serial0") || NetCore_SerialPort_IsOpenDev(nullptr) ||
                 ErrorFlag());
}

TEST_F(SerialPortTest, PullModeSendsAndReads) {
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 115200, kNone, 1, 8, nullptr, nullptr));
    unsigned char line[] = "AT+GMR\n";
    // a complete write answers false; the flag staying down and no new code tell success
    Expect(NetCore_SerialPort_SendData(path, line, 7), false, false, 0);
    EXPECT_EQ("AT+GMR\n", ReadMaster(7));  // the newline is not turned into CR LF
    Expect(NetCore_SerialPort_SendData(path, line, -5), false, true, ERROR_NETCORE_SERIALPORT_SEND_FAILED);
    Expect(NetCore_SerialPort_RecvData(path, buffer, &len), false, true, ERROR_NETCORE_SERIALPORT_READ_TIMEOUT);
    EXPECT_EQ(64, len);
    ASSERT_EQ(10, write(master.Get(), "abcdefghij", 10));
    // each read takes at most the size asked for, and a success leaves the last code
    std::string got;
    EXPECT_TRUE(WaitFor([&] {
        bool read = NetCore_SerialPort_RecvData(path, buffer, &(len = 4)) && !ErrorFlag() && unsigned(len) <= 4u &&
                    NetCore_GetLastError(nullptr) == ERROR_NETCORE_SERIALPORT_READ_TIMEOUT;
        return got.append(reinterpret_cast<char*>(buffer), read ? len : 0).size() >= 10;
    }));
    EXPECT_EQ("abcdefghij", got);
    // with data waiting, a null buffer or a negative size is a read that fails: its -1 is the count
    ASSERT_EQ(1, write(master.Get(), "k", 1));
    for (int size : {1, -1}) {
        EXPECT_TRUE(
            WaitFor([&] { return NetCore_SerialPort_RecvData(path, size > 0 ? nullptr : buffer, &(len = size)); }));
        EXPECT_EQ(-1, len);
    }
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
    Expect(NetCore_SerialPort_RecvData(path, buffer, &len), true, true, ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND);
}

TEST_F(SerialPortTest, CallbackModeDeliversDataUntilClosed) {
    Received first, second;
    int threads = CountThreads(), fds = CountOpenFds();
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 57600, kNone, 1, 8, OnData, &first));
    // a second opening configures the line again but leaves no descriptor, record or thread
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 19200, kEven, 2, 7, OnData, &second));
    ASSERT_EQ(0, tcgetattr(device.Get(), &attr));
    EXPECT_EQ(std::make_tuple(threads + 1, fds + 1, B19200, static_cast<tcflag_t>(CS7 | PARENB)),
              std::make_tuple(CountThreads(), CountOpenFds(), cfgetospeed(&attr), g_kept.load()));

    ASSERT_EQ(4, write(master.Get(), "ping", 4));
    EXPECT_TRUE(WaitFor([&] { return first.Seen() == "ping" + std::string(path) + " ok" && second.Seen().empty(); }))
        << first.Seen();
    NetCore_SerialPort_SendData(path, buffer, 2);
    EXPECT_EQ("ok", ReadMaster(2));
    // a pull read is refused (the read thread writes the error state too, hence the retries)
    EXPECT_TRUE(WaitFor([&] {
        return NetCore_SerialPort_RecvData(path, buffer, &len) && len == 64 &&
               NetCore_GetLastError(nullptr) == ERROR_NETCORE_SERIALPORT_RECV_CALLMODE;
    }));
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
    EXPECT_TRUE(WaitFor([&] { return CountOpenFds() == fds && CountThreads() == threads; }));

    // a callback may close its own device: its thread then ends on its own
    first.closeOwn = true;
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 9600, kNone, 1, 8, OnData, &first));
    ASSERT_EQ(3, write(master.Get(), "bye", 3));
    EXPECT_TRUE(WaitFor([&] { return first.Seen().find("bye") != std::string::npos && CountThreads() == threads; }));
    Expect(NetCore_SerialPort_RecvData(path, buffer, &len), true, true, ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND);
}

}  // namespace
