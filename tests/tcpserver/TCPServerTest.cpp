// The poll() and select() TCP servers through their exported functions, with real loopback clients.
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "Ombrelt_BaseLib.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"
#include "tcpserver/NetCore_TCPXPoll.h"

namespace {

using nctest::Fd;
using nctest::WaitFor;

// One callback: 'j' a login, 'r' data, 'l' a leave.
struct Event {
    char kind;
    std::string addr;
    int socket;
    std::string data;
};

// Records every callback in order.
struct Recorder {
    std::mutex lock;
    std::vector<Event> events;
    void (*onRecv)(const char* addr, const char* data, int len) = nullptr;

    void Add(char kind, const char* addr, int socket, std::string data = "") {
        std::lock_guard<std::mutex> guard(lock);
        events.push_back({kind, addr, socket, std::move(data)});
    }
    // The events of one kind, or all of them for 0.
    std::vector<Event> Of(char kind) {
        std::lock_guard<std::mutex> guard(lock);
        std::vector<Event> found;
        for (const Event& e : events)
            if (kind == 0 || e.kind == kind) found.push_back(e);
        return found;
    }
    bool Wait(char kind, size_t count) {
        return WaitFor([&] { return Of(kind).size() >= count; });
    }
    static Recorder* Self(void* ctx) { return static_cast<Recorder*>(ctx); }
    static bool Login(const char* addr, int socket, void* ctx) { return Self(ctx)->Add('j', addr, socket), true; }
    static void Recv(const char* addr, int socket, const char* data, int len, void* ctx) {
        Self(ctx)->Add('r', addr, socket, std::string(data, static_cast<size_t>(len)));
        if (Self(ctx)->onRecv != nullptr) Self(ctx)->onRecv(addr, data, len);
    }
    static void Leave(const char* addr, int socket, void* ctx) { Self(ctx)->Add('l', addr, socket); }
};

// The address the server gives a client: the client's own end, "%s:%d".
std::string AddrText(int fd, int family = AF_INET) {
    return (family == AF_INET ? "127.0.0.1:" : "::1:") + std::to_string(nctest::LocalPort(fd));
}

// The bytes waiting on a client ("" at end of stream).
std::string ReadSome(int fd) {
    pollfd entry{fd, POLLIN, 0};
    char buffer[8192];
    ssize_t n = poll(&entry, 1, 5000) == 1 ? recv(fd, buffer, sizeof(buffer), 0) : -2;
    return n >= 0 ? std::string(buffer, static_cast<size_t>(n)) : "<nothing>";
}

void SendText(int fd, const std::string& text) {
    ASSERT_EQ(static_cast<ssize_t>(text.size()), send(fd, text.data(), text.size(), MSG_NOSIGNAL));
}

// Starts a server on a port free a moment ago (again when another process took it meanwhile).
template <typename Start>
int StartOnFreePort(int family, Start start) {
    for (int attempt = 0; attempt < 10; attempt++) {
        int port = 0;
        nctest::ListenTcp(family, &port);
        if (start(port)) return port;
    }
    ADD_FAILURE() << "no port to start on";
    return -1;
}

// The addresses GetList hands out, released through the BaseLib companion.
std::vector<std::string> List(bool (*getList)(char***, int*)) {
    char** list = nullptr;
    int count = 0;
    if (!getList(&list, &count)) return {};
    std::vector<std::string> result(list, list + count);
    EXPECT_TRUE(BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&list), count));
    return result;
}

#define EXPECT_CODE(call, code) (nctest::ResetErrorState(), nctest::ExpectCode(call, code, #call))

class TCPServer : public nctest::NetCoreTest {
protected:
    // A fault that hangs a server (also in the destructors at exit) ends the process here rather
    // than at the runner's time-out; each case re-arms the alarm.
    void SetUp() override { NetCoreTest::SetUp(), alarm(40); }
    void TearDown() override {
        clients.clear();
        EXPECT_TRUE(WaitFor([] { return List(NetCore_TCPXPoll_GetList).empty(); })) << "clients left in the server";
        NetCore_TCPXPoll_Stop(true);
        NetCore_TCPSelect_Stop(true);
        NetCore_TCPSelect_RegisterCallBack(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
        NetCoreTest::TearDown();
    }
    int StartPoll(int maxClient, int family = AF_INET) {
        EXPECT_TRUE(
            NetCore_TCPXPoll_RegisterCallBack(Recorder::Login, Recorder::Recv, Recorder::Leave, &rec, &rec, &rec));
        return StartOnFreePort(family, [&](int port) { return NetCore_TCPXPoll_Start(port, maxClient, family); });
    }
    int StartSelect(int family = AF_INET, bool keepAlive = false) {
        return StartOnFreePort(family, [&](int port) { return NetCore_TCPSelect_Start(port, 50, keepAlive, family); });
    }
    // Connects a client and waits until the server has admitted it.
    int Connect(int family, int port) {
        size_t logins = rec.Of('j').size();
        clients.push_back(nctest::ConnectTcp(family, port));
        EXPECT_TRUE(rec.Wait('j', logins + 1));
        return clients.back().Get();
    }

    Recorder rec;
    std::vector<Fd> clients;
};

TEST_F(TCPServer, ArgumentAndStateFailures) {
    int count = 0, busyPort = 0;
    unsigned long long flow = 0;
    Fd busy = nctest::ListenTcp(AF_INET, &busyPort);
    EXPECT_CODE(NetCore_TCPXPoll_RegisterCallBack(nullptr, Recorder::Recv, Recorder::Leave, 0, 0, 0),
                ERROR_NETCORE_TCPXPOLL_REGISTERCALLBACK_PARAMENT);
    EXPECT_CODE(NetCore_TCPXPoll_GetList(nullptr, nullptr), ERROR_NETCORE_TCPSELECT_GETLIST_PARAMENT);
    EXPECT_CODE(NetCore_TCPXPoll_GetList(nullptr, &count), ERROR_NETCORE_TCPSELECT_GETLIST_EMPTY);
    EXPECT_CODE(NetCore_TCPXPoll_Send("127.0.0.1:1", "x", 1), ERROR_NETCORE_TCPXPOLL_SEND_NOTFOUND);
    EXPECT_CODE(NetCore_TCPXPoll_Send(nullptr, "x", 1), ERROR_NETCORE_TCPXPOLL_SEND_NOTFOUND);
    EXPECT_CODE(NetCore_TCPXPoll_Close("127.0.0.1:1") && NetCore_TCPXPoll_Close(nullptr), 0);
    EXPECT_CODE(NetCore_TCPXPoll_GetNetFlow(nullptr, &flow) && NetCore_TCPXPoll_GetNetFlow(&flow, nullptr), 0);
    EXPECT_CODE(NetCore_TCPXPoll_Stop(true), 0);
    EXPECT_CODE(NetCore_TCPXPoll_Start(busyPort, 10, AF_INET), ERROR_NETCORE_SOCKET_BIND_BIND);
    EXPECT_CODE(NetCore_TCPSelect_GetFlow(&flow, nullptr), ERROR_NETCORE_TCPSELECT_GETFLOW_PARAMENT);
    EXPECT_CODE(NetCore_TCPSelect_GetFlow(nullptr, &flow), ERROR_NETCORE_TCPSELECT_GETFLOW_PARAMENT);
    EXPECT_CODE(NetCore_TCPSelect_GetList(nullptr, nullptr), ERROR_NETCORE_TCPSELECT_GETLIST_PARAMENT);
    EXPECT_CODE(NetCore_TCPSelect_GetList(nullptr, &count), ERROR_NETCORE_TCPSELECT_GETLIST_EMPTY);
    EXPECT_CODE(NetCore_TCPSelect_Send("127.0.0.1:1", "x", 1), ERROR_NETCORE_TCPSELECT_SEND_NOTFOUND);
    EXPECT_CODE(NetCore_TCPSelect_Send(nullptr, "x", 1), ERROR_NETCORE_TCPSELECT_SEND_NOTFOUND);
    EXPECT_CODE(NetCore_TCPSelect_RemoveClient("127.0.0.1:1") && NetCore_TCPSelect_RemoveClient(nullptr), 0);
    EXPECT_CODE(NetCore_TCPSelect_Stop(true), 0);
    EXPECT_CODE(NetCore_TCPSelect_Start(busyPort, 10, false, AF_INET), ERROR_NETCORE_SOCKET_BIND_BIND);
    ASSERT_TRUE(NetCore_TCPSelect_RegisterCallBack(Recorder::Login, Recorder::Recv, Recorder::Leave, &rec, &rec, &rec));
    int pollPort = StartPoll(10), selectPort = StartSelect();
    EXPECT_CODE(NetCore_TCPXPoll_Start(pollPort + 1, 10, AF_INET), ERROR_NETCORE_TCPXPOLL_START_ISRUN);
    EXPECT_CODE(NetCore_TCPSelect_Start(selectPort + 1, 10, false, AF_INET), ERROR_NETCORE_TCPSELECT_START_ISRUN);
    // a null context keeps the one registered before
    ASSERT_TRUE(NetCore_TCPXPoll_RegisterCallBack(Recorder::Login, Recorder::Recv, Recorder::Leave, 0, 0, 0));
    SendText(Connect(AF_INET, pollPort), "ctx");
    EXPECT_TRUE(rec.Wait('r', 1));
}

// Both families: callbacks name the client by its address, Send and the flow counters, a leave,
// the emptied group's thread and wake-up pipe going while the server runs. A receive thread ends
// once it sees the server stopped, a second Start restarts it for its clients, and Close after a
// Stop releases every group without a further Start; Stop keeps the counters unless it clears them.
TEST_F(TCPServer, PollServesLeavesStopsAndRestarts) {
    for (int family : {AF_INET, AF_INET6}) {
        if (family == AF_INET6 && !nctest::Ipv6Available()) continue;
        const int fds = nctest::CountOpenFds(), threads = nctest::CountThreads();
        int port = StartPoll(100, family);
        const int fdsUp = nctest::CountOpenFds(), threadsUp = nctest::CountThreads();
        int fd = Connect(family, port);
        const std::string addr = AddrText(fd, family);
        SendText(fd, "hello");
        ASSERT_TRUE(rec.Wait('r', 1) && rec.Of('r')[0].data == "hello");
        EXPECT_CODE(NetCore_TCPXPoll_Send(addr.c_str(), "world!", 6), 0);
        EXPECT_CODE(NetCore_TCPXPoll_Send(addr.c_str(), "world!", 0), ERROR_NETCORE_SOCKET_SEND_PARAMENT);
        EXPECT_EQ("world!", ReadSome(fd));
        // sent and received bytes both go into the second counter
        unsigned long long up = 99, down = 0;
        EXPECT_TRUE(NetCore_TCPXPoll_GetNetFlow(&up, &down) && up == 0 && down == 11) << up << " " << down;
        EXPECT_EQ(std::vector<std::string>{addr}, List(NetCore_TCPXPoll_GetList));
        clients.clear();
        ASSERT_TRUE(rec.Wait('l', 1));
        for (const Event& e : rec.Of(0))
            EXPECT_TRUE(e.addr == addr && e.socket == rec.Of('j')[0].socket && e.socket > 0) << e.kind;
        EXPECT_TRUE(WaitFor([&] { return nctest::CountOpenFds() == fdsUp && nctest::CountThreads() == threadsUp; }));
        EXPECT_FALSE(NetCore_TCPXPoll_Send(addr.c_str(), "x", 1));
        int old = Connect(family, port);
        EXPECT_TRUE(NetCore_TCPXPoll_Stop(false) && NetCore_TCPXPoll_GetNetFlow(&up, &down) && down == 11);
        // the thread reads the message if it still polled when Stop came, then ends
        SendText(old, "late");
        EXPECT_TRUE(WaitFor([&] { return nctest::CountThreads() == threads; })) << "the receive thread ends";
        int port2 = StartPoll(100, family);
        ASSERT_TRUE(rec.Wait('r', 2));
        SendText(old, "old");
        ASSERT_TRUE(rec.Wait('r', 3));
        int fresh = Connect(family, port2);
        ASSERT_TRUE(NetCore_TCPXPoll_Send(AddrText(fresh, family).c_str(), "new", 3));
        EXPECT_EQ("new", ReadSome(fresh));
        EXPECT_TRUE(NetCore_TCPXPoll_Stop(false));
        for (const std::string& client : List(NetCore_TCPXPoll_GetList))
            EXPECT_TRUE(NetCore_TCPXPoll_Close(client.c_str()));
        EXPECT_TRUE(WaitFor([&] { return nctest::CountThreads() == threads && nctest::CountOpenFds() == fds + 2; }));
        StartPoll(100, family);
        EXPECT_TRUE(NetCore_TCPXPoll_Stop(true) && NetCore_TCPXPoll_GetNetFlow(&up, &down) && down == 0);
        clients.clear(), rec.events.clear();
    }
}

// A limit of 1 admits two clients (the test is strictly greater-than); one poll result covers the
// first entries of a group, so an idle client ahead of one with data is taken for departed. A
// client that does not read holds up only the Send to it; Close ends the blocked send.
TEST_F(TCPServer, PollAdmissionFirstEntriesAndABlockedSend) {
    int port = StartPoll(1);
    int idle = Connect(AF_INET, port), busy = Connect(AF_INET, port), refused = Connect(AF_INET, port);
    EXPECT_EQ("", ReadSome(refused)) << "the refused connection is closed";
    SendText(busy, "data");
    ASSERT_TRUE(rec.Wait('r', 1));
    std::string order;
    for (const Event& e : rec.Of(0))
        order += e.kind + e.addr + (e.kind == 'j' ? std::to_string(e.socket != 0) : "") + " ";
    EXPECT_EQ("j" + AddrText(idle) + "1 j" + AddrText(busy) + "1 j" + AddrText(refused) + "0 l" + AddrText(idle) +
                  " r" + AddrText(busy) + " ",
              order);
    EXPECT_EQ("", ReadSome(idle));
    const std::string addr = AddrText(busy);
    std::vector<char> big(64 << 20, 'x');
    std::atomic<int> sent{-1};
    std::thread sender([&] { sent = NetCore_TCPXPoll_Send(addr.c_str(), big.data(), static_cast<int>(big.size())); });
    int queued = 0;
    EXPECT_TRUE(WaitFor([&] { return ioctl(busy, FIONREAD, &queued) == 0 && queued > 0; }));
    Connect(AF_INET, port);
    EXPECT_EQ(-1, sent.load()) << "the send is still blocked";
    // Close by the application: no departure is reported
    EXPECT_TRUE(NetCore_TCPXPoll_Close(addr.c_str()));
    sender.join();
    EXPECT_TRUE(sent == 0 && rec.Of('l').size() == 1);
}

// 65 clients share the first group (the 65th is served too); the 66th founds a second group; a
// client arriving while both groups have room joins both and is still reported once.
TEST_F(TCPServer, PollGroupsHoldSixtyFiveClients) {
    int port = StartPoll(1000);
    const int threads = nctest::CountThreads();
    for (int i = 0; i < 66; i++)
        Connect(AF_INET, port);
    EXPECT_TRUE(WaitFor([&] { return nctest::CountThreads() == threads + 2; })) << "one receive thread per group";
    SendText(clients[65].Get(), "second group");
    ASSERT_TRUE(rec.Wait('r', 1) && rec.Of('l').empty());
    // the 65th record of the first group is polled, once the 64 idle ones ahead of it departed
    SendText(clients[64].Get(), "sixty-fifth");
    ASSERT_TRUE(rec.Wait('r', 2) && rec.Of('r')[1].data == "sixty-fifth" && rec.Of('l').size() == 64);
    // which group reads a client that joins both groups first depends on the threads' timing, so a
    // newcomer is left out; the two left depart, each reported once
    clients.clear();
    EXPECT_TRUE(rec.Wait('l', 66) && WaitFor([&] { return nctest::CountThreads() == threads; }));
    EXPECT_TRUE(rec.Of('r').size() == 2 && rec.Of('l').size() == 66) << "every message and departure once";
}

// One poll over an array of records: a time-out has its code, and the first r entries are
// classified, r being poll's count, whether or not they are the ones with events.
TEST_F(TCPServer, PollSingleWaitClassifiesTheFirstEntries) {
    struct Probe : CNetCore_TCPXPoll {
        using CNetCore_TCPXPoll::NetCore_TCPXPoll_IO;
    } probe;
    Fd client[2], server[2];
    tag_NetEngine_Poll_Client records[2];
    for (int i = 0; i < 2; i++) {
        nctest::TcpPair(AF_INET, &client[i], &server[i]);
        records[i].hSocket = server[i].Get();
        records[i].sPollEvent = POLLIN | POLLPRI | POLLERR | POLLHUP;
    }
    EXPECT_CODE(probe.NetCore_TCPXPoll_IO(records, 2, 0), ERROR_NETCORE_TCPXPOLL_IO_TIMEOUT);
    SendText(client[1].Get(), "x");
    EXPECT_CODE(probe.NetCore_TCPXPoll_IO(records, 2, 5000), 0);
    EXPECT_TRUE(records[0].sPollResult == 5 && records[1].sPollResult == 0);
    linger hard{1, 0};
    ASSERT_EQ(0, setsockopt(client[0].Get(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard)));
    client[0].Reset();
    EXPECT_TRUE(WaitFor([&] { return probe.NetCore_TCPXPoll_IO(records, 2, 0) && records[1].sPollResult == 1; }));
    EXPECT_EQ(3, records[0].sPollResult) << "a reset connection is an error";
}

// The select() server: callbacks that call back into it (an echo, a removal), Send and the flow
// counters, a departure reported and removed by the close thread; RemoveClient and Stop end clients
// without departure reports; Stop keeps the counters unless it clears them.
TEST_F(TCPServer, SelectServesRemovesStopsAndQueues) {
    char buffer[16], text[128];
    int len = -1;
    unsigned long type = 0;
    // the queued event taken for an address prefix and a type mask, which it overwrites
    auto pull = [&](const std::string& prefix, unsigned long mask) {
        snprintf(text, sizeof(text), "%s", prefix.c_str());
        type = mask, len = -1;
        return NetCore_TCPSelect_ReadIOEvent(text, buffer, &len, &type);
    };
    EXPECT_CODE(NetCore_TCPSelect_ReadIOEvent(nullptr, buffer, &len, &type),
                ERROR_NETCORE_TCPSELECT_READIOEVENT_PARAMENT);
    // the callback echoes, and removes the client that says goodbye
    rec.onRecv = [](const char* addr, const char* data, int len) {
        const bool bye = std::string(data, static_cast<size_t>(len)) == "bye";
        bye ? NetCore_TCPSelect_RemoveClient(addr) : NetCore_TCPSelect_Send(addr, data, len);
    };
    ASSERT_TRUE(NetCore_TCPSelect_RegisterCallBack(Recorder::Login, Recorder::Recv, Recorder::Leave, &rec, &rec, &rec));
    // with callbacks installed the queue is not read
    EXPECT_CODE(pull("", 0), ERROR_NETCORE_TCPSELECT_READIOEVENT_CALLBACK);
    int port = StartSelect(AF_INET, true);
    int echo = Connect(AF_INET, port), removed = Connect(AF_INET, port), leaving = Connect(AF_INET, port);
    const std::string echoAddr = AddrText(echo);
    SendText(echo, "echo me");
    EXPECT_EQ("echo me", ReadSome(echo));
    EXPECT_CODE(NetCore_TCPSelect_Send(echoAddr.c_str(), "abc", 3), 0);
    EXPECT_CODE(NetCore_TCPSelect_Send(echoAddr.c_str(), "abc", 0), ERROR_NETCORE_SOCKET_SEND_PARAMENT);
    EXPECT_EQ("abc", ReadSome(echo));
    unsigned long long up = 0, down = 0;
    // the echo is counted after its send returns, which the peer's read can overtake
    EXPECT_TRUE(nctest::WaitFor([&] { return NetCore_TCPSelect_GetFlow(&up, &down) && up == 10 && down == 7; }))
        << up << " " << down;
    EXPECT_EQ(3u, List(NetCore_TCPSelect_GetList).size());
    // a departing peer: leave callback with the login's address and socket, then the close thread
    // removes it
    const std::string leavingAddr = AddrText(leaving);
    clients.back().Reset();
    ASSERT_TRUE(rec.Wait('l', 1));
    const Event login = rec.Of('j')[2], leave = rec.Of('l')[0];
    EXPECT_TRUE(login.addr == leavingAddr && leave.addr == leavingAddr && leave.socket == login.socket);
    EXPECT_TRUE(NetCore_TCPSelect_RemoveClient(AddrText(removed).c_str()));
    EXPECT_EQ("", ReadSome(removed));
    SendText(echo, "bye");
    EXPECT_EQ("", ReadSome(echo));
    EXPECT_TRUE(WaitFor([] { return List(NetCore_TCPSelect_GetList).empty(); }));
    EXPECT_EQ(1u, rec.Of('l').size());
    for (int i = 0; i < 20; i++)
        Connect(AF_INET, port);
    clients.clear();
    EXPECT_TRUE(NetCore_TCPSelect_Stop(false) && List(NetCore_TCPSelect_GetList).empty());
    EXPECT_TRUE(NetCore_TCPSelect_GetFlow(&up, &down) && down == 10);
    EXPECT_TRUE(NetCore_TCPSelect_Stop(true) && NetCore_TCPSelect_GetFlow(&up, &down) && up + down == 0);
    // started again without callbacks, events queue up: arrival, data, departure, taken by address
    // prefix and type mask
    NetCore_TCPSelect_RegisterCallBack(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_CODE(pull("", 0), ERROR_NETCORE_TCPSELECT_READIOEVENT_EMPTY);
    const int family = nctest::Ipv6Available() ? AF_INET6 : AF_INET;
    clients.push_back(nctest::ConnectTcp(family, StartSelect(family)));
    const std::string addr = AddrText(clients.back().Get(), family);
    SendText(clients.back().Get(), "abc");
    ASSERT_TRUE(WaitFor([&] { return NetCore_TCPSelect_GetFlow(&up, &down) && down == 3; }));
    clients.clear();
    ASSERT_TRUE(WaitFor([] { return List(NetCore_TCPSelect_GetList).empty(); }));
    // a departure mask skips the first two
    EXPECT_TRUE(pull("", 0x10) && text == addr && type == 0x10 && len == -1) << len;
    EXPECT_CODE(pull("10.0.0.1", 0), ERROR_NETCORE_TCPSELECT_READIOEVENT_NOTFOUND);
    EXPECT_CODE(pull("", 0x10), ERROR_NETCORE_TCPSELECT_READIOEVENT_NOTFOUND);
    // a prefix matches: the data event gives its length and the whole address, not the data
    memset(buffer, 'Z', sizeof(buffer));
    EXPECT_TRUE(pull(addr.substr(0, addr.size() - 1), 0x100) && text == addr && len == 3 && type == 0x100);
    EXPECT_EQ(std::string(sizeof(buffer), 'Z'), std::string(buffer, sizeof(buffer)));
    EXPECT_TRUE(pull("", 0) && type == 0x01 && text == addr);
    EXPECT_CODE(pull("", 0), ERROR_NETCORE_TCPSELECT_READIOEVENT_EMPTY);
}

// Leaving the process with both servers running and clients connected, after a poll client left
// (its thread released its own group): the global objects' destructors end every thread. The copy
// leaves without returning, so the fixture and its recorder outlive the servers' last callbacks.
TEST_F(TCPServer, ExitWithBothServersRunningEndsCleanly) {
    const pid_t child = fork();
    if (child == 0) {
        int pollPort = StartPoll(100), selectPort = StartSelect();
        const int threads = nctest::CountThreads();
        nctest::ConnectTcp(AF_INET, pollPort);
        bool ready = rec.Wait('l', 1) && WaitFor([&] { return nctest::CountThreads() == threads; });
        for (int i = 0; i < 3; i++)
            Connect(AF_INET, pollPort), clients.push_back(nctest::ConnectTcp(AF_INET, selectPort));
        exit(ready && WaitFor([] { return List(NetCore_TCPSelect_GetList).size() == 3; }) ? 0 : 3);
    }
    int status = 0;
    bool ended = WaitFor([&] { return waitpid(child, &status, WNOHANG) == child; }, std::chrono::seconds(30));
    if (!ended) kill(child, SIGKILL), waitpid(child, &status, 0);
    ASSERT_TRUE(ended) << "the process did not end: a server thread kept it alive";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
