// The heartbeat supervisor through its handle functions, with short intervals and deadlines.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <mutex>
#include <tuple>
#include <vector>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"
#include "heartbeat/SocketOpt_HeartBeat.h"

namespace {

// Collects the leave callbacks of one supervisor as "address socket code", with the wall-clock
// second of the call (counting is in whole seconds). The log is the callback's context.
struct LeaveLog {
    std::mutex lock;
    using List = std::vector<std::pair<std::string, time_t>>;
    List events;

    static void Callback(const char* lpszAddr, int hSocket, int nCode, void* lParam) {
        auto* log = static_cast<LeaveLog*>(lParam);
        std::lock_guard<std::mutex> guard(log->lock);
        std::string text = std::string(lpszAddr ? lpszAddr : "-") + " " + std::to_string(hSocket);
        log->events.push_back({text + " " + std::to_string(nCode), time(nullptr)});
    }
    List Events() {
        std::lock_guard<std::mutex> guard(lock);
        return events;
    }
    size_t Count(const std::string& text = "") {
        List all = Events();
        return std::count_if(all.begin(), all.end(), [&](auto& event) { return text.empty() || event.first == text; });
    }
};

class HeartBeat : public nctest::NetCoreTest {};

// A call, and the code it must leave (0: it must succeed and leave the flag clear).
using Row = std::tuple<const char*, std::function<bool()>, unsigned long long>;
#define ROW(call, code) std::make_tuple(#call, std::function<bool()>([&] { return SocketOpt_HeartBeat_##call; }), code)
#define NUL(call) ROW(call, ERROR_NETCORE_HEARTBEAT_EX_HANDLE)
#define HB(name) ERROR_NETCORE_HEARTBEAT_##name

TEST_F(HeartBeat, EveryCallGivesItsCode) {
    void* xhAddr = SocketOpt_HeartBeat_InitEx(100, 1, nullptr, nullptr, true);
    void* xhSkt = SocketOpt_HeartBeat_InitEx(100, 1, nullptr, nullptr, false);
    ASSERT_TRUE(xhAddr && xhSkt);
    char tszAddr[64];
    int hSocket = 0;
    long long nTimer = -1;
    NETCORE_SOCKOPT_HBLOAD st_Load;
    NETCORE_SOCKOPT_LOADRATE st_Rate;
    memset(&st_Load, 0xff, sizeof(st_Load));
    memset(&st_Rate, 0xff, sizeof(st_Rate));
    // in order: a row sees what the rows above it did
    const std::vector<Row> rows = {
        NUL(DestoryEx(nullptr)), NUL(ForceOutAddrEx(nullptr, "a", 1, true)), NUL(ForceOutSktEx(nullptr, 3, 1, true)),
        NUL(InsertAddrEx(nullptr, "a")), NUL(InsertSocketEx(nullptr, 3)), NUL(ActiveAddrEx(nullptr, "a", nullptr)),
        NUL(ActiveSocketEx(nullptr, 3, nullptr)), NUL(DeleteAddrEx(nullptr, "a")), NUL(DeleteSocketEx(nullptr, 3)),
        NUL(GetAddrEx(nullptr, "a", &nTimer)), NUL(GetSocketEx(nullptr, 3, &nTimer)),
        NUL(GetTimeOutEx(nullptr, tszAddr, &hSocket)), NUL(SetLoadAttrEx(nullptr, 5, false)),
        NUL(GetLoadAttrEx(nullptr, "a", 3, &st_Load, &st_Rate)), ROW(InsertAddrEx(xhSkt, "a"), HB(INSERTADDR_MODE)),
        ROW(InsertAddrEx(xhAddr, nullptr), HB(INSERTADDR_PARAMENT)),
        ROW(InsertSocketEx(xhAddr, 5), HB(INSERTSOCKET_MODE)), ROW(InsertSocketEx(xhSkt, 0), HB(INSERTSOCKET_PARAMENT)),
        ROW(InsertAddrEx(xhAddr, "peer"), 0), ROW(InsertAddrEx(xhAddr, "peer"), 0), ROW(InsertSocketEx(xhSkt, 5), 0),
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
        ROW(ActiveAddrEx(xhAddr, "peer", nullptr), 0), ROW(DeleteAddrEx(xhSkt, "a"), HB(DELETEADDR_MODE)),
        ROW(DeleteAddrEx(xhAddr, nullptr), HB(DELETEADDR_PARAMENT)),
        ROW(DeleteAddrEx(xhAddr, "nobody"), HB(DELETEADDR_NOTFOUND)),
        ROW(GetAddrEx(xhAddr, nullptr, &nTimer), HB(GETADDR_PARAMENT)),
        ROW(GetAddrEx(xhAddr, "nobody", &nTimer), HB(GETADDR_NOTFOUND)), ROW(GetAddrEx(xhAddr, "peer", nullptr), 0),
        ROW(GetSocketEx(xhSkt, 6, &nTimer), HB(GETSOCKET_NOTFOUND)), ROW(GetSocketEx(xhSkt, 5, nullptr), 0),
        ROW(GetSocketEx(xhSkt, 5, &nTimer), 0), ROW(ForceOutAddrEx(xhAddr, nullptr, 7, true), HB(FORCEOUT_PARAMENT)),
        ROW(ForceOutAddrEx(xhAddr, "nobody", 7, false), HB(FORCEOUT_NOTFOUND)),
        ROW(ForceOutSktEx(xhSkt, 6, 7, false), HB(FORCEOUT_NOTFOUND)),
        ROW(GetTimeOutEx(xhAddr, nullptr, &hSocket), HB(GETTIMEOUT_PARAMENT)),
        ROW(GetTimeOutEx(xhSkt, tszAddr, nullptr), HB(GETTIMEOUT_PARAMENT)),
        ROW(GetTimeOutEx(xhAddr, tszAddr, nullptr), HB(GETTIMEOUT_EMPTY)),
        ROW(SetLoadAttrEx(xhSkt, 5, true), HB(SETLOADATTR_PARAMENT)),
        ROW(SetLoadAttrEx(xhSkt, 0, false), HB(SETLOADATTR_PARAMENT)), ROW(SetLoadAttrEx(xhSkt, 5, false), 0),
        ROW(GetLoadAttrEx(xhSkt, "x", 5, nullptr, &st_Rate), HB(GETLOADATTR_PARAMENT)),
        ROW(GetLoadAttrEx(xhSkt, nullptr, 0, &st_Load, &st_Rate), HB(GETLOADATTR_PARAMENT)),
        // any address reaches the socket table; without one the socket is not looked at
        ROW(GetLoadAttrEx(xhSkt, nullptr, 5, &st_Load, &st_Rate), HB(GETLOADATTR_NOTFOUND)),
        ROW(GetLoadAttrEx(xhSkt, "any", 6, &st_Load, &st_Rate), HB(GETLOADATTR_NOTFOUND)),
        ROW(GetLoadAttrEx(xhSkt, "any", 5, &st_Load, &st_Rate), 0), ROW(DeleteAddrEx(xhAddr, "peer"), 0),
        ROW(GetAddrEx(xhAddr, "peer", &nTimer), HB(GETADDR_NOTFOUND)), ROW(DestoryEx(xhAddr), 0),
        ROW(DestoryEx(xhSkt), 0)};
    for (auto& [text, call, code] : rows) {
        EXPECT_EQ(code == 0, call()) << text;
        EXPECT_EQ(code, nctest::ErrorFlag() ? NetCore_GetLastError(nullptr) : 0) << text;
    }
    // the socket peer's idle time, and load figures that were never evaluated
    EXPECT_TRUE(nTimer == 0 || nTimer == 1) << nTimer;
    EXPECT_EQ(0u, st_Load.nLevel1 | st_Load.nLevel5 | st_Rate.nRate1 | st_Rate.nRate5);
}

// A peer times out when the interval has passed once more than the allowed count of missed
// periods; the count is in whole seconds of the wall clock, so the leave's second is exact.
TEST_F(HeartBeat, TimesOutAfterExactlyItsCountOfMissedPeriods) {
    struct Supervisor {
        int interval, count, addr, after;  // addr: address mode; after: seconds from the insert to the leave
        LeaveLog log;
        void* xhNet;
    } rows[] = {{1, 0, true, 1, LeaveLog(), nullptr},
                {1, 1, true, 2, LeaveLog(), nullptr},
                {2, 0, true, 2, LeaveLog(), nullptr},
                {1, 1, false, 2, LeaveLog(), nullptr}};
    time_t start = 0;
    for (int attempt = 0; attempt < 5 && start == 0; attempt++) {
        start = time(nullptr);
        for (Supervisor& row : rows) {
            row.xhNet = SocketOpt_HeartBeat_InitEx(row.interval, row.count, LeaveLog::Callback, &row.log, row.addr);
            ASSERT_TRUE(row.addr ? SocketOpt_HeartBeat_InsertAddrEx(row.xhNet, "silent")
                                 : SocketOpt_HeartBeat_InsertSocketEx(row.xhNet, 5));
        }
        // a peer deleted while it waits for its interval is dropped from the schedule
        ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(rows[0].xhNet, "gone") &&
                    SocketOpt_HeartBeat_DeleteAddrEx(rows[0].xhNet, "gone"));
        ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(rows[1].xhNet, "busy"));
        if (time(nullptr) == start) break;
        start = 0;  // the inserts straddled a second: again
        for (Supervisor& row : rows)
            EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(row.xhNet));
    }
    ASSERT_NE(0, start);
    // "busy" is refreshed far more often than once a second, so it never misses two periods
    auto fnAllLeft = [&] {
        EXPECT_TRUE(SocketOpt_HeartBeat_ActiveAddrEx(rows[1].xhNet, "busy", nullptr));
        return rows[0].log.Count() && rows[1].log.Count() && rows[2].log.Count() && rows[3].log.Count();
    };
    EXPECT_TRUE(nctest::WaitFor(fnAllLeft, std::chrono::seconds(10)));
    for (Supervisor& row : rows) {
        SCOPED_TRACE(testing::Message() << row.interval << "s x" << row.count << (row.addr ? " addr" : " socket"));
        EXPECT_EQ(LeaveLog::List({{row.addr ? "silent 0 0" : "- 5 0", start + row.after}}), row.log.Events());
        // a timed-out address is removed; a timed-out socket stays listed (it cannot be deleted)
        EXPECT_EQ(!row.addr, row.addr ? SocketOpt_HeartBeat_GetAddrEx(row.xhNet, "silent", nullptr)
                                      : SocketOpt_HeartBeat_GetSocketEx(row.xhNet, 5, nullptr));
    }
    EXPECT_TRUE(SocketOpt_HeartBeat_GetAddrEx(rows[1].xhNet, "busy", nullptr) &&
                !SocketOpt_HeartBeat_DeleteAddrEx(rows[0].xhNet, "gone"));
    for (Supervisor& row : rows)
        EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(row.xhNet));
}

TEST_F(HeartBeat, ExpelledPeersAreReportedWithTheirCodeAndPollingFindsTimedOutOnes) {
    LeaveLog addrLog, sktLog;
    void* xhAddr = SocketOpt_HeartBeat_InitEx(100, 5, LeaveLog::Callback, &addrLog, true);
    void* xhSkt = SocketOpt_HeartBeat_InitEx(0, 0, LeaveLog::Callback, &sktLog, false);
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhAddr, "known"));
    ASSERT_TRUE(SocketOpt_HeartBeat_ForceOutAddrEx(xhAddr, "known", 11, false));
    ASSERT_TRUE(SocketOpt_HeartBeat_ForceOutAddrEx(xhAddr, "added", 42, true));
    ASSERT_TRUE(nctest::WaitFor([&] { return addrLog.Count() == 2; }));
    EXPECT_EQ(1u, addrLog.Count("known 0 11"));
    EXPECT_EQ(1u, addrLog.Count("added 0 42"));
    EXPECT_FALSE(SocketOpt_HeartBeat_GetAddrEx(xhAddr, "known", nullptr) ||
                 SocketOpt_HeartBeat_GetAddrEx(xhAddr, "added", nullptr));     // expelled peers are removed
    EXPECT_FALSE(SocketOpt_HeartBeat_GetTimeOutEx(xhAddr, nullptr, nullptr));  // the callback has them
    EXPECT_EQ(ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_CALLBACK, NetCore_GetLastError(nullptr));

    // an expelled socket cannot be deleted in socket mode, so it is reported on every pass; a
    // timed-out one (interval 0 counts every pass) is reported once
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertSocketEx(xhSkt, 5));
    ASSERT_TRUE(SocketOpt_HeartBeat_ForceOutSktEx(xhSkt, 9, 3, true));
    ASSERT_TRUE(nctest::WaitFor([&] { return sktLog.Count("- 9 3") >= 5; }));
    EXPECT_EQ(1u, sktLog.Count("- 5 0"));
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhAddr) && SocketOpt_HeartBeat_DestoryEx(xhSkt));

    // without a callback, timed-out peers are marked and stay until the application deletes them
    xhAddr = SocketOpt_HeartBeat_InitEx(0, 0, nullptr, nullptr, true);
    xhSkt = SocketOpt_HeartBeat_InitEx(0, 0, nullptr, nullptr, false);
    char tszAddr[64] = {};
    int hSocket = 0;
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhAddr, "quiet") && SocketOpt_HeartBeat_InsertSocketEx(xhSkt, 7));
    ASSERT_TRUE(nctest::WaitFor([&] { return SocketOpt_HeartBeat_GetTimeOutEx(xhAddr, tszAddr, nullptr); }));
    ASSERT_TRUE(nctest::WaitFor([&] { return SocketOpt_HeartBeat_GetTimeOutEx(xhSkt, nullptr, &hSocket); }));
    EXPECT_EQ("quiet 7", std::string(tszAddr) + " " + std::to_string(hSocket));
    EXPECT_TRUE(SocketOpt_HeartBeat_ActiveAddrEx(xhAddr, "quiet", nullptr));  // clears the count, not the mark
    EXPECT_TRUE(SocketOpt_HeartBeat_GetTimeOutEx(xhAddr, tszAddr, nullptr));
    EXPECT_TRUE(SocketOpt_HeartBeat_DeleteAddrEx(xhAddr, "quiet"));
    EXPECT_FALSE(SocketOpt_HeartBeat_GetTimeOutEx(xhAddr, tszAddr, nullptr));
    EXPECT_TRUE(SocketOpt_HeartBeat_DestoryEx(xhAddr) && SocketOpt_HeartBeat_DestoryEx(xhSkt));
}

// A callback may destroy its own supervisor; the pass ends there (the fixture sees the thread go).
// A one-second interval lets both peers in before the first pass that can find them timed out.
TEST_F(HeartBeat, DestoryFromTheCallbackIsSafe) {
    static void* xhNet;
    static std::atomic<int> calls;
    calls = 0;
    auto fpLeave = [](const char*, int, int, void*) { calls += SocketOpt_HeartBeat_DestoryEx(xhNet); };
    xhNet = SocketOpt_HeartBeat_InitEx(1, 0, fpLeave, nullptr, true);
    ASSERT_TRUE(SocketOpt_HeartBeat_InsertAddrEx(xhNet, "a") && SocketOpt_HeartBeat_InsertAddrEx(xhNet, "b"));
    ASSERT_TRUE(nctest::WaitFor([&] { return calls.load() >= 1; }));
    EXPECT_EQ(1, calls.load());
}

// The load arithmetic is not reachable through the handles, so it is pinned on the class.
TEST(HeartBeatLoad, LevelsAtTheirBoundariesChangeOnlyWhenTwoEvaluationsAgree) {
    CSocketOpt_HeartBeat st_HeartBeat;
    const unsigned short rates[] = {9, 10, 29, 30, 59, 60, 79, 80, 65535};
    const unsigned int levels[] = {1, 2, 2, 3, 3, 4, 4, 5, 5};
    tag_Obmrelt_Protocol_HeartBeat st_Protocol{};
    NETCORE_SOCKOPT_LOADRATE st_Rate{};
    NETCORE_SOCKOPT_HBLOAD st_Level{}, st_Last{}, st_Load{};
    for (size_t i = 0; i < 9; i++) {
        unsigned short wRates[5] = {rates[i], 0, 100, 0, 0};
        memcpy(reinterpret_cast<char*>(&st_Protocol) + 144, wRates, sizeof(wRates));
        EXPECT_TRUE(st_HeartBeat.SocketOpt_HeartBeat_CalPerformance(&st_Protocol, &st_Rate, &st_Level));
        EXPECT_EQ(rates[i], st_Rate.nRate1);
        EXPECT_EQ(levels[i] * 100 + 15, st_Level.nLevel1 * 100 + st_Level.nLevel2 * 10 + st_Level.nLevel3) << rates[i];
    }
    // each row: the new level, then the standing it leaves (the first one is taken at once)
    for (auto [nNew, nStanding] : {std::pair{2u, 2u}, {4u, 2u}, {3u, 2u}, {4u, 2u}, {4u, 4u}}) {
        NETCORE_SOCKOPT_HBLOAD st_New{nNew, nNew, nNew, nNew, nNew};
        EXPECT_TRUE(st_HeartBeat.SocketOpt_HeartBeat_CalComparison(&st_New, &st_Last, &st_Load));
        EXPECT_EQ(nStanding * 11, st_Load.nLevel1 * 10 + st_Load.nLevel5);
        EXPECT_EQ(nNew, st_Last.nLevel3);
    }
}

}  // namespace
