// The Unix-domain server through its exported functions, with peers in forked processes and in
// this one.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "LocalTestSupport.h"

namespace {

using localtest::ExpectFailure;
using localtest::TempPath;
using nctest::ErrorFlag;
using nctest::Fd;
using nctest::WaitFor;
using namespace std::chrono_literals;

// What the callbacks saw.
struct Events {
    std::mutex mu;
    bool acceptAnswer = true;
    bool echo = false;        // the receive callback answers every stream message with "echo:" + data
    bool stopInRecv = false;  // the receive callback stops the server
    std::vector<int> accepted;
    std::vector<std::string> addrTexts;
    std::vector<int> recvSockets;
    std::vector<int> recvLens;
    std::string received;
    std::vector<int> left;
    std::vector<void*> leftParams;
    int echoFailures = 0;
    bool stopReturned = false;

    template <typename Fn>
    auto Locked(Fn fn) {
        std::lock_guard<std::mutex> lock(mu);
        return fn();
    }
};

bool OnAccept(const char* addr, int sock, void* param) {
    auto* ev = static_cast<Events*>(param);
    std::lock_guard<std::mutex> lock(ev->mu);
    ev->accepted.push_back(sock);
    ev->addrTexts.emplace_back(addr);
    return ev->acceptAnswer;
}

void OnRecv(const char* addr, int sock, const char* data, int len, void* param) {
    auto* ev = static_cast<Events*>(param);
    std::string text(data, static_cast<size_t>(len));
    bool echo, stop;
    {
        std::lock_guard<std::mutex> lock(ev->mu);
        ev->addrTexts.emplace_back(addr);
        ev->recvSockets.push_back(sock);
        ev->recvLens.push_back(len);
        ev->received += text;
        echo = ev->echo;
        stop = ev->stopInRecv;
    }
    if (echo) {
        std::string reply = "echo:" + text;
        if (!NetCore_UnixDomain_Send(sock, reply.data(), static_cast<int>(reply.size()), nullptr)) {
            std::lock_guard<std::mutex> lock(ev->mu);
            ev->echoFailures++;
        }
    }
    if (stop) {
        NetCore_UnixDomain_Stop();
        std::lock_guard<std::mutex> lock(ev->mu);
        ev->stopReturned = true;
    }
}

void OnLeave(const char*, int sock, void* param) {
    auto* ev = static_cast<Events*>(param);
    std::lock_guard<std::mutex> lock(ev->mu);
    ev->left.push_back(sock);
    ev->leftParams.push_back(param);
}

// Datagram server side: a message "reply-to:<path>" is answered with "ack" at that path.
void OnDatagram(const char* addr, int sock, const char* data, int len, void* param) {
    OnRecv(addr, sock, data, len, param);
    std::string text(data, static_cast<size_t>(len));
    const std::string prefix = "reply-to:";
    if (text.compare(0, prefix.size(), prefix) == 0) {
        NetCore_UnixDomain_Send(-1, "ack", 3, text.c_str() + prefix.size());
    }
}

sockaddr_un UnixAddr(const char* path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path, sizeof(addr.sun_path) - 1);
    return addr;
}

// A stream client of the server at path, retrying until the server listens.
int ConnectWhenReady(const char* path) {
    sockaddr_un addr = UnixAddr(path);
    int fd = -1;
    localtest::ChildWait([&] {
        fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) return true;
        close(fd);
        fd = -1;
        return false;
    });
    return fd;
}

bool ReadExactly(int fd, std::string* out, size_t count) {
    char buffer[256];
    while (out->size() < count) {
        ssize_t n = read(fd, buffer, std::min(sizeof(buffer), count - out->size()));
        if (n <= 0) return false;
        out->append(buffer, static_cast<size_t>(n));
    }
    return true;
}

class UnixDomainTest : public nctest::NetCoreTest {
protected:
    void TearDown() override {
        NetCore_UnixDomain_Stop();
        nctest::NetCoreTest::TearDown();
    }
    void SetCallbacks(bool withAccept, bool withRecv) {
        NetCore_UnixDomain_SetCallback(withAccept ? OnAccept : nullptr, withRecv ? OnRecv : nullptr, OnLeave, &events,
                                       &events, &leaveParam);
    }
    Events events;
    int leaveParam = 0;  // registered for the leave callback, which is never given it
};

TEST_F(UnixDomainTest, StartRefusesNullAndOverlongPaths) {
    EXPECT_FALSE(NetCore_UnixDomain_Start(nullptr, true));
    ExpectFailure(ERROR_NETCORE_UNIXDOMAIN_START_PARAMENT);

    std::string longPath = "/tmp/" + std::string(120, 'x');
    int sysError = 0;
    EXPECT_FALSE(NetCore_UnixDomain_Start(longPath.c_str(), true));
    ExpectFailure(ERROR_NETCORE_UNIXDOMAIN_START_BIND);
    NetCore_GetLastError(&sysError);
    EXPECT_EQ(ENAMETOOLONG, sysError);
    EXPECT_NE(0, access(longPath.substr(0, 107).c_str(), F_OK));
}

TEST_F(UnixDomainTest, BindFailsOnAnExistingPathAndSucceedsAfterStop) {
    TempPath path("ud");
    SetCallbacks(true, true);
    ASSERT_TRUE(NetCore_UnixDomain_Start(path.c_str(), true));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(static_cast<mode_t>(S_IFSOCK), path.Type());

    EXPECT_FALSE(NetCore_UnixDomain_Start(path.c_str(), true));
    ExpectFailure(ERROR_NETCORE_UNIXDOMAIN_START_BIND);
    // the failed Start left the running server alone
    Fd client(ConnectWhenReady(path.c_str()));
    ASSERT_GE(client.Get(), 0);
    ASSERT_TRUE(WaitFor([&] { return events.Locked([&] { return events.accepted.size() == 1; }); }));
    client.Reset();

    EXPECT_TRUE(NetCore_UnixDomain_Stop());
    EXPECT_FALSE(path.Exists());
    EXPECT_TRUE(NetCore_UnixDomain_Start(path.c_str(), false));
    EXPECT_TRUE(NetCore_UnixDomain_Stop());
    EXPECT_FALSE(path.Exists());

    // any file in the way makes bind fail
    Fd file(open(path.c_str(), O_CREAT | O_WRONLY, 0600));
    EXPECT_FALSE(NetCore_UnixDomain_Start(path.c_str(), false));
    ExpectFailure(ERROR_NETCORE_UNIXDOMAIN_START_BIND);
}

TEST_F(UnixDomainTest, StreamPeerInAnotherProcessIsServedAndRemovedWhenItLeaves) {
    TempPath path("ud");
    pid_t child = localtest::ForkChild([&] {
        int fd = ConnectWhenReady(path.c_str());
        if (fd < 0) return 1;
        if (write(fd, "hello", 5) != 5) return 2;
        std::string reply;
        if (!ReadExactly(fd, &reply, 10) || reply != "echo:hello") return 3;
        close(fd);
        return 0;
    });
    events.acceptAnswer = false;  // does not refuse the peer
    events.echo = true;
    SetCallbacks(true, true);
    ASSERT_TRUE(NetCore_UnixDomain_Start(path.c_str(), true));
    EXPECT_EQ(0, localtest::WaitChild(child));

    ASSERT_TRUE(WaitFor([&] { return events.Locked([&] { return events.left.size() == 1; }); }));
    int sock = events.Locked([&] { return events.accepted.at(0); });
    events.Locked([&] {
        EXPECT_EQ(1u, events.accepted.size());
        EXPECT_EQ(0, events.echoFailures);
        EXPECT_EQ("hello", events.received);
        EXPECT_EQ(std::vector<int>{sock}, events.recvSockets);
        EXPECT_EQ(sock, events.left[0]);
        // the leave callback gets the receive callback's argument
        EXPECT_EQ(static_cast<void*>(&events), events.leftParams[0]);
        // peers have no address text
        for (const std::string& text : events.addrTexts)
            EXPECT_EQ("", text);
    });
    // the close thread removes the peer within about a second
    // (until then a Send reaches the closed socket and fails with EPIPE)
    EXPECT_TRUE(WaitFor([&] {
        return !NetCore_UnixDomain_Send(sock, "x", 1, nullptr) &&
               NetCore_GetLastError(nullptr) == ERROR_NETCORE_UNIXDOMAIN_SEND_NOTFOUND;
    }));
    ExpectFailure(ERROR_NETCORE_UNIXDOMAIN_SEND_NOTFOUND);
}

TEST_F(UnixDomainTest, PeerAcceptedWithoutAcceptCallbackIsServedButNotInTheTable) {
    TempPath path("ud");
    SetCallbacks(false, true);
    ASSERT_TRUE(NetCore_UnixDomain_Start(path.c_str(), true));
    Fd client(ConnectWhenReady(path.c_str()));
    ASSERT_EQ(3, write(client.Get(), "abc", 3));
    ASSERT_TRUE(WaitFor([&] { return events.Locked([&] { return events.received == "abc"; }); }));
    int sock = events.Locked([&] { return events.recvSockets.at(0); });

    EXPECT_FALSE(NetCore_UnixDomain_Send(sock, "x", 1, nullptr));
    ExpectFailure(ERROR_NETCORE_UNIXDOMAIN_SEND_NOTFOUND);
    EXPECT_TRUE(NetCore_UnixDomain_Remove(sock));
    EXPECT_FALSE(ErrorFlag());
    // Remove did nothing: the peer is still served
    ASSERT_EQ(3, write(client.Get(), "def", 3));
    ASSERT_TRUE(WaitFor([&] { return events.Locked([&] { return events.received == "abcdef"; }); }));

    // Stop closes it all the same
    EXPECT_TRUE(NetCore_UnixDomain_Stop());
    char byte;
    EXPECT_EQ(0, read(client.Get(), &byte, 1));
}

TEST_F(UnixDomainTest, RemoveClosesAPeerWithoutCallingLeave) {
    TempPath path("ud");
    SetCallbacks(true, true);
    ASSERT_TRUE(NetCore_UnixDomain_Start(path.c_str(), true));
    Fd client(ConnectWhenReady(path.c_str()));
    ASSERT_TRUE(WaitFor([&] { return events.Locked([&] { return events.accepted.size() == 1; }); }));
    int sock = events.Locked([&] { return events.accepted[0]; });

    EXPECT_TRUE(NetCore_UnixDomain_Send(sock, "to-peer", 7, "ignored in stream mode"));
    std::string got;
    ASSERT_TRUE(ReadExactly(client.Get(), &got, 7));
    EXPECT_EQ("to-peer", got);

    EXPECT_TRUE(NetCore_UnixDomain_Remove(sock));
    char byte;
    EXPECT_EQ(0, read(client.Get(), &byte, 1));
    EXPECT_TRUE(events.Locked([&] { return events.left.empty(); }));
    EXPECT_TRUE(NetCore_UnixDomain_Remove(sock));
    EXPECT_TRUE(NetCore_UnixDomain_Remove(-1));
}

TEST_F(UnixDomainTest, SendChecksItsBufferFirst) {
    EXPECT_FALSE(NetCore_UnixDomain_Send(12345, nullptr, 1, nullptr));
    ExpectFailure(ERROR_NETCORE_UNIXDOMAIN_SEND_PARAMENT);
}

TEST_F(UnixDomainTest, DatagramPeerInAnotherProcessGetsRepliesAtItsPathAndLongDatagramsAreCut) {
    TempPath path("ud"), childPath("udc");
    pid_t child = localtest::ForkChild([&] {
        int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un own = UnixAddr(childPath.c_str());
        if (bind(fd, reinterpret_cast<sockaddr*>(&own), sizeof(own)) != 0) return 1;
        sockaddr_un server = UnixAddr(path.c_str());
        std::string hello = std::string("reply-to:") + childPath.c_str();
        bool sent = localtest::ChildWait([&] {
            return sendto(fd, hello.data(), hello.size(), 0, reinterpret_cast<sockaddr*>(&server), sizeof(server)) ==
                   static_cast<ssize_t>(hello.size());
        });
        if (!sent) return 2;
        char reply[16] = {};
        if (recv(fd, reply, sizeof(reply), 0) != 3 || memcmp(reply, "ack", 3) != 0) return 3;
        std::string big(3000, 'z');
        if (sendto(fd, big.data(), big.size(), 0, reinterpret_cast<sockaddr*>(&server), sizeof(server)) != 3000)
            return 4;
        close(fd);
        return 0;
    });
    NetCore_UnixDomain_SetCallback(OnAccept, OnDatagram, OnLeave, &events, &events, &leaveParam);
    ASSERT_TRUE(NetCore_UnixDomain_Start(path.c_str(), false));
    EXPECT_EQ(0, localtest::WaitChild(child));

    ASSERT_TRUE(WaitFor([&] { return events.Locked([&] { return events.recvLens.size() == 2; }); }));
    events.Locked([&] {
        EXPECT_EQ(std::vector<int>({static_cast<int>(strlen("reply-to:") + strlen(childPath.c_str())), 2048}),
                  events.recvLens);
        // the server's own socket, the same for every datagram
        EXPECT_EQ(events.recvSockets[0], events.recvSockets[1]);
        EXPECT_EQ(events.received.size(), events.received.find('z') + 2048);
        for (const std::string& text : events.addrTexts)
            EXPECT_EQ("", text);
        EXPECT_TRUE(events.accepted.empty());
    });
}

TEST_F(UnixDomainTest, DatagramSendFailsWithoutAReceiverAtThePath) {
    TempPath path("ud"), nobody("udn");
    ASSERT_TRUE(NetCore_UnixDomain_Start(path.c_str(), false));
    EXPECT_FALSE(NetCore_UnixDomain_Send(0, "x", 1, nobody.c_str()));
    ExpectFailure(ERROR_NETCORE_UNIXDOMAIN_SEND_FAILED);

    std::string longPath = "/tmp/" + std::string(200, 'y');
    int sysError = 0;
    EXPECT_FALSE(NetCore_UnixDomain_Send(0, "x", 1, longPath.c_str()));
    NetCore_GetLastError(&sysError);
    ExpectFailure(ERROR_NETCORE_UNIXDOMAIN_SEND_FAILED);
    EXPECT_EQ(ENAMETOOLONG, sysError);

    // a receiver bound at the path gets the datagram from the server's socket
    Fd receiver(socket(AF_UNIX, SOCK_DGRAM, 0));
    sockaddr_un addr = UnixAddr(nobody.c_str());
    ASSERT_EQ(0, bind(receiver.Get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    EXPECT_TRUE(NetCore_UnixDomain_Send(999, "data", 4, nobody.c_str()));
    char buffer[8] = {};
    sockaddr_un from{};
    socklen_t fromLen = sizeof(from);
    EXPECT_EQ(4, recvfrom(receiver.Get(), buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&from), &fromLen));
    EXPECT_STREQ(path.c_str(), from.sun_path);
}

TEST_F(UnixDomainTest, StopIsSafeWithoutStartAndTwice) {
    TempPath path("ud");
    EXPECT_TRUE(NetCore_UnixDomain_Stop());
    ASSERT_TRUE(NetCore_UnixDomain_Start(path.c_str(), true));
    EXPECT_TRUE(NetCore_UnixDomain_Stop());
    // a file bound at the same path since must survive a second Stop
    Fd other(socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un addr = UnixAddr(path.c_str());
    ASSERT_EQ(0, bind(other.Get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    EXPECT_TRUE(NetCore_UnixDomain_Stop());
    EXPECT_TRUE(path.Exists());
}

TEST_F(UnixDomainTest, StopFromAReceiveCallbackEndsEveryThread) {
    TempPath path("ud");
    events.stopInRecv = true;
    SetCallbacks(true, true);
    ASSERT_TRUE(NetCore_UnixDomain_Start(path.c_str(), true));
    Fd client(ConnectWhenReady(path.c_str()));
    ASSERT_EQ(4, write(client.Get(), "stop", 4));
    ASSERT_TRUE(WaitFor([&] { return events.Locked([&] { return events.stopReturned; }); }));
    char byte;
    EXPECT_EQ(0, read(client.Get(), &byte, 1));
    EXPECT_FALSE(path.Exists());
    // the fixture checks that no thread is left
}

}  // namespace
