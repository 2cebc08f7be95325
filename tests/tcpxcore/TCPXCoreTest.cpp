// The TCP epoll server through its exported handle functions, with real loopback clients: one
// started server per case, recording every callback.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <thread>
#include <vector>

#include "Ombrelt_BaseLib.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using namespace nctest;
using Flow = std::vector<unsigned long long>;

struct Event {
    char cKind;  // 'i' login, 'r' receive, 'o' leave
    int hSocket;
    std::string strAddr, strData;  // the data "(null <length>)" for null data
    std::string Who() const { return strAddr + " " + std::to_string(hSocket); }
};

void ExpectFail(bool bOk, unsigned long long nCode) {
    EXPECT_TRUE(!bOk && ErrorFlag());
    EXPECT_EQ(nCode, NetCore_GetLastError(nullptr)) << std::hex << "expected 0x" << nCode;
}

// a blocking socket takes the whole buffer in one call
bool SendAll(int hSocket, const std::string& strData) {
    return send(hSocket, strData.data(), strData.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(strData.size());
}

// Reads nLen bytes, or without a length waits until the server closes the connection (end of
// file or reset; data still arriving is discarded) and then returns "closed".
std::string Read(int hSocket, size_t nLen = SIZE_MAX) {
    std::string strData;
    bool bClosed = false;
    WaitFor([&] {
        char tszBuffer[4096];
        ssize_t n = recv(hSocket, tszBuffer, std::min(sizeof(tszBuffer), nLen - strData.size()), MSG_DONTWAIT);
        if (n > 0) strData.append(tszBuffer, static_cast<size_t>(n));
        bClosed = n == 0 || (n < 0 && errno != EAGAIN);
        return bClosed || strData.size() == nLen;
    });
    return bClosed && nLen == SIZE_MAX ? "closed" : strData;
}

class TCPXCoreTest : public NetCoreTest {
protected:
    void SetUp() override {
        NetCoreTest::SetUp();
        m_xhNet = StartOne(100, 1, 4, AF_INET, &m_nPort);
    }
    void TearDown() override {
        EXPECT_EQ(0u, m_nLoginAverages.load());
        Stop();
        NetCoreTest::TearDown();
    }
    // A free port can be taken by someone else between the probe and the start: retried.
    void* StartOne(int nMaxClient, int nThreads, int nFlowPeriod, int nFamily, int* pnPort) {
        void* xhNet = nullptr;
        for (int i = 0; i < 10 && xhNet == nullptr; i++) {
            ListenTcp(nFamily, pnPort);
            xhNet = NetCore_TCPXCore_StartEx(*pnPort, nMaxClient, nThreads, false, true, nFlowPeriod, nFamily);
        }
        EXPECT_TRUE(xhNet != nullptr &&
                    NetCore_TCPXCore_RegisterCallBackEx(xhNet, OnLogin, OnRecv, OnLeave, this, this, this));
        return xhNet;
    }
    void Stop() {
        EXPECT_TRUE(m_xhNet == nullptr || NetCore_TCPXCore_DestroyEx(m_xhNet, true));
        m_xhNet = nullptr;
    }
    // Connects a client and waits until the server has logged it in; returns its address text.
    std::string Connect(Fd* pClient, int nFamily = AF_INET, int nPort = 0) {
        size_t nBefore = Events('i').size();
        *pClient = ConnectTcp(nFamily, nPort != 0 ? nPort : m_nPort);
        EXPECT_TRUE(WaitFor([&] { return Events('i').size() > nBefore; }));
        return (nFamily == AF_INET ? "127.0.0.1:" : "::1:") + std::to_string(LocalPort(pClient->Get()));
    }
    // The events of one kind, of one client (every client: empty address).
    std::vector<Event> Events(char cKind, const std::string& strAddr = "") {
        std::lock_guard<std::mutex> st_Lock(m_Lock);
        std::vector<Event> stl_Events;
        for (const Event& st_Event : m_stlEvents)
            if (st_Event.cKind == cKind && (strAddr.empty() || strAddr == st_Event.strAddr))
                stl_Events.push_back(st_Event);
        return stl_Events;
    }
    // The data delivered, each delivery ending in '|'.
    std::string Received(const std::string& strAddr = "") {
        std::string strAll;
        for (const Event& st_Event : Events('r', strAddr))
            strAll += st_Event.strData + "|";
        return strAll;
    }
    // Every client address of a server; the rows are released as the caller must.
    std::vector<std::string> List(void* xhNet) {
        char** ppszList = nullptr;
        int nCount = 0;
        if (!NetCore_TCPXCore_GetAllEx(xhNet, &ppszList, &nCount)) return {};
        std::vector<std::string> stl_List(ppszList, ppszList + nCount);
        EXPECT_TRUE(BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppszList), nCount));
        return stl_List;
    }
    // The counters of a client (null address: of the server); with nAverage 0 or 1 their averages
    // per period or over the life.
    static Flow FlowOf(void* xhNet, const char* lpszAddr, int nAverage = -1) {
        Flow st(4);
        EXPECT_TRUE(nAverage < 0 ? NetCore_TCPXCore_GetFlowEx(xhNet, &st[0], &st[1], &st[2], &st[3], lpszAddr)
                                 : NetCore_TCPXCore_GetAverageFlowEx(xhNet, &st[0], &st[1], &st[2], &st[3], lpszAddr,
                                                                     nAverage == 1));
        return st;
    }
    // Sends one chunk and waits until the server has read it on its own.
    void SendAsOneRead(int hClient, const std::string& strAddr, const std::string& strData) {
        unsigned long long nReads = FlowOf(m_xhNet, strAddr.c_str())[3];
        ASSERT_TRUE(SendAll(hClient, strData));
        ASSERT_TRUE(WaitFor([&] { return FlowOf(m_xhNet, strAddr.c_str())[3] > nReads; }));
    }

    static bool OnLogin(const char* lpszAddr, int hSocket, void* lParam) {
        auto* pThis = static_cast<TCPXCoreTest*>(lParam);
        // at the accept no millisecond has passed yet: every life average is 0, not a division by 0
        // (a client of another server is not known here and leaves them 0)
        Flow st(4);
        NetCore_TCPXCore_GetAverageFlowEx(pThis->m_xhNet, &st[0], &st[1], &st[2], &st[3], lpszAddr, true);
        pThis->m_nLoginAverages += st[0] + st[1] + st[2] + st[3];
        pThis->Record({'i', hSocket, lpszAddr, ""});
        return pThis->m_bLogin.load();
    }
    static void OnRecv(const char* lpszAddr, int hSocket, const char* lpszMsg, int nLen, void* lParam) {
        bool bData = lpszMsg != nullptr && nLen > 0;
        EXPECT_TRUE(!bData || lpszMsg[nLen] == '\0') << "the data is followed by a zero byte";
        auto fnHook = static_cast<TCPXCoreTest*>(lParam)->Record(
            {'r', hSocket, lpszAddr, bData ? std::string(lpszMsg, nLen) : "(null " + std::to_string(nLen) + ")"});
        if (fnHook) fnHook(lpszAddr, lpszMsg, nLen);
    }
    static void OnLeave(const char* lpszAddr, int hSocket, void* lParam) {
        static_cast<TCPXCoreTest*>(lParam)->Record({'o', hSocket, lpszAddr, ""});
    }
    std::function<void(const char*, const char*, int)> Record(Event st_Event) {
        std::lock_guard<std::mutex> st_Lock(m_Lock);
        m_stlEvents.push_back(std::move(st_Event));
        return m_fnOnRecv;
    }

    void* m_xhNet = nullptr;
    int m_nPort = 0;
    std::atomic<bool> m_bLogin{true};
    std::atomic<unsigned long long> m_nLoginAverages{0};
    std::mutex m_Lock;
    std::vector<Event> m_stlEvents;
    // Called on every delivery with its address, data and length. Set before the first client
    // connects: the lock taken by Connect orders it before every read by a callback.
    std::function<void(const char*, const char*, int)> m_fnOnRecv;
};

TEST_F(TCPXCoreTest, ClientLifeReachesEveryCallbackAndQuery) {
    Fd client;
    std::string strAddr = Connect(&client);
    const char* lpszAddr = strAddr.c_str();
    int hServerSide = Events('i').at(0).hSocket, hSocket = -1;
    char tszAddr[128] = {};
    ASSERT_TRUE(NetCore_TCPXCore_GetSocketForAddrEx(m_xhNet, lpszAddr, &hSocket));
    ASSERT_TRUE(NetCore_TCPXCore_GetAddrForSocketEx(m_xhNet, hServerSide, tszAddr));
    EXPECT_EQ(strAddr + " " + std::to_string(hServerSide), tszAddr + (" " + std::to_string(hSocket)));

    // the writable callback fires once registered and again after every send, until removed
    std::atomic<int> nWritable{0};  // the sum of the sockets handed to the callback
    auto fnAdd = [](const char*, int h, void* p) { *static_cast<std::atomic<int>*>(p) += h; };
    // this call leaves the flag raised on success
    ASSERT_TRUE(NetCore_TCPXCore_CBSendEx(m_xhNet, lpszAddr, fnAdd, &nWritable) && ErrorFlag());
    ASSERT_TRUE(WaitFor([&] { return nWritable >= hServerSide; }));
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(m_xhNet, lpszAddr, "world!", 6, 3, -1) && !ErrorFlag());
    ASSERT_TRUE(WaitFor([&] { return nWritable >= 2 * hServerSide; }));
    ASSERT_TRUE(NetCore_TCPXCore_CBSendEx(m_xhNet, lpszAddr, nullptr, nullptr));
    ASSERT_TRUE(SendAll(client.Get(), "hello") && WaitFor([&] { return Received() == "hello|"; }));
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(m_xhNet, lpszAddr, "ok", 2, 3, 100));  // waits for writability first
    EXPECT_EQ("world!ok", Read(client.Get(), 8));
    EXPECT_EQ((Flow{8, 5, 2, 1}), FlowOf(m_xhNet, lpszAddr));
    unsigned long long nSendTime = 1, nRecvTime = 1, nOnline = ~0ULL;
    ASSERT_TRUE(NetCore_TCPXCore_GetTimeEx(m_xhNet, lpszAddr, &nSendTime, &nRecvTime, &nOnline));
    EXPECT_TRUE(nSendTime <= nRecvTime && nRecvTime < 5000 && nOnline < 5000) << nSendTime << " " << nRecvTime;
    // the counter less the period's opening snapshot / 4 (the first send and read opened the
    // periods); over the client's or the server's life per (milliseconds * 1000), so 0
    EXPECT_EQ((Flow{8 - 6 / 4, 5 - 5 / 4, 2 - 1 / 4, 1 - 1 / 4}), FlowOf(m_xhNet, lpszAddr, 0));
    EXPECT_EQ((Flow{0, 0, 0, 0}), FlowOf(m_xhNet, lpszAddr, 1));
    EXPECT_EQ((Flow{0, 0, 0, 0}), FlowOf(m_xhNet, nullptr, 0));

    linger st_Linger{1, 0};
    ASSERT_EQ(0, setsockopt(client.Get(), SOL_SOCKET, SO_LINGER, &st_Linger, sizeof(st_Linger)));
    client.Reset();  // a reset by the peer is a leave (the end of file is one in the framing case)
    ASSERT_TRUE(WaitFor([&] { return Events('o').size() == 1; }));
    for (char cKind : {'i', 'r', 'o'})  // each callback names the client by address and server-side socket
        EXPECT_EQ(strAddr + " " + std::to_string(hServerSide), Events(cKind).at(0).Who());
    ASSERT_TRUE(WaitFor([&] { return List(m_xhNet).empty(); }));
    EXPECT_EQ((Flow{8, 5, 2, 1}), FlowOf(m_xhNet, nullptr));  // the server's totals outlive the client
}

TEST_F(TCPXCoreTest, RefusedDisabledPausedAndClosedClientsAndADestroyFromACallback) {
    std::atomic<unsigned long long> nSendCode{0};
    std::atomic<bool> bDestroyed{false};
    std::atomic<const std::string*> pRelayTo{nullptr};                  // "relay" is answered on that client
    m_fnOnRecv = [&](const char* lpszAddr, const char* lpszMsg, int) {  // "bye" closes its client, "stop" the server
        std::string strMsg = lpszMsg != nullptr ? lpszMsg : "";
        if (strMsg == "stop") bDestroyed = NetCore_TCPXCore_DestroyEx(m_xhNet, true);
        if (strMsg == "relay") NetCore_TCPXCore_SendEx(m_xhNet, pRelayTo.load()->c_str(), "relayed", 7, 1, -1);
        // then an answer to the closed client, with the very text the callback was handed
        if (strMsg == "bye" && NetCore_TCPXCore_CloseForClientEx(m_xhNet, lpszAddr))
            nSendCode = NetCore_TCPXCore_SendEx(m_xhNet, lpszAddr, "x", 1, 1, -1) ? 1 : NetCore_GetLastError(nullptr);
    };
    Fd refused, disabled, paused, closed, ended;
    m_bLogin = false;
    Connect(&refused);
    SendAll(refused.Get(), "early data");
    EXPECT_EQ("closed", Read(refused.Get()));
    m_bLogin = true;
    std::string strOff = Connect(&disabled), strPaused = Connect(&paused), strClosed = Connect(&closed);
    std::string strEnded = Connect(&ended);
    ASSERT_TRUE(NetCore_TCPXCore_SetStatusEx(m_xhNet, strOff.c_str(), true));
    ExpectFail(NetCore_TCPXCore_SendEx(m_xhNet, strOff.c_str(), "x", 1, 1, -1), ERROR_NETCORE_TCPXCORE_SEND_STATUS);
    ASSERT_TRUE(SendAll(disabled.Get(), "data") && Read(disabled.Get()) == "closed");
    EXPECT_EQ("(null -1)|", Received());

    ASSERT_TRUE(NetCore_TCPXCore_PasueRecvEx(m_xhNet, strPaused.c_str(), false));
    // no longer registered
    ExpectFail(NetCore_TCPXCore_PasueRecvEx(m_xhNet, strPaused.c_str(), false), ERROR_NETCORE_TCPXCORE_PAUSE_EPOLLCTL);
    ASSERT_TRUE(SendAll(paused.Get(), "held"));
    int hPaused = Events('i')[2].hSocket, nWaiting = 0;
    ASSERT_TRUE(WaitFor([&] { return ioctl(hPaused, FIONREAD, &nWaiting) == 0 && nWaiting == 4; }));
    EXPECT_EQ("", Received(strPaused));
    ASSERT_TRUE(NetCore_TCPXCore_PasueRecvEx(m_xhNet, strPaused.c_str(), true));
    ASSERT_TRUE(WaitFor([&] { return Received(strPaused) == "held|"; }));
    // data and the end of the stream waiting together: the data, then the leave
    ASSERT_TRUE(NetCore_TCPXCore_PasueRecvEx(m_xhNet, strEnded.c_str(), false));
    ASSERT_TRUE(SendAll(ended.Get(), "last") && shutdown(ended.Get(), SHUT_WR) == 0);
    pollfd st_Ended{Events('i', strEnded)[0].hSocket, POLLRDHUP, 0};
    ASSERT_TRUE(WaitFor([&] { return poll(&st_Ended, 1, 0) == 1; }));
    ASSERT_TRUE(NetCore_TCPXCore_PasueRecvEx(m_xhNet, strEnded.c_str(), true));
    ASSERT_TRUE(WaitFor([&] { return Events('o').size() == 1; }));
    EXPECT_EQ("last|", Received(strEnded));

    pRelayTo = &strPaused;
    ASSERT_TRUE(SendAll(closed.Get(), "relay"));
    EXPECT_EQ("relayed", Read(paused.Get(), 7));
    ASSERT_TRUE(SendAll(closed.Get(), "bye") && Read(closed.Get()) == "closed");
    ASSERT_TRUE(WaitFor([&] { return nSendCode.load() != 0; }));
    EXPECT_EQ(ERROR_NETCORE_TCPXCORE_NOTFOUND, nSendCode.load());
    EXPECT_EQ(std::vector<std::string>{strPaused}, List(m_xhNet));
    ExpectFail(NetCore_TCPXCore_CloseForClientEx(m_xhNet, strClosed.c_str()), ERROR_NETCORE_TCPXCORE_NOTFOUND);
    EXPECT_EQ(1u, Events('o').size());  // the ended client's: neither closing by the server calls it
    ASSERT_TRUE(SendAll(paused.Get(), "stop") && WaitFor([&] { return bDestroyed.load(); }));
    m_xhNet = nullptr;  // gone; the fixture checks that its threads and descriptors are too
    EXPECT_EQ("closed", Read(paused.Get()));
}

// One row per refused call (named without the family prefix): run on the server it gives the
// row's code, on a null handle the handle code.
using Row = std::pair<std::function<bool(void*)>, unsigned long long>;
#define ROW(code, call) Row([&](void* h) { return NetCore_TCPXCore_##call; }, ERROR_NETCORE_TCPXCORE_##code)

TEST_F(TCPXCoreTest, BadArgumentsUnknownClientsAndNullHandlesGetTheirCodes) {
    unsigned long long n = 0;
    int nInt = 0;
    char tszAddr[256] = {}, **ppszList = nullptr;
    const char* lpszNo = "1.2.3.4:5";
    // the rows packed a few to a line
    // clang-format off
    const std::vector<Row> stl_Rows = {
        ROW(PARAMENT, SendEx(h, lpszNo, "x", 0, 1, -1)), ROW(PARAMENT, SendEx(h, lpszNo, nullptr, 1, 1, -1)),
        ROW(NOTFOUND, SendEx(h, lpszNo, "x", 1, 1, -1)), ROW(PARAMENT, CloseForClientEx(h, nullptr)),
        ROW(PARAMENT, CBSendEx(h, nullptr, OnLeave, nullptr)), ROW(NOTFOUND, CBSendEx(h, lpszNo, OnLeave, nullptr)),
        ROW(PARAMENT, GetAllEx(h, nullptr, &nInt)), ROW(EMPTY, GetAllEx(h, &ppszList, &nInt)),
        ROW(PARAMENT, SetStatusEx(h, nullptr, true)), ROW(NOTFOUND, SetStatusEx(h, lpszNo, true)),
        ROW(PARAMENT, RegisterCallBackEx(h, OnLogin, OnRecv, nullptr, this, this, this)),
        ROW(PARAMENT, GetAddrForSocketEx(h, 0, tszAddr)), ROW(NOTFOUND, GetAddrForSocketEx(h, 12345, tszAddr)),
        ROW(PARAMENT, GetSocketForAddrEx(h, lpszNo, nullptr)), ROW(NOTFOUND, GetSocketForAddrEx(h, lpszNo, &nInt)),
        ROW(PARAMENT, GetFlowEx(h, &n, nullptr, &n, &n, nullptr)),
        ROW(NOTFOUND, GetFlowEx(h, &n, &n, nullptr, nullptr, lpszNo)),
        ROW(PARAMENT, GetTimeEx(h, lpszNo, &n, nullptr, &n)), ROW(NOTFOUND, GetTimeEx(h, lpszNo, &n, &n, nullptr)),
        ROW(PARAMENT, GetAverageFlowEx(h, &n, &n, &n, nullptr, nullptr, true)),
        ROW(NOTFOUND, GetAverageFlowEx(h, &n, &n, &n, &n, lpszNo, false)),
        ROW(PARAMENT, SetLimitEx(h, nullptr, 10, "\n")), ROW(NOTFOUND, SetLimitEx(h, lpszNo, 10, nullptr)),
        ROW(PARAMENT, GetLimitEx(h, nullptr, &nInt, tszAddr)), ROW(NOTFOUND, GetLimitEx(h, lpszNo, &nInt, tszAddr)),
        ROW(PARAMENT, PasueRecvEx(h, nullptr, true)), ROW(NOTFOUND, PasueRecvEx(h, lpszNo, true)),
    };
    // clang-format on
    for (size_t i = 0; i < 2 * stl_Rows.size(); i++) {  // each row on the server, then on a null handle
        SCOPED_TRACE(i / 2);
        ResetErrorState();
        void* xhNet = i % 2 == 0 ? m_xhNet : nullptr;
        ExpectFail(stl_Rows[i / 2].first(xhNet),
                   xhNet != nullptr ? stl_Rows[i / 2].second : ERROR_NETCORE_TCPXCORE_EX_HANDLE);
    }
    // a success clears the flag and keeps the code, the stop of a server included
    EXPECT_TRUE(NetCore_TCPXCore_GetFlowEx(m_xhNet, &n, &n, nullptr, nullptr, nullptr) && !ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_TCPXCORE_EX_HANDLE, NetCore_GetLastError(nullptr));
    EXPECT_FALSE(NetCore_TCPXCore_GetAllEx(m_xhNet, nullptr, nullptr));
    Stop();
    EXPECT_FALSE(ErrorFlag());
    ExpectFail(NetCore_TCPXCore_DestroyEx(nullptr, true), ERROR_NETCORE_TCPXCORE_EX_HANDLE);
}

TEST_F(TCPXCoreTest, BusyPortFailsAndASecondServerAdmitsItsOwnClientsUpToItsLimit) {
    Fd a, b, over;
    std::string strA = Connect(&a);
    ExpectFail(NetCore_TCPXCore_StartEx(m_nPort, 10, 1, false, true, 1, AF_INET), ERROR_NETCORE_SOCKET_BIND_BIND);
    // the second one on IPv6 where the host has it, for one client, with a flow period of 0 and
    // one event thread per hardware thread
    int nFamily = Ipv6Available() ? AF_INET6 : AF_INET, nPort = 0;
    int nThreads = CountThreads() + static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    void* xhTwo = StartOne(1, 0, 0, nFamily, &nPort);
    EXPECT_TRUE(WaitFor([&] { return CountThreads() == nThreads; }));
    std::string strB = Connect(&b, nFamily, nPort), strOver = Connect(&over, nFamily, nPort);
    // the one over the limit hears of it with socket 0 and is closed
    EXPECT_EQ(strOver + " 0", Events('i')[2].Who());
    EXPECT_EQ("closed", Read(over.Get()));
    ASSERT_TRUE(SendAll(b.Get(), "abcde") && WaitFor([&] { return Received(strB) == "abcde|"; }));
    EXPECT_EQ(std::vector<std::string>{strA}, List(m_xhNet));
    EXPECT_EQ(std::vector<std::string>{strB}, List(xhTwo));
    EXPECT_EQ(0u, Events('o').size());
    ExpectFail(NetCore_TCPXCore_SendEx(m_xhNet, strB.c_str(), "x", 1, 1, -1), ERROR_NETCORE_TCPXCORE_NOTFOUND);
    EXPECT_EQ((Flow{0, 5, 0, 1}), FlowOf(xhTwo, strB.c_str(), 0));  // the counters themselves
    Stop();                                                         // leaves the other serving
    EXPECT_EQ("closed", Read(a.Get()));
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(xhTwo, strB.c_str(), "six", 3, 3, -1));
    EXPECT_EQ("six", Read(b.Get(), 3));
    EXPECT_TRUE(NetCore_TCPXCore_DestroyEx(xhTwo, false));
}

TEST_F(TCPXCoreTest, SendsWaitForWritabilityOnSocketsNumberedAboveFdSetSize) {
    rlimit st_Limit{};
    if (getrlimit(RLIMIT_NOFILE, &st_Limit) != 0 || st_Limit.rlim_cur < FD_SETSIZE + 64) GTEST_SKIP() << "too few fds";
    std::vector<Fd> fillers;  // the low numbers taken, the accepted socket lands above FD_SETSIZE
    for (int n = CountOpenFds(); n < FD_SETSIZE + 8; n++)
        fillers.emplace_back(fcntl(0, F_DUPFD_CLOEXEC, 0));
    Fd client;
    std::string strAddr = Connect(&client);
    EXPECT_GE(Events('i')[0].hSocket, FD_SETSIZE);
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(m_xhNet, strAddr.c_str(), "high", 4, 3, 500));
    EXPECT_EQ("high", Read(client.Get(), 4));
}

TEST_F(TCPXCoreTest, FramingByTerminatorAndByLengthKeepsEveryMessageOfABurstInOrder) {
    Fd client;
    std::string strAddr = Connect(&client);
    const char* lpszAddr = strAddr.c_str();
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(m_xhNet, lpszAddr, 4096, "\r\n"));
    for (const char* lpszRead : {"GET / HT", "TP\r\nHost", ": a\r\n"})  // all buffered once the terminator is in
        SendAsOneRead(client.Get(), strAddr, lpszRead);
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(m_xhNet, lpszAddr, 0, ""));  // plain reads
    SendAsOneRead(client.Get(), strAddr, "raw");
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(m_xhNet, lpszAddr, 10, nullptr));
    // whole messages, one per read at most; the rest stays buffered for the next read
    for (const char* lpszRead : {"abcdefg", "hijklmn", "opqrst", "xxxxxxxxxxxxxxxxxxxxxxxxx", "y"})
        SendAsOneRead(client.Get(), strAddr, lpszRead);
    int nPktLen = 0;
    char tszEndMark[256] = {'?'};
    EXPECT_TRUE(NetCore_TCPXCore_GetLimitEx(m_xhNet, lpszAddr, &nPktLen, tszEndMark) && nPktLen == 10 && !*tszEndMark);
    // the terminator keeps its first 255 characters; a length beyond the buffer is kept as given
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(m_xhNet, lpszAddr, 20000, std::string(300, 'm').c_str()));
    ASSERT_TRUE(NetCore_TCPXCore_GetLimitEx(m_xhNet, lpszAddr, &nPktLen, tszEndMark));
    EXPECT_EQ("20000 " + std::string(255, 'm'), std::to_string(nPktLen) + " " + tszEndMark);
    client.Reset();  // leaving mid-message delivers nothing more
    ASSERT_TRUE(WaitFor([&] { return Events('o').size() == 1; }));
    EXPECT_EQ("GET / HTTP\r\nHost|: a\r\n|raw|abcdefghij|klmnopqrst|xxxxxxxxxx|xxxxxxxxxx|", Received());

    // a burst beyond the buffer in rows numbered in order, so that a lost, repeated or shifted byte shows
    std::string strData;
    for (int i = 0; i < 6000; i++)
        strData += std::to_string(1000000000 + i).substr(1) + ";";
    for (int nLength : {10, 20000}) {  // 20000 frames by the 8192-byte buffer
        strAddr = Connect(&client);
        ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(m_xhNet, strAddr.c_str(), nLength, nullptr));
        // a message begun in the buffer, then many full reads behind it
        SendAsOneRead(client.Get(), strAddr, strData.substr(0, 7));
        ASSERT_TRUE(SendAll(client.Get(), strData.substr(7)));
        ASSERT_TRUE(WaitFor([&] { return FlowOf(m_xhNet, strAddr.c_str())[1] == strData.size(); }));
        // every delivery whole and in order, at most a buffer's worth left undelivered
        std::string strGot = Received(strAddr), strWant;
        for (size_t i = 0; strWant.size() < strGot.size(); i += std::min(nLength, 8192))
            strWant += strData.substr(i, std::min(nLength, 8192)) + "|";
        EXPECT_EQ(strWant, strGot) << nLength;
        EXPECT_LE(strData.size() + std::count(strGot.begin(), strGot.end(), '|') - strGot.size(), 8192u);
    }
}

TEST_F(TCPXCoreTest, FloodingClientDoesNotStarveOthersOnItsThread) {
    Fd flooder, quiet;
    std::string strFlooder = Connect(&flooder), strQuiet = Connect(&quiet);
    std::atomic<bool> bStop{false};
    std::atomic<unsigned long long> nSent{0};
    std::thread flood([&] {
        for (std::string strChunk(65536, 'f'); !bStop; std::this_thread::yield())
            nSent += std::max<ssize_t>(
                send(flooder.Get(), strChunk.data(), strChunk.size(), MSG_NOSIGNAL | MSG_DONTWAIT), 0);
    });
    EXPECT_TRUE(WaitFor([&] { return nSent > (4u << 20); }) && SendAll(quiet.Get(), "heard") &&
                WaitFor([&] { return Received(strQuiet) == "heard|"; }));
    bStop = true;
    flood.join();
    // the rest of a long drain is read without new data arriving
    EXPECT_TRUE(WaitFor([&] { return FlowOf(m_xhNet, strFlooder.c_str())[1] == nSent; }));
}

}  // namespace
