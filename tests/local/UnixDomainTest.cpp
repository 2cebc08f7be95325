// The Unix-domain server through its exported functions, with its peers on sockets of this process.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using nctest::ErrorFlag;
using nctest::Fd;

// A call that failed, and the error state it left.
void ExpectFails(bool result, unsigned long long code) {
    EXPECT_FALSE(result);
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(code, NetCore_GetLastError(nullptr));
}

sockaddr_un Addr(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    return addr;
}

// What the callbacks saw.
struct Events {
    std::mutex mu;
    std::vector<int> accepted, lens, left;
    std::vector<void*> leftParams;
    std::string data, addrTexts;
    int recvSock = -1;
    bool stopInRecv = false;
    int stops = 0;
};

bool OnAccept(const char* addr, int sock, void* param) {
    auto* ev = static_cast<Events*>(param);
    std::lock_guard<std::mutex> lock(ev->mu);
    ev->accepted.push_back(sock);
    ev->addrTexts += addr;
    return false;  // does not refuse the peer
}

void OnRecv(const char* addr, int sock, const char* data, int len, void* param) {
    auto* ev = static_cast<Events*>(param);
    {
        std::lock_guard<std::mutex> lock(ev->mu);
        ev->addrTexts += addr;
        ev->recvSock = sock;
        ev->lens.push_back(len);
        ev->data.append(data, static_cast<size_t>(len));
        if (!ev->stopInRecv) return;
    }
    NetCore_UnixDomain_Stop();
    std::lock_guard<std::mutex> lock(ev->mu);
    ev->stops++;
}

void OnLeave(const char* addr, int sock, void* param) {
    auto* ev = static_cast<Events*>(param);
    std::lock_guard<std::mutex> lock(ev->mu);
    ev->addrTexts += addr;
    ev->left.push_back(sock);
    ev->leftParams.push_back(param);
}

class UnixDomainTest : public nctest::NetCoreTest {
protected:
    void TearDown() override {
        NetCore_UnixDomain_Stop();
        unlink(path.c_str());
        unlink(peerPath.c_str());
        nctest::NetCoreTest::TearDown();
    }
    void Start(bool stream, bool withAccept = true) {
        NetCore_UnixDomain_SetCallback(withAccept ? OnAccept : nullptr, OnRecv, OnLeave, &ev, &ev, &leaveParam);
        ASSERT_TRUE(NetCore_UnixDomain_Start(path.c_str(), stream));
        EXPECT_FALSE(ErrorFlag());
    }
    Fd Connect() {
        Fd fd(socket(AF_UNIX, SOCK_STREAM, 0));
        sockaddr_un addr = Addr(path);
        EXPECT_EQ(0, connect(fd.Get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr))) << strerror(errno);
        return fd;
    }
    template <typename Pred>
    bool Wait(Pred pred) {
        return nctest::WaitFor([&] {
            std::lock_guard<std::mutex> lock(ev.mu);
            return pred();
        });
    }
    static std::string Fresh(const char* tag) {
        static int counter = 0;
        return "/tmp/nctest_" + std::string(tag) + std::to_string(getpid()) + "_" + std::to_string(counter++);
    }
    Events ev;
    int leaveParam = 0;  // registered for the leave callback, which is given the receive one's instead
    std::string path = Fresh("ud"), peerPath = Fresh("udpeer");
};

TEST_F(UnixDomainTest, StartBindsThePathAndStopUnlinksIt) {
    ExpectFails(NetCore_UnixDomain_Start(nullptr, true), ERROR_NETCORE_UNIXDOMAIN_START_PARAMENT);
    // a path too long for the address is refused, not cut
    ExpectFails(NetCore_UnixDomain_Start(("/tmp/" + std::string(120, 'x')).c_str(), true),
                ERROR_NETCORE_UNIXDOMAIN_START_BIND);

    Start(true);
    ExpectFails(NetCore_UnixDomain_Start(path.c_str(), true), ERROR_NETCORE_UNIXDOMAIN_START_BIND);
    // the failed Start left the running server alone
    Fd client = Connect();
    EXPECT_TRUE(Wait([&] { return ev.accepted.size() == 1; }));
    EXPECT_TRUE(NetCore_UnixDomain_Stop());
    EXPECT_NE(0, access(path.c_str(), F_OK));
    EXPECT_TRUE(NetCore_UnixDomain_Start(path.c_str(), false));
    EXPECT_TRUE(NetCore_UnixDomain_Stop());

    // a second Stop leaves alone a socket bound at the path since
    Fd other(socket(AF_UNIX, SOCK_DGRAM, 0));
    sockaddr_un addr = Addr(path);
    ASSERT_EQ(0, bind(other.Get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    EXPECT_TRUE(NetCore_UnixDomain_Stop());
    EXPECT_EQ(0, access(path.c_str(), F_OK));
    ExpectFails(NetCore_UnixDomain_Start(path.c_str(), false), ERROR_NETCORE_UNIXDOMAIN_START_BIND);
}

TEST_F(UnixDomainTest, StreamPeersAreServedRemovedAndForgottenWhenTheyLeave) {
    Start(true);
    Fd staying = Connect(), leaving = Connect();
    ASSERT_TRUE(Wait([&] { return ev.accepted.size() == 2; }));
    ASSERT_EQ(5, write(leaving.Get(), "hello", 5));
    ASSERT_TRUE(Wait([&] { return ev.data == "hello"; }));
    int other = ev.accepted[0], sock = ev.accepted[1];
    EXPECT_EQ(sock, ev.recvSock);

    EXPECT_TRUE(NetCore_UnixDomain_Send(other, "reply", 5, "ignored in stream mode"));
    EXPECT_FALSE(ErrorFlag());
    char buffer[8] = {};
    EXPECT_EQ(5, recv(staying.Get(), buffer, sizeof(buffer), 0));
    EXPECT_STREQ("reply", buffer);
    ExpectFails(NetCore_UnixDomain_Send(sock, nullptr, 1, nullptr), ERROR_NETCORE_UNIXDOMAIN_SEND_PARAMENT);
    ExpectFails(NetCore_UnixDomain_Send(-1, "x", 1, nullptr), ERROR_NETCORE_UNIXDOMAIN_SEND_NOTFOUND);
    ExpectFails(NetCore_UnixDomain_Send(sock, "x", -1, nullptr), ERROR_NETCORE_UNIXDOMAIN_SEND_FAILED);

    // Remove closes a peer without the leave callback; a second Remove finds nothing
    EXPECT_TRUE(NetCore_UnixDomain_Remove(other));
    EXPECT_TRUE(NetCore_UnixDomain_Remove(other));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(0, read(staying.Get(), buffer, 1));

    // a peer that closes its end is reported once, with the receive callback's argument
    leaving.Reset();
    ASSERT_TRUE(Wait([&] { return ev.left.size() == 1; }));
    EXPECT_EQ(sock, ev.left[0]);
    EXPECT_EQ(static_cast<void*>(&ev), ev.leftParams[0]);
    EXPECT_EQ("", ev.addrTexts);  // peers have no address text
    // the close thread forgets it within about a second (a Send meanwhile fails with EPIPE)
    EXPECT_TRUE(nctest::WaitFor([&] {
        return !NetCore_UnixDomain_Send(sock, "x", 1, nullptr) &&
               NetCore_GetLastError(nullptr) == ERROR_NETCORE_UNIXDOMAIN_SEND_NOTFOUND;
    }));
    EXPECT_EQ(1u, ev.left.size());
}

TEST_F(UnixDomainTest, PeerAcceptedWithoutAcceptCallbackIsServedButNotInTheTable) {
    Start(true, false);
    Fd client = Connect();
    ASSERT_EQ(3, write(client.Get(), "abc", 3));
    ASSERT_TRUE(Wait([&] { return ev.data == "abc"; }));
    ExpectFails(NetCore_UnixDomain_Send(ev.recvSock, "x", 1, nullptr), ERROR_NETCORE_UNIXDOMAIN_SEND_NOTFOUND);
    EXPECT_TRUE(NetCore_UnixDomain_Remove(ev.recvSock));
    ASSERT_EQ(3, write(client.Get(), "def", 3));
    ASSERT_TRUE(Wait([&] { return ev.data == "abcdef"; }));
    // Stop closes it all the same
    EXPECT_TRUE(NetCore_UnixDomain_Stop());
    char byte;
    EXPECT_EQ(0, read(client.Get(), &byte, 1));
}

TEST_F(UnixDomainTest, DatagramServerReceivesAndAnswersAtThePeersPath) {
    Start(false);
    Fd peer(socket(AF_UNIX, SOCK_DGRAM, 0));
    sockaddr_un own = Addr(peerPath), server = Addr(path);
    ASSERT_EQ(0, bind(peer.Get(), reinterpret_cast<sockaddr*>(&own), sizeof(own)));
    // an empty datagram reaches no callback; a long one is cut to 2048 bytes
    std::string big(3000, 'z');
    for (const std::string& datagram : {std::string(), std::string("hi"), big}) {
        ASSERT_EQ(static_cast<ssize_t>(datagram.size()), sendto(peer.Get(), datagram.data(), datagram.size(), 0,
                                                                reinterpret_cast<sockaddr*>(&server), sizeof(server)));
    }
    ASSERT_TRUE(Wait([&] { return ev.lens.size() >= 2; }));
    EXPECT_EQ(std::vector<int>({2, 2048}), ev.lens);
    EXPECT_EQ("hi" + big.substr(0, 2048), ev.data);
    EXPECT_TRUE(ev.accepted.empty());

    // hSocket is ignored: the answer leaves the server's socket for the path given
    EXPECT_TRUE(NetCore_UnixDomain_Send(12345, "ack", 3, peerPath.c_str()));
    EXPECT_TRUE(NetCore_UnixDomain_Send(-1, "", 0, peerPath.c_str()));
    EXPECT_FALSE(ErrorFlag());
    char buffer[8] = {};
    sockaddr_un from{};
    socklen_t fromLen = sizeof(from);
    EXPECT_EQ(3, recvfrom(peer.Get(), buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&from), &fromLen));
    EXPECT_STREQ("ack", buffer);
    EXPECT_STREQ(path.c_str(), from.sun_path);
    EXPECT_EQ(0, recv(peer.Get(), buffer, sizeof(buffer), 0));

    std::string nobody = Fresh("udnobody"), overlong = "/tmp/" + std::string(200, 'y');
    ExpectFails(NetCore_UnixDomain_Send(0, nullptr, 1, peerPath.c_str()), ERROR_NETCORE_UNIXDOMAIN_SEND_PARAMENT);
    ExpectFails(NetCore_UnixDomain_Send(0, "x", 1, nobody.c_str()), ERROR_NETCORE_UNIXDOMAIN_SEND_FAILED);
    ExpectFails(NetCore_UnixDomain_Send(0, "x", 1, overlong.c_str()), ERROR_NETCORE_UNIXDOMAIN_SEND_FAILED);
    ExpectFails(NetCore_UnixDomain_Send(0, "x", -1, peerPath.c_str()), ERROR_NETCORE_UNIXDOMAIN_SEND_FAILED);
}

TEST_F(UnixDomainTest, StopFromAReceiveCallbackEndsEveryThread) {
    ev.stopInRecv = true;
    Start(true);
    Fd client = Connect();
    ASSERT_EQ(4, write(client.Get(), "stop", 4));
    ASSERT_TRUE(Wait([&] { return ev.stops == 1; }));
    char byte;
    EXPECT_EQ(0, read(client.Get(), &byte, 1));
    EXPECT_NE(0, access(path.c_str(), F_OK));
    // the fixture checks that no thread is left
}

}  // namespace
