// The local channels through their exported functions: the Unix-domain server with its peers on
// sockets of this process, anonymous pipes, FIFOs, the mailslot registry, mapped regions and System V
// segments.
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "../../src/local/NetCore_PIPMailSlot.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

// What mmap refuses in this executable, standing in for a security policy: 1 refuses mappings
// that ask for PROT_EXEC (as an Android app's SELinux domain may), 2 refuses shared ones as well.
static int g_policy = 0, g_refused = 0;

// The library's mmap calls bind to this definition first (it is exported from the executable). What
// is not refused goes to the system call directly: the next mmap in the lookup order may be a
// sanitizer's, not ready for the calls made while the process starts; nor may this be instrumented.
extern "C" __attribute__((visibility("default"), no_sanitize("address", "thread", "undefined"))) void* mmap(
    void* addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept {
    int policy = __atomic_load_n(&g_policy, __ATOMIC_SEQ_CST);
    if ((policy >= 1 && (prot & PROT_EXEC) != 0) || (policy == 2 && (flags & MAP_SHARED) != 0)) {
        __atomic_add_fetch(&g_refused, 1, __ATOMIC_SEQ_CST);
        errno = EACCES;
        return MAP_FAILED;
    }
    return reinterpret_cast<void*>(syscall(SYS_mmap, addr, length, prot, flags, fd, offset));
}

namespace {

using namespace nctest;

// A call that failed, and the error state it left, which is then reset for the next call; gives
// the system error stored with the code.
#define EXPECT_REFUSED(call, code) ExpectFails(call, code, #call)
int ExpectFails(bool result, unsigned long long code, const char* call) {
    int sysError = 0;
    EXPECT_EQ(std::make_tuple(false, true, code), std::make_tuple(result, ErrorFlag(), NetCore_GetLastError(&sysError)))
        << call;
    ResetErrorState();
    return sysError;
}

// Type and permission bits of path, or -1 when there is nothing there.
int Mode(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode) : -1;
}

sockaddr_un Addr(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    return addr;
}

// A Unix-domain socket of the type, connected to path or bound there.
Fd UnixSocket(int type, const std::string& path, bool connectIt) {
    Fd fd(socket(AF_UNIX, type, 0));
    sockaddr_un addr = Addr(path);
    auto* at = reinterpret_cast<sockaddr*>(&addr);
    EXPECT_EQ(0, connectIt ? connect(fd.Get(), at, sizeof(addr)) : bind(fd.Get(), at, sizeof(addr))) << strerror(errno);
    return fd;
}

// What the callbacks saw; with stopInRecv set, the receive callback stops the server.
struct Events {
    std::mutex mu;
    std::vector<int> accepted, lens, left;
    std::string data, addrTexts;
    void* leftParam = nullptr;
    int recvSock = -1;
    std::atomic<bool> stopInRecv{false}, stopped{false};
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
    std::unique_lock<std::mutex> lock(ev->mu);
    ev->addrTexts += addr;
    ev->recvSock = sock;
    ev->lens.push_back(len);
    ev->data.append(data, static_cast<size_t>(len));
    if (!ev->stopInRecv) return;
    lock.unlock();
    ev->stopped = NetCore_UnixDomain_Stop();
}

void OnLeave(const char* addr, int sock, void* param) {
    auto* ev = static_cast<Events*>(param);
    std::lock_guard<std::mutex> lock(ev->mu);
    ev->addrTexts += addr;
    ev->left.push_back(sock);
    ev->leftParam = param;
}

class LocalTest : public NetCoreTest {
protected:
    void TearDown() override {
        NetCore_UnixDomain_Stop();
        for (const std::string& each : {path, peerPath, fifo, file})
            unlink(each.c_str());
        umask(mask);
        NetCoreTest::TearDown();
    }
    void Start(bool stream, bool withAccept = true) {
        NetCore_UnixDomain_SetCallback(withAccept ? OnAccept : nullptr, OnRecv, OnLeave, &ev, &ev, &leaveParam);
        ASSERT_TRUE(NetCore_UnixDomain_Start(path.c_str(), stream) && !ErrorFlag());
    }
    Fd Connect() { return UnixSocket(SOCK_STREAM, path, true); }
    bool Wait(const std::function<bool()>& pred) {
        return WaitFor([&] {
            std::lock_guard<std::mutex> lock(ev.mu);
            return pred();
        });
    }
    // Sends to a stream peer until that fails with not-found: at once for a peer not in the table;
    // a peer that left is forgotten by the close thread within about a second (a Send meanwhile
    // fails with EPIPE).
    bool SendNotFound(int sock) {
        return WaitFor([&] {
            return !NetCore_UnixDomain_Send(sock, "x", 1, nullptr) &&
                   NetCore_GetLastError(nullptr) == ERROR_NETCORE_UNIXDOMAIN_SEND_NOTFOUND;
        });
    }
    Events ev;
    int leaveParam = 0;  // registered for the leave callback, which is given the receive one's instead
    // fresh paths
    std::string base = "/tmp/nctest_" + std::to_string(getpid()), path = base + "ud", peerPath = base + "udpeer",
                fifo = base + "fifo", file = base + "mmap";
    char buffer[64] = {};
    int len = sizeof(buffer);
    // files made with mode 0777 get 0755
    mode_t mask = umask(022);
};

// A peer's receive thread writes the error state each time its readiness wait runs out, so error
// states are read here before any peer is there, or retried.
TEST_F(LocalTest, UnixDomainStreamPeersAreServedRemovedAndForgottenWhenTheyLeave) {
    EXPECT_REFUSED(NetCore_UnixDomain_Start(nullptr, true), ERROR_NETCORE_UNIXDOMAIN_START_PARAMENT);
    // a path too long for the address is refused, not cut
    EXPECT_REFUSED(NetCore_UnixDomain_Start(("/tmp/" + std::string(120, 'x')).c_str(), true),
                 ERROR_NETCORE_UNIXDOMAIN_START_BIND);
    Start(true);
    // a second Start fails and leaves the running server alone
    EXPECT_REFUSED(NetCore_UnixDomain_Start(path.c_str(), true), ERROR_NETCORE_UNIXDOMAIN_START_BIND);
    EXPECT_REFUSED(NetCore_UnixDomain_Send(0, nullptr, 1, nullptr), ERROR_NETCORE_UNIXDOMAIN_SEND_PARAMENT);
    EXPECT_REFUSED(NetCore_UnixDomain_Send(-1, "x", 1, nullptr), ERROR_NETCORE_UNIXDOMAIN_SEND_NOTFOUND);
    Fd staying = Connect(), leaving = Connect();
    ASSERT_TRUE(Wait([&] { return ev.accepted.size() == 2; }));
    ASSERT_EQ(5, write(leaving.Get(), "hello", 5));
    ASSERT_TRUE(Wait([&] { return ev.data == "hello"; }));
    int other = ev.accepted[0], sock = ev.accepted[1];

    EXPECT_TRUE(NetCore_UnixDomain_Send(other, "reply", 5, "ignored in stream mode"));
    EXPECT_EQ(5, recv(staying.Get(), buffer, sizeof(buffer), MSG_DONTWAIT));  // queued by Send
    EXPECT_STREQ("reply", buffer);
    // Remove closes a peer without the leave callback; a second Remove finds nothing
    EXPECT_TRUE(NetCore_UnixDomain_Remove(other) && NetCore_UnixDomain_Remove(other));
    EXPECT_EQ(0, recv(staying.Get(), buffer, 1, MSG_DONTWAIT));

    // a peer that closes its end is reported once, with the receive callback's argument; peers have
    // no address text
    leaving.Reset();
    ASSERT_TRUE(Wait([&] { return ev.left.size() == 1; }));
    EXPECT_TRUE(SendNotFound(sock));
    EXPECT_EQ(std::make_tuple(1u, sock, sock, static_cast<void*>(&ev), std::string()),
              std::make_tuple(ev.left.size(), ev.left[0], ev.recvSock, ev.leftParam, ev.addrTexts));

    // Stop unlinks the path; a second Stop leaves alone a socket bound there since
    EXPECT_TRUE(NetCore_UnixDomain_Stop() && Mode(path) == -1);
    Fd bound = UnixSocket(SOCK_DGRAM, path, false);
    EXPECT_TRUE(NetCore_UnixDomain_Stop());
    EXPECT_REFUSED(NetCore_UnixDomain_Start(path.c_str(), false), ERROR_NETCORE_UNIXDOMAIN_START_BIND);
}

// Without an accept callback a peer is served but not in the table; Stop from a receive callback
// closes it and ends every thread (the fixture checks that none is left).
TEST_F(LocalTest, UnixDomainPeerAcceptedWithoutAcceptCallbackAndStopFromACallback) {
    Start(true, false);
    Fd client = Connect();
    ASSERT_EQ(3, write(client.Get(), "abc", 3));
    ASSERT_TRUE(Wait([&] { return ev.data == "abc"; }));
    EXPECT_TRUE(SendNotFound(ev.recvSock) && NetCore_UnixDomain_Remove(ev.recvSock));
    ev.stopInRecv = true;
    ASSERT_EQ(3, write(client.Get(), "def", 3));
    ASSERT_TRUE(WaitFor([&] { return ev.stopped.load(); }));
    EXPECT_EQ(std::make_tuple(static_cast<ssize_t>(0), -1, std::string("abcdef")),
              std::make_tuple(recv(client.Get(), buffer, 1, MSG_DONTWAIT), Mode(path), ev.data));
}

TEST_F(LocalTest, UnixDomainDatagramServerReceivesAndAnswersAtThePeersPath) {
    Start(false);
    Fd peer = UnixSocket(SOCK_DGRAM, peerPath, false);
    sockaddr_un server = Addr(path), from{};
    // an empty datagram reaches no callback; a long one is cut to 2048 bytes
    std::string big(3000, 'z');
    for (const std::string& datagram : {std::string(), std::string("hi"), big}) {
        ASSERT_EQ(static_cast<ssize_t>(datagram.size()), sendto(peer.Get(), datagram.data(), datagram.size(), 0,
                                                                reinterpret_cast<sockaddr*>(&server), sizeof(server)));
    }
    ASSERT_TRUE(Wait([&] { return ev.lens.size() >= 2; }));
    EXPECT_EQ(std::make_tuple(std::vector<int>({2, 2048}), "hi" + big.substr(0, 2048), true),
              std::make_tuple(ev.lens, ev.data, ev.accepted.empty()));

    // hSocket is ignored: the answer leaves the server's socket for the path given
    EXPECT_TRUE(NetCore_UnixDomain_Send(12345, "ack", 3, peerPath.c_str()) &&
                NetCore_UnixDomain_Send(-1, "", 0, peerPath.c_str()) && !ErrorFlag());
    socklen_t fromLen = sizeof(from);
    EXPECT_EQ(3, recvfrom(peer.Get(), buffer, 64, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &fromLen));
    EXPECT_STREQ("ack", buffer);
    EXPECT_STREQ(path.c_str(), from.sun_path);
    EXPECT_EQ(0, recv(peer.Get(), buffer, sizeof(buffer), MSG_DONTWAIT));  // already queued

    EXPECT_REFUSED(NetCore_UnixDomain_Send(0, nullptr, 1, peerPath.c_str()), ERROR_NETCORE_UNIXDOMAIN_SEND_PARAMENT);
    EXPECT_REFUSED(NetCore_UnixDomain_Send(0, "x", 1, (base + "nobody").c_str()), ERROR_NETCORE_UNIXDOMAIN_SEND_FAILED);
    EXPECT_REFUSED(NetCore_UnixDomain_Send(0, "x", 1, ("/tmp/" + std::string(200, 'y')).c_str()),
                 ERROR_NETCORE_UNIXDOMAIN_SEND_FAILED);
    EXPECT_REFUSED(NetCore_UnixDomain_Send(0, "x", -1, peerPath.c_str()), ERROR_NETCORE_UNIXDOMAIN_SEND_FAILED);
}

TEST_F(LocalTest, ArgumentsAndUnknownNamesAreRefusedAndTheMailSlotMovesNoData) {
    CNetCore_PIPMailSlot slot;
    int id = -1;
    const int page = getpagesize();
    EXPECT_REFUSED(NetCore_PIPAnonymous_Create(nullptr, nullptr), ERROR_NETCORE_PIPE_ANONYMOUS_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPAnonymous_Read(nullptr, buffer, &len), ERROR_NETCORE_PIPE_ANONYMOUS_READ_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPAnonymous_Read("p", nullptr, &len), ERROR_NETCORE_PIPE_ANONYMOUS_READ_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPAnonymous_Read("p", buffer, nullptr), ERROR_NETCORE_PIPE_ANONYMOUS_READ_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPAnonymous_Read("p", buffer, &len), ERROR_NETCORE_PIPE_ANONYMOUS_READ_NOTFOUND);
    EXPECT_REFUSED(NetCore_PIPAnonymous_Write(nullptr, "x", 1), ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPAnonymous_Write("p", nullptr, 1), ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPAnonymous_Write("p", "x", 1), ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_NOTFOUND);
    EXPECT_REFUSED(NetCore_PIPNamed_Create(nullptr), ERROR_NETCORE_PIPE_NAMED_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPNamed_OPen(nullptr), ERROR_NETCORE_PIPE_NAMED_OPEN_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPNamed_OPen(fifo.c_str()), ERROR_NETCORE_PIPE_NAMED_OPEN_FAILED);
    EXPECT_REFUSED(NetCore_PIPNamed_WaitConnect(nullptr), ERROR_NETCORE_PIPE_NAMED_WAIT_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPNamed_Read(nullptr, buffer, &len), ERROR_NETCORE_PIPE_NAMED_READ_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPNamed_Read("p", nullptr, &len), ERROR_NETCORE_PIPE_NAMED_READ_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPNamed_Read("p", buffer, nullptr), ERROR_NETCORE_PIPE_NAMED_READ_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPNamed_Read("p", buffer, &len), ERROR_NETCORE_PIPE_NAMED_READ_NOTFOUND);
    EXPECT_REFUSED(NetCore_PIPNamed_Write(nullptr, "x", 1), ERROR_NETCORE_PIPE_NAMED_WRITE_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPNamed_Write("p", nullptr, 1), ERROR_NETCORE_PIPE_NAMED_WRITE_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPNamed_Write("p", "x", 1), ERROR_NETCORE_PIPE_NAMED_WRITE_NOTFOUND);
    EXPECT_REFUSED(slot.NetCore_PIPMailSlot_Create(nullptr), ERROR_NETCORE_PIPE_MAILSLOT_PARAMENT);
    EXPECT_REFUSED(slot.NetCore_PIPMailSlot_OPen(nullptr), ERROR_NETCORE_PIPE_MAILSLOT_OPEN_PARAMENT);
    EXPECT_REFUSED(slot.NetCore_PIPMailSlot_Read(nullptr, buffer, &len), ERROR_NETCORE_PIPE_MAILSLOT_READ_PARAMENT);
    EXPECT_REFUSED(slot.NetCore_PIPMailSlot_Read("s", nullptr, &len), ERROR_NETCORE_PIPE_MAILSLOT_READ_PARAMENT);
    EXPECT_REFUSED(slot.NetCore_PIPMailSlot_Read("s", buffer, nullptr), ERROR_NETCORE_PIPE_MAILSLOT_READ_PARAMENT);
    EXPECT_REFUSED(slot.NetCore_PIPMailSlot_Read("s", buffer, &len), ERROR_NETCORE_PIPE_MAILSLOT_READ_NOTFOUND);
    EXPECT_REFUSED(slot.NetCore_PIPMailSlot_Write(nullptr, "x", 1), ERROR_NETCORE_PIPE_MAILSLOT_WRITE_PARAMENT);
    EXPECT_REFUSED(slot.NetCore_PIPMailSlot_Write("s", nullptr, 1), ERROR_NETCORE_PIPE_MAILSLOT_WRITE_PARAMENT);
    EXPECT_REFUSED(slot.NetCore_PIPMailSlot_Write("s", "x", 1), ERROR_NETCORE_PIPE_MAILSLOT_WRITE_NOTFOUND);
    EXPECT_REFUSED(slot.NetCore_PIPMailSlot_SetAttr(nullptr, 1, 2), ERROR_NETCORE_PIPE_MAILSLOT_SETATTR_PARAMENT);
    EXPECT_REFUSED(slot.NetCore_PIPMailSlot_GetAttr(nullptr, &id, &id, &id),
                 ERROR_NETCORE_PIPE_MAILSLOT_GETATTR_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPMMap_Create(nullptr, nullptr, page), ERROR_NETCORE_PIPE_MMAP_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPMMap_Create("m", (base + "nodir/file").c_str(), page), ERROR_NETCORE_PIPE_MMAP_OPENFILE);
    EXPECT_REFUSED(NetCore_PIPMMap_Write(nullptr, buffer, 1, 0), ERROR_NETCORE_PIPE_MMAP_WRITE_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPMMap_Write("m", nullptr, 1, 0), ERROR_NETCORE_PIPE_MMAP_WRITE_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPMMap_Write("m", buffer, 1, 0), ERROR_NETCORE_PIPE_MMAP_WRITE_NOTFOUND);
    // the codes from Read on have one hexadecimal digit fewer than the rest
    EXPECT_REFUSED(NetCore_PIPMMap_Read(nullptr, buffer, 1, 0), 0x0020A120);
    EXPECT_REFUSED(NetCore_PIPMMap_Read("m", nullptr, 1, 0), 0x0020A120);
    EXPECT_REFUSED(NetCore_PIPMMap_Read("m", buffer, 1, 0), 0x0020A121);
    EXPECT_REFUSED(NetCore_PIPMMap_OPen(nullptr), 0x0020A130);
    EXPECT_REFUSED(NetCore_PIPMMap_GetPointer(nullptr) != nullptr, 0x0020A140);
    EXPECT_REFUSED(NetCore_PIPMMap_GetPointer("m") != nullptr, 0x0020A141);
    EXPECT_REFUSED(NetCore_PIPMMap_FreePointer(nullptr), 0x0020A150);
    EXPECT_REFUSED(NetCore_PIPIpc_Create(nullptr, page), ERROR_NETCORE_PIPE_IPC_PARAMENT);
    EXPECT_REFUSED(NetCore_PIPIpc_Create(&id, page + 1), ERROR_NETCORE_PIPE_IPC_SIZE);
    EXPECT_REFUSED(NetCore_PIPIpc_Create(&id, 0), ERROR_NETCORE_PIPE_IPC_SHMGET);
    EXPECT_EQ(-1, id);

    // the mailslot registry keeps names and moves no data; Read leaves the flag set even when it
    // succeeds
    ASSERT_TRUE(slot.NetCore_PIPMailSlot_Create("slot") && slot.NetCore_PIPMailSlot_OPen("other") && !ErrorFlag());
    EXPECT_TRUE(slot.NetCore_PIPMailSlot_Write("slot", "payload", 7) &&
                slot.NetCore_PIPMailSlot_Write("other", "x", 1));
    EXPECT_TRUE(slot.NetCore_PIPMailSlot_Read("slot", strcpy(buffer, "untouched"), &(len = 5)) && ErrorFlag());
    EXPECT_EQ(std::make_tuple(5, std::string("untouched")), std::make_tuple(len, std::string(buffer)));
    int attr = 11;
    EXPECT_TRUE(slot.NetCore_PIPMailSlot_SetAttr("slot", 1, 2) &&
                slot.NetCore_PIPMailSlot_GetAttr("slot", &attr, &attr, &attr) && !ErrorFlag() && attr == 11);
    EXPECT_TRUE(slot.NetCore_PIPMailSlot_Close("slot") && slot.NetCore_PIPMailSlot_Close("never there"));
    EXPECT_REFUSED(slot.NetCore_PIPMailSlot_Write("slot", "x", 1), ERROR_NETCORE_PIPE_MAILSLOT_WRITE_NOTFOUND);
}

TEST_F(LocalTest, AnonymousPipeCarriesDataUntilClosed) {
    int fds = CountOpenFds();
    unsigned long reserved = 7;
    // a second Create under the name keeps the first pipe and leaks nothing
    ASSERT_TRUE(NetCore_PIPAnonymous_Create("a", &reserved) && !ErrorFlag() &&
                NetCore_PIPAnonymous_Create("a", nullptr));
    EXPECT_EQ(fds + 2, CountOpenFds());
    EXPECT_TRUE(NetCore_PIPAnonymous_Write("a", "hello", 5) && !ErrorFlag());
    EXPECT_TRUE(NetCore_PIPAnonymous_Read("a", buffer, &len) && !ErrorFlag());
    EXPECT_EQ(std::make_tuple(5, std::string("hello")), std::make_tuple(len, std::string(buffer)));

    EXPECT_REFUSED(NetCore_PIPAnonymous_Read("a", buffer, &(len = -1)), ERROR_NETCORE_PIPE_ANONYMOUS_READ_FAILED);
    EXPECT_REFUSED(NetCore_PIPAnonymous_Write("a", buffer, -1), ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_FAILED);
    EXPECT_TRUE(NetCore_PIPAnonymous_Close("a") && NetCore_PIPAnonymous_Close("a") && !ErrorFlag());
    EXPECT_EQ(fds, CountOpenFds());
}

TEST_F(LocalTest, NamedPipeIsAFifoOnDiskThatTheCreatorUnlinks) {
    // Create leaves the flag set even when it succeeds
    ASSERT_TRUE(NetCore_PIPNamed_Create(fifo.c_str()));
    EXPECT_EQ(std::make_tuple(true, 0ULL, S_IFIFO | 0755),
              std::make_tuple(ErrorFlag(), NetCore_GetLastError(nullptr), Mode(fifo)));
    EXPECT_REFUSED(NetCore_PIPNamed_Create(fifo.c_str()), ERROR_NETCORE_PIPE_NAMED_MKFIFO);

    // nothing in it yet: the non-blocking read fails at once
    EXPECT_EQ(EAGAIN,
              EXPECT_REFUSED(NetCore_PIPNamed_Read(fifo.c_str(), buffer, &len), ERROR_NETCORE_PIPE_NAMED_READ_FAILED));

    // a second opening of the same FIFO under another spelling of its path
    const std::string alias = "/tmp/." + fifo.substr(4);
    ASSERT_TRUE(NetCore_PIPNamed_OPen(alias.c_str()) && NetCore_PIPNamed_WaitConnect(alias.c_str()));
    EXPECT_TRUE(NetCore_PIPNamed_Write(alias.c_str(), "fifo data", 9) && !ErrorFlag());
    EXPECT_TRUE(NetCore_PIPNamed_Read(fifo.c_str(), buffer, &len) && !ErrorFlag());
    EXPECT_EQ(std::make_tuple(9, std::string("fifo data")), std::make_tuple(len, std::string(buffer)));

    EXPECT_REFUSED(NetCore_PIPNamed_Read(fifo.c_str(), buffer, &(len = -1)), ERROR_NETCORE_PIPE_NAMED_READ_FAILED);
    EXPECT_REFUSED(NetCore_PIPNamed_Write(fifo.c_str(), buffer, -1), ERROR_NETCORE_PIPE_NAMED_WRITE_FAILED);
    std::string big(1 << 20, 'b');  // more than the FIFO holds: the non-blocking write is short
    EXPECT_REFUSED(NetCore_PIPNamed_Write(fifo.c_str(), big.data(), static_cast<int>(big.size())),
                 ERROR_NETCORE_PIPE_NAMED_WRITE_LEN);

    // Close with any path closes the first stored FIFO; only the creator's unlinks the path
    EXPECT_TRUE(NetCore_PIPNamed_Close("no such fifo"));
    EXPECT_EQ(NetCore_PIPNamed_Read(fifo.c_str(), buffer, &(len = 1)), Mode(fifo) != -1);  // the creator's is left
    EXPECT_TRUE(NetCore_PIPNamed_Close(nullptr) && Mode(fifo) == -1);
    EXPECT_TRUE(NetCore_PIPNamed_Close(fifo.c_str()) && !ErrorFlag());
}

TEST_F(LocalTest, MappedRegionIsReachedAtAnyOffsetAndByPointer) {
    const int page = getpagesize();
    ASSERT_TRUE(NetCore_PIPMMap_Create("region", file.c_str(), 100));
    EXPECT_EQ(std::make_tuple(false, S_IFREG | 0755), std::make_tuple(ErrorFlag(), Mode(file)));
    char first[] = "first", one = '!';
    EXPECT_TRUE(NetCore_PIPMMap_Write("region", first, 5, 0) && ErrorFlag()) << "Write leaves the flag set even so";
    EXPECT_TRUE(NetCore_PIPMMap_Write("region", &one, 1, page - 1));  // past the size, inside the page
    EXPECT_TRUE(NetCore_PIPMMap_Read("region", buffer, 3, 2) && !ErrorFlag());
    EXPECT_TRUE(NetCore_PIPMMap_Read("region", buffer + 3, 1, page - 1));
    EXPECT_STREQ("rst!", buffer);

    // the pointer reaches the same bytes and stays valid until Close
    auto* mapped = static_cast<char*>(NetCore_PIPMMap_GetPointer("region"));
    ASSERT_TRUE(mapped != nullptr && memcmp(mapped, "first", 5) == 0);
    mapped[50] = 'p';
    EXPECT_TRUE(NetCore_PIPMMap_FreePointer("region") && NetCore_PIPMMap_OPen("region"));
    EXPECT_TRUE(NetCore_PIPMMap_Read("region", buffer, 1, 50) && buffer[0] == 'p');
    // a second Create under the name keeps the region
    EXPECT_TRUE(NetCore_PIPMMap_Create("region", nullptr, 8192) && NetCore_PIPMMap_GetPointer("region") == mapped);

    // offsets are not refused, and nothing outside the mapping is touched; bytes there read as 0
    std::string data(64, 'd');
    for (int pos : {page - 32, 1 << 30, -32})
        EXPECT_TRUE(NetCore_PIPMMap_Write("region", &data[0], 64, pos));
    EXPECT_TRUE(NetCore_PIPMMap_Write("region", &data[0], -5, 0));
    memset(buffer, 'x', sizeof(buffer));
    EXPECT_TRUE(NetCore_PIPMMap_Read("region", buffer, 64, page - 32));
    EXPECT_EQ(std::string(32, 'd') + std::string(32, '\0'), std::string(buffer, 64));
    EXPECT_TRUE(NetCore_PIPMMap_Read("region", buffer, 64, -32));
    EXPECT_EQ(std::string(32, '\0') + std::string(32, 'd'), std::string(buffer, 64));

    // the region never reaches the file; Close closes the file too (the fixture counts)
    struct stat st {};
    EXPECT_TRUE(stat(file.c_str(), &st) == 0 && st.st_size == 0);
    EXPECT_TRUE(NetCore_PIPMMap_Close("region") && NetCore_PIPMMap_Close("region"));
    EXPECT_REFUSED(NetCore_PIPMMap_Read("region", buffer, 1, 0), ERROR_NETCORE_PIPE_MMAP_READ_NOTFOUND);
}

// Where executable memory is refused the region is mapped without it and works alike; a mapping
// refused outright leaves a region of no bytes.
TEST_F(LocalTest, MappedRegionIsSharedWithAForkedChildUnderEveryPolicy) {
    const char text[] = "written by the child";
    for (int policy : {0, 1, 2}) {
        SCOPED_TRACE(policy);
        __atomic_store_n(&g_refused, 0, __ATOMIC_SEQ_CST);
        __atomic_store_n(&g_policy, policy, __ATOMIC_SEQ_CST);
        bool created = NetCore_PIPMMap_Create("shared", nullptr, 4096);
        __atomic_store_n(&g_policy, 0, __ATOMIC_SEQ_CST);
        EXPECT_EQ(std::make_tuple(true, false, policy, policy == 2),
                  std::make_tuple(created, ErrorFlag(), __atomic_load_n(&g_refused, __ATOMIC_SEQ_CST),
                                  NetCore_PIPMMap_GetPointer("shared") == MAP_FAILED));
        pid_t child = fork();
        if (child == 0) _exit(NetCore_PIPMMap_Write("shared", const_cast<char*>(text), sizeof(text), 128) ? 0 : 1);
        int status = -1;
        EXPECT_TRUE(waitpid(child, &status, 0) == child && status == 0);
        memset(buffer, 'x', sizeof(buffer));
        EXPECT_TRUE(NetCore_PIPMMap_Read("shared", buffer, sizeof(text), 128));
        EXPECT_EQ(policy == 2 ? std::string(sizeof(text), '\0') : std::string(text, sizeof(text)),
                  std::string(buffer, sizeof(text)));
        EXPECT_TRUE(NetCore_PIPMMap_Close("shared"));
    }
}

TEST_F(LocalTest, SegmentIsAttachedTwiceAndRemoved) {
    const int page = getpagesize();
    int id = -1;
    ASSERT_TRUE(NetCore_PIPIpc_Create(&id, 2 * page) && !ErrorFlag());
    shmid_ds info{};
    EXPECT_TRUE(shmctl(id, IPC_STAT, &info) == 0 && (info.shm_perm.mode & 0777u) == 0600u);
    char *first = static_cast<char*>(NetCore_PIPIpc_Get(id)), *second = static_cast<char*>(NetCore_PIPIpc_Get(id));
    ASSERT_TRUE(first != reinterpret_cast<void*>(-1) && second != reinterpret_cast<void*>(-1) && !ErrorFlag());
    strcpy(first + page, "shared");
    EXPECT_STREQ("shared", second + page);
    // Free is true whatever shmdt says
    EXPECT_TRUE(NetCore_PIPIpc_Free(second) && NetCore_PIPIpc_Free(second) && NetCore_PIPIpc_Free(first));
    EXPECT_TRUE(NetCore_PIPIpc_Close(id) && NetCore_PIPIpc_Close(id) && !ErrorFlag());
    // a removed segment: attaching hands back shmat's failure value with no code
    EXPECT_TRUE(NetCore_PIPIpc_Get(id) == reinterpret_cast<void*>(-1) && !ErrorFlag());

    // OPen looks a segment up by key
    key_t key = static_cast<key_t>(0x4E430000 | (getpid() & 0xFFFF));
    ASSERT_NE(-1, id = shmget(key, page, IPC_CREAT | IPC_EXCL | 0600)) << "key in use: " << key;
    bool opened = NetCore_PIPIpc_OPen(key) && !ErrorFlag();
    EXPECT_TRUE(shmctl(id, IPC_RMID, nullptr) == 0 && opened);
    EXPECT_REFUSED(NetCore_PIPIpc_OPen(key), ERROR_NETCORE_PIPE_IPC_OPEN);
}

}  // namespace
