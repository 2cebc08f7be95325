// The heartbeat supervisor through its handle functions, with short intervals and deadlines.
#include <atomic>
#include <cstring>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"
#include "heartbeat/SocketOpt_HeartBeat.h"

namespace {

using namespace std::chrono_literals;
using nctest::ErrorFlag;
using nctest::WaitFor;

struct Leave {
    std::string addr;  // "<null>" when the supervisor passed none
    int socket;
    int code;
    void* context;
    time_t when;  // the wall-clock second of the call: counting is in whole seconds
};

// Collects the leave callbacks of one supervisor.
struct LeaveLog {
    std::mutex lock;
    std::vector<Leave> events;

    static void Callback(const char* lpszAddr, int hSocket, int nCode, void* lParam) {
        auto* log = static_cast<LeaveLog*>(lParam);
        std::lock_guard<std::mutex> guard(log->lock);
        log->events.push_back({lpszAddr ? lpszAddr : "<null>", hSocket, nCode, lParam, time(nullptr)});
    }
    size_t Count(int socket = -1) {
        std::lock_guard<std::mutex> guard(lock);
        size_t n = 0;
        for (const Leave& e : events)
            n += (socket < 0 || e.socket == socket);
        return n;
    }
    Leave At(size_t i) {
        std::lock_guard<std::mutex> guard(lock);
        return events.at(i);
    }
};

class HeartBeat : public nctest::NetCoreTest {};

// One call of the table below and the code it must leave (0: it must succeed).
#define ROW(call, code) std::make_pair(std::function<bool()>([&] { return SocketOpt_HeartBeat_##call; }), code)
#define HB(name) ERROR_NETCORE_HEARTBEAT_##name

TEST_F(HeartBeat, EveryCallGivesItsCode) {
    void* xhAddr = SocketOpt_HeartBeat_InitEx(100, 1, nullptr, nullptr, true);
    void* xhSkt = SocketOpt_HeartBeat_InitEx(100, 1, nullptr, nullptr, false);
    ASSERT_NE(nullptr, xhAddr);
    ASSERT_NE(nullptr, xhSkt);
    char tszAddr[64];
    int hSocket = 0;
    long long nTimer = 0;
    NETCORE_SOCKOPT_HBLOAD st_Load{};
    NETCORE_SOCKOPT_LOADRATE st_Rate{};
    // in order: a row sees what the rows above it did; code 0 is a success
    const std::vector<std::pair<std::function<bool()>, unsigned long long>> rows = {
        ROW(DestoryEx(nullptr), HB(EX_HANDLE)),
        ROW(ForceOutAddrEx(nullptr, "a", 1, true), HB(EX_HANDLE)),
        ROW(ForceOutSktEx(nullptr, 3, 1, true), HB(EX_HANDLE)),
        ROW(InsertAddrEx(nullptr, "a"), HB(EX_HANDLE)),
        ROW(InsertSocketEx(nullptr, 3), HB(EX_HANDLE)),
        ROW(ActiveAddrEx(nullptr, "a", nullptr), HB(EX_HANDLE)),
        ROW(ActiveSocketEx(nullptr, 3, nullptr), HB(EX_HANDLE)),
        ROW(DeleteAddrEx(nullptr, "a"), HB(EX_HANDLE)),
        ROW(DeleteSocketEx(nullptr, 3), HB(EX_HANDLE)),
        ROW(GetAddrEx(nullptr, "a", &nTimer), HB(EX_HANDLE)),
        ROW(GetSocketEx(nullptr, 3, &nTimer), HB(EX_HANDLE)),
        ROW(GetTimeOutEx(nullptr, tszAddr, &hSocket), HB(EX_HANDLE)),
        ROW(SetLoadAttrEx(nullptr, 5, false), HB(EX_HANDLE)),
        ROW(GetLoadAttrEx(nullptr, "a", 3, &st_Load, &st_Rate), HB(EX_HANDLE)),
        ROW(InsertAddrEx(xhSkt, "a"), HB(INSERTADDR_MODE)),
        ROW(InsertAddrEx(xhAddr, nullptr), HB(INSERTADDR_PARAMENT)),
        ROW(InsertSocketEx(xhAddr, 5), HB(INSERTSOCKET_MODE)),
        ROW(InsertSocketEx(xhSkt, 0), HB(INSERTSOCKET_PARAMENT)),
        ROW(InsertAddrEx(xhAddr, "peer"), 0),
        ROW(InsertAddrEx(xhAddr, "peer"), 0),
        ROW(InsertSocketEx(xhSkt, 5), 0),
        // refresh and delete of a socket test for address mode: in socket mode they always fail
        ROW(ActiveSocketEx(xhSkt, 5, nullptr), HB(ACTIVESOCKET_MODE)),
        ROW(DeleteSocketEx(xhSkt, 5), HB(DELETESOCKET_MODE)),
        ROW(ActiveSocketEx(xhAddr, 0, nullptr), HB(ACTIVESOCKET_PARAMENT)),
        ROW(ActiveSocketEx(xhAddr, 5, nullptr), HB(ACTIVESOCKET_NOTFOUND)),
        ROW(DeleteSocketEx(xhAddr, -1), HB(DELETESOCKET_PARAMENT)),
        ROW(DeleteSocketEx(xhAddr, 5), HB(DELETESOCKET_NOTFOUND)),
        ROW(ActiveAddrEx(xhSkt, "a", nullptr), HB(ACTIVEADDR_MODE)),
        ROW(ActiveAddrEx(xhAddr, nullptr, nullptr), HB(ACTIVEADDR_PARAMENT)),
        ROW(ActiveAddrEx(xhAddr, "nobody", nullptr), HB(ACTIVEADDR_NOTFOUND)),
        ROW(ActiveAddrEx(xhAddr, "peer", nullptr), 0),
        ROW(DeleteAddrEx(xhSkt, "a"), HB(DELETEADDR_MODE)),
        ROW(DeleteAddrEx(xhAddr, nullptr), HB(DELETEADDR_PARAMENT)),
        ROW(DeleteAddrEx(xhAddr, "nobody"), HB(DELETEADDR_NOTFOUND)),
        ROW(GetAddrEx(xhAddr, nullptr, &nTimer), HB(GETADDR_PARAMENT)),
        ROW(GetAddrEx(xhAddr, "nobody", &nTimer), HB(GETADDR_NOTFOUND)),
        ROW(GetAddrEx(xhAddr, "peer", nullptr), 0),
        ROW(GetSocketEx(xhSkt, 6, &nTimer), HB(GETSOCKET_NOTFOUND)),
        ROW(GetSocketEx(xhSkt, 5, nullptr), 0),
        ROW(ForceOutAddrEx(xhAddr, nullptr, 7, true), HB(FORCEOUT_PARAMENT)),
        ROW(ForceOutAddrEx(xhAddr, "nobody", 7, false), HB(FORCEOUT_NOTFOUND)),
        ROW(ForceOutSktEx(xhSkt, 6, 7, false), HB(FORCEOUT_NOTFOUND)),
        ROW(GetTimeOutEx(xhAddr, nullptr, &hSocket), HB(GETTIMEOUT_PARAMENT)),
        ROW(GetTimeOutEx(xhSkt, tszAddr, nullptr), HB(GETTIMEOUT_PARAMENT)),
        ROW(GetTimeOutEx(xhAddr, tszAddr, nullptr), HB(GETTIMEOUT_EMPTY)),
        ROW(SetLoadAttrEx(xhSkt, 5, true), HB(SETLOADATTR_PARAMENT)),
        ROW(SetLoadAttrEx(xhSkt, 0, false), HB(SETLOADATTR_PARAMENT)),
        ROW(SetLoadAttrEx(xhSkt, 5, false), 0),
        ROW(GetLoadAttrEx(xhSkt, "x", 5, nullptr, &st_Rate), HB(GETLOADATTR_PARAMENT)),
        ROW(GetLoadAttrEx(xhSkt, nullptr, 0, &st_Load, &st_Rate), HB(GETLOADATTR_PARAMENT)),
        // any address reaches the socket table; without one the socket is not looked at
        ROW(GetLoadAttrEx(xhSkt, nullptr, 5, &st_Load, &st_Rate), HB(GETLOADATTR_NOTFOUND)),
        ROW(GetLoadAttrEx(xhSkt, "any", 6, &st_Load, &st_Rate), HB(GETLOADATTR_NOTFOUND)),
        ROW(DeleteAddrEx(xhAddr, "peer"), 0),
        ROW(GetAddrEx(xhAddr, "peer", &nTimer), HB(GETADDR_NOTFOUND)),
    };
    for (size_t i = 0; i < rows.size(); i++) {
        EXPECT_EQ(rows[i].second == 0, rows[i].first()) << "row " << i;
        EXPECT_EQ(rows[i].second, ErrorFlag() ? NetCore_GetLastError(nullptr) : 0) << "row " << i;
    }
    // a socket peer's figures: its idle time, and load values that were never evaluated
    nTimer = -1;
    EXPECT_TRUE(SocketOpt_HeartBeat_GetSocketEx(xhSkt, 5, &nTimer));
    EXPECT_TRUE(nTimer == 0 || nTimer == 1) << nTimer;
    memset(&st_Load, 0xff, sizeof(st_Load));
    memset(&st_Rate, 0xff, sizeof(st_Rate));
    EXPECT_TRUE(SocketOpt_HeartBeat_GetLoadAttrEx(xhSkt, "any", 5, &st_Load, &st_Rate));
    EXPECT_EQ(0u, st_Load.nLevel1 | st_Load.nLevel5 | st_Rate.nRate1 | st_Rate.nRate5);
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhAddr));
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhSkt));
}

// A peer times out when the interval has passed once more than the allowed count of missed
// periods; the count is in whole seconds of the wall clock, so the leave's second is exact.
TEST_F(HeartBeat, TimesOutAfterExactlyItsCountOfMissedPeriods) {
    struct Row {
        int interval, count;
        bool addr;
        time_t after;  // seconds from the insert to the leave
        LeaveLog log;
        void* xhNet;
    } rows[] = {{1, 0, true, 1, {}, nullptr},
                {1, 1, true, 2, {}, nullptr},
                {2, 0, true, 2, {}, nullptr},
                {1, 1, false, 2, {}, nullptr}};
    time_t start = 0;
    for (int attempt = 0; attempt < 5 && start == 0; attempt++) {
        start = time(nullptr);
        for (Row& row : rows) {
            row.xhNet = SocketOpt_HeartBeat_InitEx(row.interval, row.count, LeaveLog::Callback, &row.log, row.addr);
            ASSERT_NE(nullptr, row.xhNet);
            ASSERT_TRUE(row.addr ? SocketOpt_HeartBeat_InsertAddrEx(row.xhNet, "silent")
                                 : SocketOpt_HeartBeat_InsertSocketEx(row.xhNet, 5));
        }
        // a peer deleted while it waits for its interval is dropped from the schedule
        ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(rows[0].xhNet, "gone"));
        ASSERT_TRUE(SocketOpt_HeartBeat_DeleteAddrEx(rows[0].xhNet, "gone"));
        ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(rows[1].xhNet, "busy"));
        if (time(nullptr) == start) break;
        start = 0;  // the inserts straddled a second: again
        for (Row& row : rows)
            EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(row.xhNet));
    }
    ASSERT_NE(0, start);
    // "busy" is refreshed far more often than once a second, so it never misses two periods
    EXPECT_TRUE(WaitFor(
        [&] {
            EXPECT_TRUE(SocketOpt_HeartBeat_ActiveAddrEx(rows[1].xhNet, "busy", nullptr));
            for (Row& row : rows)
                if (row.log.Count() == 0) return false;
            return true;
        },
        10s));
    for (Row& row : rows) {
        SCOPED_TRACE(testing::Message() << row.interval << "s x" << row.count << (row.addr ? " addr" : " socket"));
        ASSERT_EQ(1u, row.log.Count());
        Leave st_Leave = row.log.At(0);
        EXPECT_EQ(start + row.after, st_Leave.when);
        EXPECT_EQ(row.addr ? "silent" : "<null>", st_Leave.addr);
        EXPECT_EQ(row.addr ? 0 : 5, st_Leave.socket);
        EXPECT_EQ(0, st_Leave.code);
        EXPECT_EQ(&row.log, st_Leave.context);
        // a timed-out address is removed; a timed-out socket stays listed (it cannot be deleted)
        EXPECT_EQ(!row.addr, row.addr ? SocketOpt_HeartBeat_GetAddrEx(row.xhNet, "silent", nullptr)
                                      : SocketOpt_HeartBeat_GetSocketEx(row.xhNet, 5, nullptr));
    }
    EXPECT_TRUE(SocketOpt_HeartBeat_GetAddrEx(rows[1].xhNet, "busy", nullptr));
    EXPECT_FALSE(SocketOpt_HeartBeat_DeleteAddrEx(rows[0].xhNet, "gone"));
    EXPECT_EQ(ERROR_NETCORE_HEARTBEAT_DELETEADDR_NOTFOUND, NetCore_GetLastError(nullptr));
    for (Row& row : rows)
        EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(row.xhNet));
}

TEST_F(HeartBeat, ExpelledPeersAreReportedWithTheirCodeAndPollingFindsTimedOutOnes) {
    LeaveLog addrLog, sktLog;
    void* xhAddr = SocketOpt_HeartBeat_InitEx(100, 5, LeaveLog::Callback, &addrLog, true);
    void* xhSkt = SocketOpt_HeartBeat_InitEx(0, 0, LeaveLog::Callback, &sktLog, false);
    ASSERT_TRUE(xhAddr && xhSkt);
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhAddr, "known"));
    ASSERT_TRUE(SocketOpt_HeartBeat_ForceOutAddrEx(xhAddr, "known", 11, false));
    ASSERT_TRUE(WaitFor([&] { return addrLog.Count() == 1; }));
    ASSERT_TRUE(SocketOpt_HeartBeat_ForceOutAddrEx(xhAddr, "added", 42, true));
    ASSERT_TRUE(WaitFor([&] { return addrLog.Count() == 2; }));
    for (const char* lpszAddr : {"known", "added"})
        EXPECT_FALSE(SocketOpt_HeartBeat_GetAddrEx(xhAddr, lpszAddr, nullptr)) << "expelled peers are removed";
    EXPECT_EQ("known", addrLog.At(0).addr);
    EXPECT_EQ(11, addrLog.At(0).code);
    EXPECT_EQ("added", addrLog.At(1).addr);
    EXPECT_EQ(42, addrLog.At(1).code);
    EXPECT_EQ(&addrLog, addrLog.At(1).context);
    EXPECT_FALSE(SocketOpt_HeartBeat_GetTimeOutEx(xhAddr, nullptr, nullptr));  // the callback has them
    EXPECT_EQ(ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_CALLBACK, NetCore_GetLastError(nullptr));

    // an expelled socket cannot be deleted in socket mode, so it is reported on every pass; a
    // timed-out one (interval 0 counts every pass) is reported once
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertSocketEx(xhSkt, 5));
    ASSERT_TRUE(SocketOpt_HeartBeat_ForceOutSktEx(xhSkt, 9, 3, true));
    ASSERT_TRUE(WaitFor([&] { return sktLog.Count(9) >= 5; }));
    EXPECT_EQ(1u, sktLog.Count(5));
    EXPECT_EQ(3, sktLog.At(sktLog.Count() - 1).code);
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhAddr));
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhSkt));

    // without a callback, timed-out peers are marked and stay until the application deletes them
    xhAddr = SocketOpt_HeartBeat_InitEx(0, 0, nullptr, nullptr, true);
    xhSkt = SocketOpt_HeartBeat_InitEx(0, 0, nullptr, nullptr, false);
    char tszAddr[64] = {};
    int hSocket = 0;
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhAddr, "quiet"));
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertSocketEx(xhSkt, 7));
    ASSERT_TRUE(WaitFor([&] { return SocketOpt_HeartBeat_GetTimeOutEx(xhAddr, tszAddr, nullptr); }));
    ASSERT_TRUE(WaitFor([&] { return SocketOpt_HeartBeat_GetTimeOutEx(xhSkt, nullptr, &hSocket); }));
    EXPECT_STREQ("quiet", tszAddr);
    EXPECT_EQ(7, hSocket);
    EXPECT_TRUE(SocketOpt_HeartBeat_ActiveAddrEx(xhAddr, "quiet", nullptr));  // clears the count, not the mark
    EXPECT_TRUE(SocketOpt_HeartBeat_GetTimeOutEx(xhAddr, tszAddr, nullptr));
    EXPECT_TRUE(SocketOpt_HeartBeat_DeleteAddrEx(xhAddr, "quiet"));
    EXPECT_FALSE(SocketOpt_HeartBeat_GetTimeOutEx(xhAddr, tszAddr, nullptr));
    EXPECT_EQ(ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_EMPTY, NetCore_GetLastError(nullptr));
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhAddr));
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhSkt));
}

// A callback may destroy its own supervisor; the pass ends there (the fixture sees the thread go).
TEST_F(HeartBeat, DestoryFromTheCallbackIsSafe) {
    static void* xhNet;
    static std::atomic<int> calls;
    calls = 0;
    xhNet = SocketOpt_HeartBeat_InitEx(
        0, 0,
        [](const char*, int, int, void*) {
            SocketOpt_HeartBeat_DestoryEx(xhNet);
            calls++;
        },
        nullptr, true);
    ASSERT_NE(nullptr, xhNet);
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhNet, "a"));
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhNet, "b"));
    ASSERT_TRUE(WaitFor([&] { return calls.load() >= 1; }));
    EXPECT_EQ(1, calls.load());
}

// The load arithmetic is not reachable through the handles, so it is pinned on the class.
TEST(HeartBeatLoad, LevelsAtTheirBoundariesChangeOnlyWhenTwoEvaluationsAgree) {
    CSocketOpt_HeartBeat st_HeartBeat;
    const unsigned short rates[] = {9, 10, 29, 30, 59, 60, 79, 80, 65535};
    const unsigned int levels[] = {1, 2, 2, 3, 3, 4, 4, 5, 5};
    for (size_t i = 0; i < 9; i++) {
        tag_Obmrelt_Protocol_HeartBeat st_Protocol{};
        unsigned short wRates[5] = {rates[i], 0, 100, 0, 0};
        memcpy(reinterpret_cast<char*>(&st_Protocol) + 144, wRates, sizeof(wRates));
        NETCORE_SOCKOPT_LOADRATE st_Rate{};
        NETCORE_SOCKOPT_HBLOAD st_Load{};
        EXPECT_TRUE(st_HeartBeat.SocketOpt_HeartBeat_CalPerformance(&st_Protocol, &st_Rate, &st_Load));
        EXPECT_EQ(rates[i], st_Rate.nRate1);
        EXPECT_EQ(levels[i], st_Load.nLevel1) << rates[i];
        EXPECT_EQ(1u, st_Load.nLevel2);
        EXPECT_EQ(5u, st_Load.nLevel3);
    }
    NETCORE_SOCKOPT_HBLOAD st_Last{}, st_Load{};
    // each row: the new level, then the standing it leaves (the first one is taken at once)
    for (auto [nNew, nStanding] : {std::pair{2u, 2u}, {4u, 2u}, {3u, 2u}, {4u, 2u}, {4u, 4u}}) {
        NETCORE_SOCKOPT_HBLOAD st_New{nNew, nNew, nNew, nNew, nNew};
        EXPECT_TRUE(st_HeartBeat.SocketOpt_HeartBeat_CalComparison(&st_New, &st_Last, &st_Load));
        EXPECT_EQ(nStanding, st_Load.nLevel1);
        EXPECT_EQ(nStanding, st_Load.nLevel5);
        EXPECT_EQ(nNew, st_Last.nLevel3);
    }
}

}  // namespace
