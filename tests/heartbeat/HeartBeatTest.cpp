// The heartbeat supervisor through its handle functions, with short intervals and deadlines.
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"
#include "heartbeat/SocketOpt_HeartBeat.h"

namespace {

using namespace std::chrono_literals;
using nctest::ErrorFlag;
using nctest::WaitFor;

struct Leave {
    std::string addr;
    bool hasAddr;
    int socket;
    int code;
    void* context;
};

// Collects the leave callbacks of one supervisor.
struct LeaveLog {
    std::mutex lock;
    std::vector<Leave> events;

    static void Callback(const char* lpszAddr, int hSocket, int nCode, void* lParam) {
        auto* log = static_cast<LeaveLog*>(lParam);
        std::lock_guard<std::mutex> guard(log->lock);
        log->events.push_back({lpszAddr ? lpszAddr : "", lpszAddr != nullptr, hSocket, nCode, lParam});
    }
    size_t Count() {
        std::lock_guard<std::mutex> guard(lock);
        return events.size();
    }
    size_t CountFor(int socket) {
        std::lock_guard<std::mutex> guard(lock);
        size_t n = 0;
        for (const Leave& e : events)
            n += (e.socket == socket);
        return n;
    }
    Leave At(size_t i) {
        std::lock_guard<std::mutex> guard(lock);
        return events.at(i);
    }
};

void ExpectFailure(unsigned long long code) {
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(code, NetCore_GetLastError(nullptr));
}

class HeartBeat : public nctest::NetCoreTest {};

TEST_F(HeartBeat, NullHandleFailsEveryCall) {
    char tszAddr[64];
    int hSocket = 0;
    long long nTimer = 0;
    NETCORE_SOCKOPT_HBLOAD st_Load{};
    NETCORE_SOCKOPT_LOADRATE st_Rate{};
    bool results[] = {
        SocketOpt_HeartBeat_DestoryEx(nullptr),
        SocketOpt_HeartBeat_ForceOutAddrEx(nullptr, "a", 1, true),
        SocketOpt_HeartBeat_ForceOutSktEx(nullptr, 3, 1, true),
        SocketOpt_HeartBeat_InsertAddrEx(nullptr, "a"),
        SocketOpt_HeartBeat_InsertSocketEx(nullptr, 3),
        SocketOpt_HeartBeat_ActiveAddrEx(nullptr, "a", nullptr),
        SocketOpt_HeartBeat_ActiveSocketEx(nullptr, 3, nullptr),
        SocketOpt_HeartBeat_DeleteAddrEx(nullptr, "a"),
        SocketOpt_HeartBeat_DeleteSocketEx(nullptr, 3),
        SocketOpt_HeartBeat_GetAddrEx(nullptr, "a", &nTimer),
        SocketOpt_HeartBeat_GetSocketEx(nullptr, 3, &nTimer),
        SocketOpt_HeartBeat_GetTimeOutEx(nullptr, tszAddr, &hSocket),
        SocketOpt_HeartBeat_SetLoadAttrEx(nullptr, 5, false),
        SocketOpt_HeartBeat_GetLoadAttrEx(nullptr, "a", 3, &st_Load, &st_Rate),
    };
    for (bool bOk : results)
        EXPECT_FALSE(bOk);
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_EX_HANDLE);
}

TEST_F(HeartBeat, SilentPeerTimesOutAfterItsAllowanceAndReachesTheCallback) {
    LeaveLog log;
    void* xhNet = SocketOpt_HeartBeat_InitEx(1, 1, LeaveLog::Callback, &log, true);
    ASSERT_NE(nullptr, xhNet);
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhNet, "127.0.0.1:5000"));
    ASSERT_TRUE(WaitFor([&] { return log.Count() == 1; }, 10s));
    // two whole-second intervals are counted: never less than one second after the insert
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
    Leave st_Leave = log.At(0);
    EXPECT_TRUE(st_Leave.hasAddr);
    EXPECT_EQ("127.0.0.1:5000", st_Leave.addr);
    EXPECT_EQ(0, st_Leave.socket);
    EXPECT_EQ(0, st_Leave.code);
    EXPECT_EQ(&log, st_Leave.context);
    // reported and removed
    EXPECT_FALSE(SocketOpt_HeartBeat_GetAddrEx(xhNet, "127.0.0.1:5000", nullptr));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_GETADDR_NOTFOUND);
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhNet));
}

TEST_F(HeartBeat, ActiveKeepsAPeerWhileASilentOneLeaves) {
    LeaveLog log;
    void* xhNet = SocketOpt_HeartBeat_InitEx(1, 1, LeaveLog::Callback, &log, true);
    ASSERT_NE(nullptr, xhNet);
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhNet, "busy"));
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhNet, "silent"));
    // "busy" is refreshed far more often than once a second, so it is never counted out
    ASSERT_TRUE(WaitFor(
        [&] {
            EXPECT_TRUE(SocketOpt_HeartBeat_ActiveAddrEx(xhNet, "busy", nullptr));
            return log.Count() > 0;
        },
        10s));
    EXPECT_EQ("silent", log.At(0).addr);
    long long nTimer = -1;
    EXPECT_TRUE(SocketOpt_HeartBeat_GetAddrEx(xhNet, "busy", &nTimer));
    EXPECT_LE(nTimer, 1);
    EXPECT_EQ(1u, log.Count());
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhNet));
}

TEST_F(HeartBeat, IntervalZeroCountsEveryPass) {
    LeaveLog log;
    void* xhNet = SocketOpt_HeartBeat_InitEx(0, 3, LeaveLog::Callback, &log, true);
    ASSERT_NE(nullptr, xhNet);
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhNet, "fast"));
    ASSERT_TRUE(WaitFor([&] { return log.Count() == 1; }, 5s));
    EXPECT_EQ("fast", log.At(0).addr);
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhNet));
}

TEST_F(HeartBeat, InsertOfAPresentPeerChangesNothing) {
    void* xhNet = SocketOpt_HeartBeat_InitEx(100, 1, nullptr, nullptr, true);
    ASSERT_NE(nullptr, xhNet);
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhNet, "peer"));
    long long nTimer = 0;
    ASSERT_TRUE(WaitFor([&] { return SocketOpt_HeartBeat_GetAddrEx(xhNet, "peer", &nTimer) && nTimer >= 1; }, 5s));
    EXPECT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhNet, "peer"));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_TRUE(SocketOpt_HeartBeat_GetAddrEx(xhNet, "peer", &nTimer));
    EXPECT_GE(nTimer, 1) << "the second insert must not refresh the peer";
    EXPECT_TRUE(SocketOpt_HeartBeat_ActiveAddrEx(xhNet, "peer", nullptr));
    EXPECT_TRUE(SocketOpt_HeartBeat_GetAddrEx(xhNet, "peer", &nTimer));
    EXPECT_EQ(0, nTimer);
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhNet));
}

TEST_F(HeartBeat, ForceOutReportsTheLeaveCode) {
    LeaveLog log;
    void* xhNet = SocketOpt_HeartBeat_InitEx(100, 5, LeaveLog::Callback, &log, true);
    ASSERT_NE(nullptr, xhNet);
    EXPECT_FALSE(SocketOpt_HeartBeat_ForceOutAddrEx(xhNet, "unknown", 7, false));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_FORCEOUT_NOTFOUND);
    EXPECT_FALSE(SocketOpt_HeartBeat_ForceOutAddrEx(xhNet, nullptr, 7, true));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_FORCEOUT_PARAMENT);

    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhNet, "known"));
    ASSERT_TRUE(SocketOpt_HeartBeat_ForceOutAddrEx(xhNet, "known", 11, false));
    ASSERT_TRUE(WaitFor([&] { return log.Count() == 1; }));
    EXPECT_EQ("known", log.At(0).addr);
    EXPECT_EQ(11, log.At(0).code);

    ASSERT_TRUE(SocketOpt_HeartBeat_ForceOutAddrEx(xhNet, "added", 42, true));
    ASSERT_TRUE(WaitFor([&] { return log.Count() == 2; }));
    EXPECT_EQ("added", log.At(1).addr);
    EXPECT_EQ(42, log.At(1).code);
    EXPECT_FALSE(SocketOpt_HeartBeat_GetAddrEx(xhNet, "added", nullptr)) << "expelled peers are removed";
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhNet));
}

TEST_F(HeartBeat, PollingWithoutCallback) {
    void* xhNet = SocketOpt_HeartBeat_InitEx(0, 0, nullptr, nullptr, true);
    ASSERT_NE(nullptr, xhNet);
    char tszAddr[64] = {};
    EXPECT_FALSE(SocketOpt_HeartBeat_GetTimeOutEx(xhNet, nullptr, nullptr));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_PARAMENT);
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhNet, "quiet"));
    ASSERT_TRUE(WaitFor([&] { return SocketOpt_HeartBeat_GetTimeOutEx(xhNet, tszAddr, nullptr); }));
    EXPECT_STREQ("quiet", tszAddr);
    // it stays until the application deletes it
    memset(tszAddr, 0, sizeof(tszAddr));
    EXPECT_TRUE(SocketOpt_HeartBeat_GetTimeOutEx(xhNet, tszAddr, nullptr));
    EXPECT_STREQ("quiet", tszAddr);
    // a refresh clears the count, not the mark
    EXPECT_TRUE(SocketOpt_HeartBeat_ActiveAddrEx(xhNet, "quiet", nullptr));
    EXPECT_TRUE(SocketOpt_HeartBeat_GetTimeOutEx(xhNet, tszAddr, nullptr));
    EXPECT_TRUE(SocketOpt_HeartBeat_DeleteAddrEx(xhNet, "quiet"));
    EXPECT_FALSE(SocketOpt_HeartBeat_GetTimeOutEx(xhNet, tszAddr, nullptr));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_EMPTY);
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhNet));

    LeaveLog log;
    xhNet = SocketOpt_HeartBeat_InitEx(0, 0, LeaveLog::Callback, &log, true);
    EXPECT_FALSE(SocketOpt_HeartBeat_GetTimeOutEx(xhNet, tszAddr, nullptr));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_CALLBACK);
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhNet));
}

TEST_F(HeartBeat, ModeChecksAreAsymmetric) {
    void* xhAddr = SocketOpt_HeartBeat_InitEx(100, 1, nullptr, nullptr, true);
    void* xhSocket = SocketOpt_HeartBeat_InitEx(100, 1, nullptr, nullptr, false);
    ASSERT_NE(nullptr, xhAddr);
    ASSERT_NE(nullptr, xhSocket);

    EXPECT_FALSE(SocketOpt_HeartBeat_InsertAddrEx(xhSocket, "a"));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_INSERTADDR_MODE);
    EXPECT_FALSE(SocketOpt_HeartBeat_InsertSocketEx(xhAddr, 5));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_INSERTSOCKET_MODE);
    EXPECT_FALSE(SocketOpt_HeartBeat_InsertSocketEx(xhSocket, 0));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_INSERTSOCKET_PARAMENT);
    EXPECT_FALSE(SocketOpt_HeartBeat_InsertAddrEx(xhAddr, nullptr));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_INSERTADDR_PARAMENT);

    // a socket peer goes in, but refresh and delete test for address mode
    EXPECT_TRUE(SocketOpt_HeartBeat_InsertSocketEx(xhSocket, 5));
    EXPECT_FALSE(SocketOpt_HeartBeat_ActiveSocketEx(xhSocket, 5, nullptr));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_ACTIVESOCKET_MODE);
    EXPECT_FALSE(SocketOpt_HeartBeat_DeleteSocketEx(xhSocket, 5));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_DELETESOCKET_MODE);
    long long nTimer = -1;
    EXPECT_TRUE(SocketOpt_HeartBeat_GetSocketEx(xhSocket, 5, &nTimer));
    EXPECT_GE(nTimer, 0);

    // in address mode they reach the (empty) socket table
    EXPECT_FALSE(SocketOpt_HeartBeat_ActiveSocketEx(xhAddr, 5, nullptr));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_ACTIVESOCKET_NOTFOUND);
    EXPECT_FALSE(SocketOpt_HeartBeat_DeleteSocketEx(xhAddr, -1));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_DELETESOCKET_PARAMENT);
    EXPECT_FALSE(SocketOpt_HeartBeat_ActiveAddrEx(xhSocket, "a", nullptr));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_ACTIVEADDR_MODE);
    EXPECT_FALSE(SocketOpt_HeartBeat_DeleteAddrEx(xhAddr, "nobody"));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_DELETEADDR_NOTFOUND);
    EXPECT_FALSE(SocketOpt_HeartBeat_GetSocketEx(xhSocket, 6, nullptr));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_GETSOCKET_NOTFOUND);

    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhAddr));
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhSocket));
}

TEST_F(HeartBeat, SocketPeersAreReportedOnceOrEveryPassWhenExpelled) {
    LeaveLog log;
    void* xhNet = SocketOpt_HeartBeat_InitEx(0, 0, LeaveLog::Callback, &log, false);
    ASSERT_NE(nullptr, xhNet);
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertSocketEx(xhNet, 5));
    ASSERT_TRUE(WaitFor([&] { return log.CountFor(5) == 1; }));
    Leave st_Leave = log.At(0);
    EXPECT_FALSE(st_Leave.hasAddr);
    EXPECT_EQ(5, st_Leave.socket);

    // an expelled socket cannot be deleted in socket mode: it is reported on every pass
    ASSERT_TRUE(SocketOpt_HeartBeat_ForceOutSktEx(xhNet, 9, 3, true));
    ASSERT_TRUE(WaitFor([&] { return log.CountFor(9) >= 5; }));
    EXPECT_EQ(1u, log.CountFor(5)) << "a timed-out socket is reported once";
    EXPECT_TRUE(SocketOpt_HeartBeat_GetSocketEx(xhNet, 5, nullptr)) << "and stays in the table";
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhNet));
}

TEST_F(HeartBeat, TwoHandlesAreIndependent) {
    LeaveLog first, second;
    void* xhFirst = SocketOpt_HeartBeat_InitEx(0, 2, LeaveLog::Callback, &first, true);
    void* xhSecond = SocketOpt_HeartBeat_InitEx(100, 2, LeaveLog::Callback, &second, true);
    ASSERT_NE(nullptr, xhFirst);
    ASSERT_NE(nullptr, xhSecond);
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhFirst, "one"));
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhSecond, "two"));
    ASSERT_TRUE(SocketOpt_HeartBeat_ForceOutAddrEx(xhSecond, "two", 8, false));
    ASSERT_TRUE(WaitFor([&] { return first.Count() == 1 && second.Count() == 1; }));
    EXPECT_EQ("one", first.At(0).addr);
    EXPECT_EQ(&first, first.At(0).context);
    EXPECT_EQ("two", second.At(0).addr);
    EXPECT_EQ(&second, second.At(0).context);
    EXPECT_EQ(8, second.At(0).code);
    EXPECT_FALSE(SocketOpt_HeartBeat_GetAddrEx(xhSecond, "one", nullptr));
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhFirst));
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhSecond));
}

// A callback may destroy its own supervisor.
struct SelfDestroy {
    void* xhNet = nullptr;
    std::atomic<int> calls{0};
    static void Callback(const char*, int, int, void* lParam) {
        auto* self = static_cast<SelfDestroy*>(lParam);
        SocketOpt_HeartBeat_DestoryEx(self->xhNet);
        self->calls++;  // last touch of the test's memory
    }
};

TEST_F(HeartBeat, DestoryFromTheCallbackIsSafe) {
    SelfDestroy self;
    self.xhNet = SocketOpt_HeartBeat_InitEx(0, 0, SelfDestroy::Callback, &self, true);
    ASSERT_NE(nullptr, self.xhNet);
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(self.xhNet, "a"));
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(self.xhNet, "b"));
    ASSERT_TRUE(WaitFor([&] { return self.calls.load() >= 1; }));
    EXPECT_EQ(1, self.calls.load()) << "the pass ends once its supervisor is gone";
    // the fixture checks that the thread has gone
}

TEST_F(HeartBeat, LoadAttributes) {
    void* xhNet = SocketOpt_HeartBeat_InitEx(100, 1, nullptr, nullptr, false);
    ASSERT_NE(nullptr, xhNet);
    EXPECT_FALSE(SocketOpt_HeartBeat_SetLoadAttrEx(xhNet, 5, true));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_SETLOADATTR_PARAMENT);
    EXPECT_FALSE(SocketOpt_HeartBeat_SetLoadAttrEx(xhNet, 0, false));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_SETLOADATTR_PARAMENT);
    EXPECT_TRUE(SocketOpt_HeartBeat_SetLoadAttrEx(xhNet, 5, false));

    NETCORE_SOCKOPT_HBLOAD st_Load{};
    NETCORE_SOCKOPT_LOADRATE st_Rate{};
    EXPECT_FALSE(SocketOpt_HeartBeat_GetLoadAttrEx(xhNet, "x", 5, nullptr, &st_Rate));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_GETLOADATTR_PARAMENT);
    EXPECT_FALSE(SocketOpt_HeartBeat_GetLoadAttrEx(xhNet, nullptr, 0, &st_Load, &st_Rate));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_GETLOADATTR_PARAMENT);

    // a socket peer is reached by passing any address with its socket
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertSocketEx(xhNet, 5));
    memset(&st_Load, 0xff, sizeof(st_Load));
    memset(&st_Rate, 0xff, sizeof(st_Rate));
    EXPECT_TRUE(SocketOpt_HeartBeat_GetLoadAttrEx(xhNet, "any", 5, &st_Load, &st_Rate));
    NETCORE_SOCKOPT_HBLOAD st_Zero{};
    NETCORE_SOCKOPT_LOADRATE st_ZeroRate{};
    EXPECT_EQ(0, memcmp(&st_Zero, &st_Load, sizeof(st_Load))) << "never evaluated";
    EXPECT_EQ(0, memcmp(&st_ZeroRate, &st_Rate, sizeof(st_Rate)));
    // without an address the socket is not looked at
    EXPECT_FALSE(SocketOpt_HeartBeat_GetLoadAttrEx(xhNet, nullptr, 5, &st_Load, &st_Rate));
    ExpectFailure(ERROR_NETCORE_HEARTBEAT_GETLOADATTR_NOTFOUND);
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhNet));
}

TEST(HeartBeatLoad, LevelsAtTheirBoundaries) {
    CSocketOpt_HeartBeat st_HeartBeat;
    const unsigned short rates[] = {9, 10, 29, 30, 59, 60, 79, 80, 65535};
    const unsigned int levels[] = {1, 2, 2, 3, 3, 4, 4, 5, 5};
    static_assert(sizeof(tag_Obmrelt_Protocol_HeartBeat) == 154, "packed payload");
    for (size_t i = 0; i < sizeof(rates) / sizeof(rates[0]); i++) {
        tag_Obmrelt_Protocol_HeartBeat st_Protocol{};
        unsigned short wRates[5] = {rates[i], 0, 100, 0, 0};
        memcpy(reinterpret_cast<char*>(&st_Protocol) + 144, wRates, sizeof(wRates));
        NETCORE_SOCKOPT_LOADRATE st_Rate{};
        NETCORE_SOCKOPT_HBLOAD st_Load{};
        EXPECT_TRUE(st_HeartBeat.SocketOpt_HeartBeat_CalPerformance(&st_Protocol, &st_Rate, &st_Load));
        EXPECT_EQ(rates[i], st_Rate.nRate1);
        EXPECT_EQ(levels[i], st_Load.nLevel1) << rates[i];
        EXPECT_EQ(1u, st_Load.nLevel2);
        EXPECT_EQ(100u, st_Rate.nRate3);
        EXPECT_EQ(5u, st_Load.nLevel3);
    }
}

TEST(HeartBeatLoad, ALevelChangesOnlyWhenTwoEvaluationsAgree) {
    CSocketOpt_HeartBeat st_HeartBeat;
    NETCORE_SOCKOPT_HBLOAD st_Last{}, st_Load{};
    auto Evaluate = [&](unsigned int nLevel) {
        NETCORE_SOCKOPT_HBLOAD st_New{nLevel, nLevel, nLevel, nLevel, nLevel};
        EXPECT_TRUE(st_HeartBeat.SocketOpt_HeartBeat_CalComparison(&st_New, &st_Last, &st_Load));
    };
    Evaluate(2);  // the first evaluation is taken at once
    EXPECT_EQ(2u, st_Load.nLevel1);
    EXPECT_EQ(2u, st_Last.nLevel5);
    Evaluate(4);
    EXPECT_EQ(4u, st_Last.nLevel1);
    EXPECT_EQ(2u, st_Load.nLevel1);
    Evaluate(3);  // a different level restarts the wait
    EXPECT_EQ(2u, st_Load.nLevel1);
    Evaluate(4);
    EXPECT_EQ(2u, st_Load.nLevel1);
    Evaluate(4);
    EXPECT_EQ(4u, st_Load.nLevel1);
    EXPECT_EQ(4u, st_Load.nLevel5);
}

}  // namespace
