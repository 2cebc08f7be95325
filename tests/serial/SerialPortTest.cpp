// The serial port through the exported functions, on pseudo-terminals standing in for devices.
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Ombrelt_NetCore.h"
#include "PtyPair.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
using nctest::CountOpenFds;
using nctest::CountThreads;
using nctest::ErrorFlag;
using nctest::WaitFor;
using serialtest::PtyPair;
using serialtest::ReadFor;
using serialtest::WriteAll;

constexpr unsigned char kNone = NETCORE_SERIALPORT_PARITY_NONE;
constexpr unsigned char kOdd = NETCORE_SERIALPORT_PARITY_ODD;
constexpr unsigned char kEven = NETCORE_SERIALPORT_PARITY_EVEN;

// A joined thread is gone from /proc at once on a native kernel; under qemu-user its task can
// linger for a moment after the join returned.
bool ThreadsBackTo(int threads) {
    return WaitFor([&] { return CountThreads() == threads; });
}

unsigned long long Code() {
    return NetCore_GetLastError(nullptr);
}

// What a receive callback saw, for the test thread to wait on.
struct Received {
    std::mutex lock;
    std::string data;
    std::string device;
    int hDevice = -1;
    void* lParam = nullptr;
    int calls = 0;

    std::string Data() {
        std::lock_guard<std::mutex> guard(lock);
        return data;
    }
};

void Collect(const char* lpszDevice, int hDevice, const char* lpszMsg, int nLen, void* lParam) {
    auto* received = static_cast<Received*>(lParam);
    std::lock_guard<std::mutex> guard(received->lock);
    received->calls++;
    received->device = lpszDevice;
    received->hDevice = hDevice;
    received->lParam = lParam;
    if (nLen > 0) received->data.append(lpszMsg, static_cast<size_t>(nLen));
}

// A callback that stays inside its first call until the test lets it go.
struct Gate {
    std::mutex lock;
    std::condition_variable changed;
    bool entered = false;
    bool released = false;
    // filled by the callback after it was released
    std::function<void(const char*)> after;

    void Enter(const char* lpszDevice) {
        std::unique_lock<std::mutex> guard(lock);
        if (entered) return;
        entered = true;
        changed.notify_all();
        changed.wait(guard, [&] { return released; });
        guard.unlock();
        if (after) after(lpszDevice);
    }
    bool Entered() {
        std::lock_guard<std::mutex> guard(lock);
        return entered;
    }
    void Release() {
        std::lock_guard<std::mutex> guard(lock);
        released = true;
        changed.notify_all();
    }
};

void HoldInCallback(const char* lpszDevice, int, const char*, int nLen, void* lParam) {
    if (nLen > 0) static_cast<Gate*>(lParam)->Enter(lpszDevice);
}

class SerialPortTest : public nctest::NetCoreTest {
protected:
    void SetUp() override {
        NetCoreTest::SetUp();
        pty = std::make_unique<PtyPair>();
        ASSERT_FALSE(pty->Path().empty());
        path = pty->Path().c_str();
    }
    void TearDown() override {
        pty.reset();
        NetCoreTest::TearDown();
    }

    termios Attr() {
        termios attr{};
        EXPECT_EQ(0, tcgetattr(pty->Device(), &attr));
        return attr;
    }

    std::unique_ptr<PtyPair> pty;
    const char* path = nullptr;
};

// ----- OpenDev: line settings ---------------------------------------------------------------------

TEST_F(SerialPortTest, OpenAppliesTheLineSettings) {
    struct Case {
        unsigned int rate;
        speed_t speed;
        unsigned char parity;
        unsigned int stop;
        unsigned int data;
        tcflag_t size;
    } cases[] = {
        {9600, B9600, kNone, 1, 8, CS8},     {38400, B38400, kOdd, 2, 7, CS7}, {115200, B115200, kEven, 1, 6, CS6},
        {230400, B230400, kNone, 2, 5, CS5}, {50, B50, kEven, 2, 8, CS8},
    };
    termios before = Attr();
    // output bits the open must clear, one it must keep, and input bits it must leave alone
    before.c_oflag |= OPOST | ONLCR | OCRNL | OFILL | OFDEL;
    before.c_iflag |= ICRNL | IGNBRK;
    before.c_iflag &= ~INPCK;
    ASSERT_EQ(0, tcsetattr(pty->Device(), TCSANOW, &before));

    for (const Case& c : cases) {
        SCOPED_TRACE(c.rate);
        ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, c.rate, c.parity, c.stop, c.data, nullptr, nullptr));
        EXPECT_FALSE(ErrorFlag());
        termios attr = Attr();
        EXPECT_EQ(c.speed, cfgetispeed(&attr));
        EXPECT_EQ(c.speed, cfgetospeed(&attr));
        EXPECT_EQ(c.size, attr.c_cflag & CSIZE);
        EXPECT_EQ(c.parity != kNone, (attr.c_cflag & PARENB) != 0);
        if (c.parity != kNone) {
            EXPECT_EQ(c.parity == kOdd, (attr.c_cflag & PARODD) != 0);
        }
        EXPECT_EQ(c.parity != kNone, (attr.c_iflag & INPCK) != 0);
        EXPECT_EQ(c.stop == 2, (attr.c_cflag & CSTOPB) != 0);
        EXPECT_EQ(0, attr.c_cc[VMIN]);
        EXPECT_EQ(150, attr.c_cc[VTIME]);
        EXPECT_EQ(0u, attr.c_lflag & (ICANON | ECHO | ECHOE | ISIG));
        // 0x1C0 and 0x00C are cleared in the output flags; OPOST stays
        EXPECT_EQ(0u, attr.c_oflag & 0x1CCu);
        EXPECT_TRUE(attr.c_oflag & OPOST);
        EXPECT_EQ(before.c_iflag & ~INPCK, attr.c_iflag & ~INPCK);
        EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
    }
}

TEST_F(SerialPortTest, UnknownRateKeepsTheLineSpeed) {
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 4800, kNone, 1, 8, nullptr, nullptr));
    ASSERT_TRUE(NetCore_SerialPort_CloseDev(path));
    for (unsigned int rate : {14400u, 921600u, 1u}) {
        ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, rate, kEven, 2, 7, nullptr, nullptr)) << rate;
        EXPECT_FALSE(ErrorFlag());
        termios attr = Attr();
        EXPECT_EQ(B4800, cfgetospeed(&attr)) << rate;
        // the rest of the settings still apply
        EXPECT_EQ(CS7, attr.c_cflag & CSIZE);
        EXPECT_TRUE(attr.c_cflag & CSTOPB);
        ASSERT_TRUE(NetCore_SerialPort_CloseDev(path));
    }
}

TEST_F(SerialPortTest, PathThatCannotBeOpenedFailsWithTheFlagDown) {
    for (const char* lpszPath : {"/nonexistent/serial0", static_cast<const char*>(nullptr)}) {
        nctest::ResetErrorState();
        ASSERT_FALSE(NetCore_SerialPort_OpenDev(lpszPath, 9600, kNone, 1, 8, nullptr, nullptr));
        EXPECT_FALSE(ErrorFlag());
        EXPECT_EQ(ERROR_NETCORE_SERIALPORT_SPEED_GETATTR, Code());
    }

    // a file that is not a terminal opens, is refused the same way, and is closed again
    // (the fixture checks that no descriptor is left)
    nctest::ResetErrorState();
    ASSERT_FALSE(NetCore_SerialPort_OpenDev("/dev/null", 9600, kNone, 1, 8, nullptr, nullptr));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_SPEED_GETATTR, Code());
}

TEST_F(SerialPortTest, BadLineSettingsAreRefused) {
    struct Case {
        unsigned char parity;
        unsigned int stop;
        unsigned int data;
        unsigned long long code;
    } cases[] = {
        {0x4E, 1, 8, ERROR_NETCORE_SERIALPORT_PARITY_PARITY},  // 'N'
        {0xA0, 1, 8, ERROR_NETCORE_SERIALPORT_PARITY_PARITY},
        {0xA4, 1, 8, ERROR_NETCORE_SERIALPORT_PARITY_PARITY},
        {kNone, 1, 9, ERROR_NETCORE_SERIALPORT_PARITY_DATABITS},
        {kNone, 1, 4, ERROR_NETCORE_SERIALPORT_PARITY_DATABITS},
        {kNone, 0, 8, ERROR_NETCORE_SERIALPORT_PARITY_STOPBITS},
        {kNone, 3, 8, ERROR_NETCORE_SERIALPORT_PARITY_STOPBITS},
        {0x4E, 3, 9, ERROR_NETCORE_SERIALPORT_PARITY_DATABITS},  // data bits are checked first
        {0x4E, 3, 8, ERROR_NETCORE_SERIALPORT_PARITY_PARITY},    // then parity
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << int(c.parity) << " " << c.stop << " " << c.data);
        EXPECT_FALSE(NetCore_SerialPort_OpenDev(path, 9600, c.parity, c.stop, c.data, nullptr, nullptr));
        EXPECT_TRUE(ErrorFlag());
        EXPECT_EQ(c.code, Code());
        // nothing was recorded
        unsigned char buffer[8];
        int len = sizeof(buffer);
        EXPECT_TRUE(NetCore_SerialPort_RecvData(path, buffer, &len));
        EXPECT_EQ(ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND, Code());
    }
}

// ----- SendData and pull reads ----------------------------------------------------------------------

TEST_F(SerialPortTest, SendDataWritesAndAnswersFalse) {
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 115200, kNone, 1, 8, nullptr, nullptr));
    std::string line = "AT+GMR\n";
    // a complete write answers false; the flag staying down and no new code tell success
    EXPECT_FALSE(NetCore_SerialPort_SendData(path, reinterpret_cast<unsigned char*>(&line[0]), int(line.size())));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(0u, Code());
    // the newline is not turned into CR LF on the way out
    EXPECT_EQ(line, ReadFor(pty->Master(), line.size()));

    EXPECT_FALSE(NetCore_SerialPort_SendData("/dev/ttyNOPE", reinterpret_cast<unsigned char*>(&line[0]), 1));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_SEND_NOTFOUND, Code());

    // a negative length is a write that fails
    EXPECT_FALSE(NetCore_SerialPort_SendData(path, reinterpret_cast<unsigned char*>(&line[0]), -5));
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_SEND_FAILED, Code());
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
}

TEST_F(SerialPortTest, PullReadsWithAndWithoutData) {
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 9600, kNone, 1, 8, nullptr, nullptr));
    unsigned char buffer[64] = {};
    int len = sizeof(buffer);
    EXPECT_FALSE(NetCore_SerialPort_RecvData(path, buffer, &len));
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_READ_TIMEOUT, Code());
    EXPECT_EQ(int(sizeof(buffer)), len);

    WriteAll(pty->Master(), "abcdefghij");
    len = 4;
    ASSERT_TRUE(NetCore_SerialPort_RecvData(path, buffer, &len));
    EXPECT_FALSE(ErrorFlag());
    ASSERT_EQ(4, len);
    EXPECT_EQ("abcd", std::string(reinterpret_cast<char*>(buffer), 4));
    std::string rest;
    EXPECT_TRUE(WaitFor([&] {
        int n = sizeof(buffer);
        if (NetCore_SerialPort_RecvData(path, buffer, &n) && n > 0) rest.append(reinterpret_cast<char*>(buffer), n);
        return rest.size() >= 6;
    }));
    EXPECT_EQ("efghij", rest);

    // with data waiting, a null buffer or a negative size is a read that fails: its -1 is the count
    WriteAll(pty->Master(), "k");
    for (unsigned char* pBuffer : {static_cast<unsigned char*>(nullptr), buffer}) {
        ASSERT_TRUE(WaitFor([&] {
            len = pBuffer == nullptr ? int(sizeof(buffer)) : -1;
            return NetCore_SerialPort_RecvData(path, pBuffer, &len);
        }));
        EXPECT_FALSE(ErrorFlag());
        EXPECT_EQ(-1, len);
    }

    len = sizeof(buffer);
    EXPECT_TRUE(NetCore_SerialPort_RecvData("/dev/ttyNOPE", buffer, &len));
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND, Code());
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));

    // closed: the path is unknown again
    EXPECT_TRUE(NetCore_SerialPort_RecvData(path, buffer, &len));
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND, Code());
}

// ----- callback mode ---------------------------------------------------------------------------------

TEST_F(SerialPortTest, CallbackModeDeliversDataUntilClosed) {
    Received received;
    int threads = CountThreads();
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 57600, kNone, 1, 8, Collect, &received));
    EXPECT_EQ(threads + 1, CountThreads());

    WriteAll(pty->Master(), "ping");
    ASSERT_TRUE(WaitFor([&] { return received.Data() == "ping"; })) << received.Data();
    WriteAll(pty->Master(), " pong");
    ASSERT_TRUE(WaitFor([&] { return received.Data() == "ping pong"; })) << received.Data();
    {
        std::lock_guard<std::mutex> guard(received.lock);
        EXPECT_EQ(pty->Path(), received.device);
        EXPECT_TRUE(isatty(received.hDevice));
        EXPECT_EQ(&received, received.lParam);
    }

    // the device stays writable in callback mode
    unsigned char reply[] = {'o', 'k'};
    NetCore_SerialPort_SendData(path, reply, 2);
    EXPECT_EQ("ok", ReadFor(pty->Master(), 2));

    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
    // CloseDev joined the read thread before returning
    EXPECT_TRUE(ThreadsBackTo(threads));
}

TEST_F(SerialPortTest, PullReadIsRefusedInCallbackMode) {
    Gate gate;
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 9600, kNone, 1, 8, HoldInCallback, &gate));
    WriteAll(pty->Master(), "x");
    ASSERT_TRUE(WaitFor([&] { return gate.Entered(); }));

    // the read thread sits in the callback, so nothing else writes the error state now
    unsigned char buffer[16] = {'?'};
    int len = sizeof(buffer);
    EXPECT_TRUE(NetCore_SerialPort_RecvData(path, buffer, &len));
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_RECV_CALLMODE, Code());
    EXPECT_EQ(int(sizeof(buffer)), len);
    EXPECT_EQ('?', buffer[0]);

    gate.Release();
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
}

TEST_F(SerialPortTest, CallbackMaySendWhileItsDeviceCloses) {
    // The callback answers through SendData while another thread closes the device: the close
    // must not hold the table while it waits for the read thread.
    Gate gate;
    bool sent_flag = true;
    unsigned long long sent_code = 0;
    gate.after = [&](const char* lpszDevice) {
        unsigned char answer = '!';
        NetCore_SerialPort_SendData(lpszDevice, &answer, 1);
        sent_flag = ErrorFlag();
        sent_code = Code();
    };
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 9600, kNone, 1, 8, HoldInCallback, &gate));
    WriteAll(pty->Master(), "x");
    ASSERT_TRUE(WaitFor([&] { return gate.Entered(); }));

    std::thread closer([&] { NetCore_SerialPort_CloseDev(path); });
    // the device leaves the table before its thread is stopped
    EXPECT_TRUE(WaitFor([&] {
        unsigned char buffer[4];
        int len = sizeof(buffer);
        NetCore_SerialPort_RecvData(path, buffer, &len);
        return Code() == ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND;
    }));
    gate.Release();
    closer.join();
    EXPECT_FALSE(sent_flag);
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_SEND_NOTFOUND, sent_code);
}

TEST_F(SerialPortTest, CallbackClosingItsOwnDeviceEndsItsThread) {
    struct Closer {
        static void OnData(const char* lpszDevice, int, const char*, int nLen, void* lParam) {
            if (nLen <= 0) return;
            NetCore_SerialPort_CloseDev(lpszDevice);
            static_cast<std::atomic<int>*>(lParam)->fetch_add(1);
        }
    };
    std::atomic<int> closed{0};
    int threads = CountThreads();
    int fds = CountOpenFds();
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 9600, kNone, 1, 8, Closer::OnData, &closed));
    WriteAll(pty->Master(), "bye");
    ASSERT_TRUE(WaitFor([&] { return closed.load() == 1; }));
    EXPECT_TRUE(WaitFor([&] { return CountThreads() == threads; }));
    EXPECT_EQ(fds, CountOpenFds());
    unsigned char buffer[4];
    int len = sizeof(buffer);
    EXPECT_TRUE(NetCore_SerialPort_RecvData(path, buffer, &len));
    EXPECT_EQ(ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND, Code());
}

// ----- repeated opening, IsOpenDev, CloseDev ------------------------------------------------------

TEST_F(SerialPortTest, RepeatedOpenReconfiguresAndKeepsTheFirstOpening) {
    Received received;
    int threads = CountThreads();
    int fds = CountOpenFds();
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 9600, kNone, 1, 8, Collect, &received));
    EXPECT_EQ(fds + 1, CountOpenFds());
    EXPECT_EQ(threads + 1, CountThreads());

    // the second opening configures the line but leaves no descriptor, record or thread
    Received second;
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 19200, kEven, 2, 7, Collect, &second));
    EXPECT_EQ(fds + 1, CountOpenFds());
    EXPECT_EQ(threads + 1, CountThreads());
    termios attr = Attr();
    EXPECT_EQ(B19200, cfgetospeed(&attr));
    EXPECT_EQ(CS7, attr.c_cflag & CSIZE);
    EXPECT_TRUE(attr.c_cflag & PARENB);

    // the first opening, with its callback, is the one in use
    WriteAll(pty->Master(), "still here");
    EXPECT_TRUE(WaitFor([&] { return received.Data() == "still here"; })) << received.Data();
    EXPECT_EQ(0, second.calls);

    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
    EXPECT_EQ(fds, CountOpenFds());
    EXPECT_TRUE(ThreadsBackTo(threads));
}

TEST_F(SerialPortTest, IsOpenDevTellsWhetherThePathOpens) {
    EXPECT_TRUE(NetCore_SerialPort_IsOpenDev(path));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_FALSE(NetCore_SerialPort_IsOpenDev("/nonexistent/serial0"));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_FALSE(NetCore_SerialPort_IsOpenDev(nullptr));
    // it does not tell whether the library holds the device
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 9600, kNone, 1, 8, nullptr, nullptr));
    EXPECT_TRUE(NetCore_SerialPort_IsOpenDev(path));
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
    EXPECT_TRUE(NetCore_SerialPort_IsOpenDev(path));
    // closing what is not open is not an error
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(nullptr));
    EXPECT_FALSE(ErrorFlag());
}

TEST_F(SerialPortTest, SeveralDevicesAtOnce) {
    PtyPair second;
    Received received;
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(path, 9600, kNone, 1, 8, nullptr, nullptr));
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(second.Path().c_str(), 115200, kOdd, 1, 8, Collect, &received));
    WriteAll(second.Master(), "two");
    EXPECT_TRUE(WaitFor([&] { return received.Data() == "two"; }));
    unsigned char data[] = {'o', 'n', 'e'};
    NetCore_SerialPort_SendData(path, data, 3);
    EXPECT_EQ("one", ReadFor(pty->Master(), 3));
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(second.Path().c_str()));
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(path));
}

// ----- against a program we did not write -----------------------------------------------------------

TEST_F(SerialPortTest, ExchangeThroughSocat) {
    serialtest::SocatPair socat;
    std::string why;
    if (!socat.Start(&why)) GTEST_SKIP() << why;
    const char* a = socat.PathA().c_str();
    const char* b = socat.PathB().c_str();

    Received received;
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(a, 115200, kNone, 1, 8, nullptr, nullptr));
    ASSERT_TRUE(NetCore_SerialPort_OpenDev(b, 115200, kNone, 1, 8, Collect, &received));

    std::string hello = "hello over socat\n";
    NetCore_SerialPort_SendData(a, reinterpret_cast<unsigned char*>(&hello[0]), int(hello.size()));
    EXPECT_TRUE(WaitFor([&] { return received.Data() == hello; })) << received.Data();
    EXPECT_EQ(socat.PathB(), received.device);

    std::string answer = "and back\n";
    NetCore_SerialPort_SendData(b, reinterpret_cast<unsigned char*>(&answer[0]), int(answer.size()));
    std::string got;
    EXPECT_TRUE(WaitFor([&] {
        unsigned char buffer[64];
        int len = sizeof(buffer);
        if (NetCore_SerialPort_RecvData(a, buffer, &len) && len > 0) got.append(reinterpret_cast<char*>(buffer), len);
        return got.size() >= answer.size();
    }));
    EXPECT_EQ(answer, got);

    EXPECT_TRUE(NetCore_SerialPort_CloseDev(b));
    EXPECT_TRUE(NetCore_SerialPort_CloseDev(a));
}

}  // namespace
