// The TCP epoll server through its exported handle functions, with real loopback clients: one
// started server per case, recording every callback.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <thread>
#include <vector>

#include "Ombrelt_BaseLib.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using nctest::ErrorFlag;
using nctest::Fd;
using nctest::WaitFor;
using Flow = std::array<unsigned long long, 4>;
using Strings = std::vector<std::string>;
using Hook = std::function<void(const char* lpszAddr, const char* lpszMsg, int nLen)>;

struct Event {
    char cKind;  // 'i' login, 'r' receive, 'o' leave
    std::string strAddr;
    int hSocket;
    std::string strData;  // "(null <length>)" for null data
};

void ExpectFail(bool bOk, unsigned long long nCode) {
    EXPECT_FALSE(bOk);
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(nCode, NetCore_GetLastError(nullptr)) << std::hex << "expected 0x" << nCode;
}

// a blocking socket takes the whole buffer in one call
bool SendAll(int hSocket, const std::string& strData) {
    return send(hSocket, strData.data(), strData.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(strData.size());
}

std::string ReadExactly(int hSocket, size_t nLen) {
    std::string strData;
    WaitFor([&] {
        char tszBuffer[4096];
        ssize_t n = recv(hSocket, tszBuffer, std::min(sizeof(tszBuffer), nLen - strData.size()), MSG_DONTWAIT);
        if (n > 0) strData.append(tszBuffer, static_cast<size_t>(n));
        return strData.size() == nLen || n == 0;
    });
    return strData;
}

// The server closed the connection: end of file or reset (data still arriving is discarded).
bool PeerClosed(int hSocket) {
    return WaitFor([&] {
        char tszBuffer[4096];
        ssize_t n = recv(hSocket, tszBuffer, sizeof(tszBuffer), MSG_DONTWAIT);
        return n == 0 || (n < 0 && errno != EAGAIN);
    });
}

class TCPXCoreTest : public nctest::NetCoreTest {
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
            nctest::ListenTcp(nFamily, pnPort);
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
        *pClient = nctest::ConnectTcp(nFamily, nPort != 0 ? nPort : m_nPort);
        EXPECT_TRUE(WaitFor([&] { return Events('i').size() > nBefore; }));
        return (nFamily == AF_INET ? "127.0.0.1:" : "::1:") + std::to_string(nctest::LocalPort(pClient->Get()));
    }
    std::vector<Event> Events(char cKind) {
        std::lock_guard<std::mutex> st_Lock(m_Lock);
        std::vector<Event> stl_Events;
        for (const Event& st_Event : m_stlEvents)
            if (st_Event.cKind == cKind) stl_Events.push_back(st_Event);
        return stl_Events;
    }
    // The data delivered for one client (every client: empty address), each delivery ending in '|'.
    std::string Received(const std::string& strAddr = "") {
        std::string strAll;
        for (const Event& st_Event : Events('r'))
            if (strAddr.empty() || st_Event.strAddr == strAddr) strAll += st_Event.strData + "|";
        return strAll;
    }
    void OnRecvDo(Hook fnHook) {
        std::lock_guard<std::mutex> st_Lock(m_Lock);
        m_fnOnRecv = std::move(fnHook);
    }
    // Every client address of a server, sorted; the rows are released as the caller must.
    Strings List(void* xhNet) {
        char** ppszList = nullptr;
        int nCount = 0;
        if (!NetCore_TCPXCore_GetAllEx(xhNet, &ppszList, &nCount)) return {};
        Strings stl_List(ppszList, ppszList + nCount);
        EXPECT_TRUE(BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppszList), nCount));
        std::sort(stl_List.begin(), stl_List.end());
        return stl_List;
    }
    Flow FlowOf(const char* lpszAddr) {
        Flow st_Flow{};
        EXPECT_TRUE(NetCore_TCPXCore_GetFlowEx(m_xhNet, &st_Flow[0], &st_Flow[1], &st_Flow[2], &st_Flow[3], lpszAddr));
        return st_Flow;
    }
    static Flow AverageOf(void* xhNet, const char* lpszAddr, bool bAll) {
        Flow st_Flow{};
        NetCore_TCPXCore_GetAverageFlowEx(xhNet, &st_Flow[0], &st_Flow[1], &st_Flow[2], &st_Flow[3], lpszAddr, bAll);
        return st_Flow;
    }
    // Sends one chunk and waits until the server has read it on its own.
    void SendAsOneRead(int hClient, const std::string& strAddr, const std::string& strData) {
        unsigned long long nReads = FlowOf(strAddr.c_str())[3];
        ASSERT_TRUE(SendAll(hClient, strData));
        ASSERT_TRUE(WaitFor([&] { return FlowOf(strAddr.c_str())[3] > nReads; }));
    }

    static bool OnLogin(const char* lpszAddr, int hSocket, void* lParam) {
        auto* pThis = static_cast<TCPXCoreTest*>(lParam);
        // at the accept no millisecond has passed yet: every life average is 0, not a division by 0
        Flow st_Average = AverageOf(pThis->m_xhNet, lpszAddr, true);
        pThis->m_nLoginAverages += st_Average[0] + st_Average[1] + st_Average[2] + st_Average[3];
        pThis->Record({'i', lpszAddr, hSocket, ""});
        return pThis->m_bLogin.load();
    }
    static void OnRecv(const char* lpszAddr, int hSocket, const char* lpszMsg, int nLen, void* lParam) {
        bool bData = lpszMsg != nullptr && nLen > 0;
        EXPECT_TRUE(!bData || lpszMsg[nLen] == '\0') << "the data is followed by a zero byte";
        Hook fnHook = static_cast<TCPXCoreTest*>(lParam)->Record(
            {'r', lpszAddr, hSocket, bData ? std::string(lpszMsg, nLen) : "(null " + std::to_string(nLen) + ")"});
        if (fnHook) fnHook(lpszAddr, lpszMsg, nLen);
    }
    static void OnWritable(const char*, int hSocket, void* lParam) {
        static_cast<TCPXCoreTest*>(lParam)->m_nWritable += hSocket;
    }
    static void OnLeave(const char* lpszAddr, int hSocket, void* lParam) {
        static_cast<TCPXCoreTest*>(lParam)->Record({'o', lpszAddr, hSocket, ""});
    }
    Hook Record(Event st_Event) {
        std::lock_guard<std::mutex> st_Lock(m_Lock);
        m_stlEvents.push_back(std::move(st_Event));
        return m_fnOnRecv;
    }

    void* m_xhNet = nullptr;
    int m_nPort = 0;
    std::atomic<bool> m_bLogin{true};
    std::atomic<unsigned long long> m_nLoginAverages{0};
    std::atomic<int> m_nWritable{0};  // the sum of the sockets the writable callback was handed
    std::mutex m_Lock;
    std::vector<Event> m_stlEvents;
    Hook m_fnOnRecv;
};

TEST_F(TCPXCoreTest, ClientLifeReachesEveryCallbackAndQuery) {
    Fd client;
    std::string strAddr = Connect(&client);
    ASSERT_EQ(1u, Events('i').size());
    EXPECT_EQ(strAddr, Events('i')[0].strAddr);
    int hServerSide = Events('i')[0].hSocket, hSocket = -1;
    char tszAddr[128] = {};
    ASSERT_TRUE(NetCore_TCPXCore_GetSocketForAddrEx(m_xhNet, strAddr.c_str(), &hSocket));
    ASSERT_TRUE(NetCore_TCPXCore_GetAddrForSocketEx(m_xhNet, hServerSide, tszAddr));
    EXPECT_EQ(hServerSide, hSocket);
    EXPECT_EQ(strAddr, tszAddr);
    unsigned long long nSendTime = 1, nRecvTime = 1, nOnline = ~0ULL;
    ASSERT_TRUE(NetCore_TCPXCore_GetTimeEx(m_xhNet, strAddr.c_str(), &nSendTime, &nRecvTime, &nOnline));
    EXPECT_EQ(0u, nSendTime + nRecvTime);  // nothing sent or received yet
    EXPECT_LT(nOnline, 5000u);

    // the writable callback fires once registered and again after every send, until removed
    ASSERT_TRUE(NetCore_TCPXCore_CBSendEx(m_xhNet, strAddr.c_str(), OnWritable, this));
    EXPECT_TRUE(ErrorFlag());  // this operation leaves the flag raised on success
    ASSERT_TRUE(WaitFor([&] { return m_nWritable >= hServerSide; }));
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(m_xhNet, strAddr.c_str(), "world!", 6, 3, -1));
    EXPECT_FALSE(ErrorFlag());
    ASSERT_TRUE(WaitFor([&] { return m_nWritable >= 2 * hServerSide; }));
    ASSERT_TRUE(NetCore_TCPXCore_CBSendEx(m_xhNet, strAddr.c_str(), nullptr, nullptr));
    ASSERT_TRUE(SendAll(client.Get(), "hello"));
    ASSERT_TRUE(WaitFor([&] { return Events('r').size() == 1; }));
    EXPECT_EQ(strAddr, Events('r')[0].strAddr);
    EXPECT_EQ(hServerSide, Events('r')[0].hSocket);
    EXPECT_EQ("hello", Events('r')[0].strData);
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(m_xhNet, strAddr.c_str(), "ok", 2, 3, 100));  // waits for writability first
    EXPECT_EQ("world!ok", ReadExactly(client.Get(), 8));
    EXPECT_EQ((Flow{8, 5, 2, 1}), FlowOf(strAddr.c_str()));
    ASSERT_TRUE(NetCore_TCPXCore_GetTimeEx(m_xhNet, strAddr.c_str(), &nSendTime, &nRecvTime, nullptr));
    EXPECT_LT(nSendTime, 5000u);
    EXPECT_GE(nRecvTime, nSendTime);
    EXPECT_LT(nRecvTime, 5000u);
    // the counter less the period's opening snapshot / 4 (the first send and read opened the
    // periods); over the client's or the server's life per (milliseconds * 1000), so 0
    EXPECT_EQ((Flow{8 - 6 / 4, 5 - 5 / 4, 2 - 1 / 4, 1 - 1 / 4}), AverageOf(m_xhNet, strAddr.c_str(), false));
    EXPECT_EQ((Flow{0, 0, 0, 0}), AverageOf(m_xhNet, strAddr.c_str(), true));
    EXPECT_EQ((Flow{0, 0, 0, 0}), AverageOf(m_xhNet, nullptr, false));

    client.Reset();
    ASSERT_TRUE(WaitFor([&] { return Events('o').size() == 1; }));
    EXPECT_EQ(strAddr, Events('o')[0].strAddr);
    EXPECT_EQ(hServerSide, Events('o')[0].hSocket);
    char** ppszList = nullptr;
    int nCount = -1;
    ASSERT_TRUE(WaitFor([&] { return !NetCore_TCPXCore_GetAllEx(m_xhNet, &ppszList, &nCount); }));
    ExpectFail(NetCore_TCPXCore_GetAllEx(m_xhNet, &ppszList, &nCount), ERROR_NETCORE_TCPXCORE_EMPTY);
    EXPECT_EQ(nullptr, ppszList);
    EXPECT_EQ((Flow{8, 5, 2, 1}), FlowOf(nullptr));  // the server's totals outlive the client
}

TEST_F(TCPXCoreTest, ManyClientsEchoConcurrentlyOnOneThreadPerHardwareThread) {
    Stop();
    int nThreads = nctest::CountThreads();
    m_xhNet = StartOne(100, 0, 4, AF_INET, &m_nPort);
    EXPECT_TRUE(WaitFor([&] {
        return nctest::CountThreads() - nThreads == static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    }));
    OnRecvDo([this](const char* lpszAddr, const char* lpszMsg, int nLen) {
        NetCore_TCPXCore_SendEx(m_xhNet, lpszAddr, lpszMsg, nLen, 3, -1);
    });
    std::vector<Fd> clients(12);
    std::vector<std::thread> threads;
    std::atomic<unsigned long long> nGood{0}, nBytes{0};
    for (Fd& client : clients) {
        Connect(&client);
        threads.emplace_back([&, hClient = client.Get()] {
            for (int j = 0; j < 10; j++) {
                std::string strMsg = std::to_string(hClient) + " message " + std::to_string(j) + ";";
                nGood += SendAll(hClient, strMsg) && ReadExactly(hClient, strMsg.size()) == strMsg;
                nBytes += strMsg.size();
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(120u, nGood.load());
    // the totals count every event thread's and every sender's share
    EXPECT_EQ((Flow{nBytes, nBytes, 120, 120}), FlowOf(nullptr));
}

TEST_F(TCPXCoreTest, RefusedDisabledPausedAndClosedClients) {
    Fd refused, disabled, paused, closed;
    m_bLogin = false;
    Connect(&refused);
    SendAll(refused.Get(), "early data");
    EXPECT_TRUE(PeerClosed(refused.Get()));
    m_bLogin = true;
    std::string strDisabled = Connect(&disabled), strPaused = Connect(&paused), strClosed = Connect(&closed);
    ASSERT_TRUE(NetCore_TCPXCore_SetStatusEx(m_xhNet, strDisabled.c_str(), true));
    ExpectFail(NetCore_TCPXCore_SendEx(m_xhNet, strDisabled.c_str(), "x", 1, 1, -1),
               ERROR_NETCORE_TCPXCORE_SEND_STATUS);
    ASSERT_TRUE(SendAll(disabled.Get(), "data"));
    EXPECT_TRUE(PeerClosed(disabled.Get()));
    EXPECT_EQ("(null -1)|", Received());

    ASSERT_TRUE(NetCore_TCPXCore_PasueRecvEx(m_xhNet, strPaused.c_str(), false));
    ExpectFail(NetCore_TCPXCore_PasueRecvEx(m_xhNet, strPaused.c_str(), false),
               ERROR_NETCORE_TCPXCORE_PAUSE_EPOLLCTL);  // no longer registered
    ASSERT_TRUE(SendAll(paused.Get(), "held"));
    ASSERT_TRUE(WaitFor([&, hServerSide = Events('i')[2].hSocket] {
        int nWaiting = 0;
        return ioctl(hServerSide, FIONREAD, &nWaiting) == 0 && nWaiting == 4;
    }));
    EXPECT_EQ("", Received(strPaused));
    ASSERT_TRUE(NetCore_TCPXCore_PasueRecvEx(m_xhNet, strPaused.c_str(), true));
    ASSERT_TRUE(WaitFor([&] { return Received(strPaused) == "held|"; }));

    ASSERT_TRUE(NetCore_TCPXCore_CloseForClientEx(m_xhNet, strClosed.c_str()));
    EXPECT_TRUE(PeerClosed(closed.Get()));
    EXPECT_EQ(Strings{strPaused}, List(m_xhNet));
    ExpectFail(NetCore_TCPXCore_CloseForClientEx(m_xhNet, strClosed.c_str()), ERROR_NETCORE_TCPXCORE_NOTFOUND);
    EXPECT_EQ(0u, Events('o').size());  // neither closing by the server calls the leave callback
    linger st_Linger{1, 0};
    ASSERT_EQ(0, setsockopt(paused.Get(), SOL_SOCKET, SO_LINGER, &st_Linger, sizeof(st_Linger)));
    paused.Reset();  // a reset by the peer does
    ASSERT_TRUE(WaitFor([&] { return Events('o').size() == 1; }));
    EXPECT_EQ(strPaused, Events('o')[0].strAddr);
}

TEST_F(TCPXCoreTest, CallbacksMayCloseTheirClientOrDestroyTheirServer) {
    std::atomic<bool> bSentAfterClose{true}, bDestroyed{false};
    std::atomic<unsigned long long> nSendCode{0};
    OnRecvDo([&](const char* lpszAddr, const char* lpszMsg, int) {
        if (std::string(lpszMsg) == "stop") {
            bDestroyed = NetCore_TCPXCore_DestroyEx(m_xhNet, true);
            return;
        }
        NetCore_TCPXCore_CloseForClientEx(m_xhNet, lpszAddr);
        // an answer to the closed client, with the very text the callback was handed
        bSentAfterClose = NetCore_TCPXCore_SendEx(m_xhNet, lpszAddr, "x", 1, 1, -1);
        nSendCode = NetCore_GetLastError(nullptr);
    });
    Fd first, second;
    Connect(&first);
    Connect(&second);
    ASSERT_TRUE(SendAll(first.Get(), "bye"));
    EXPECT_TRUE(PeerClosed(first.Get()));
    ASSERT_TRUE(WaitFor([&] { return nSendCode.load() != 0; }));
    EXPECT_FALSE(bSentAfterClose.load());
    EXPECT_EQ(ERROR_NETCORE_TCPXCORE_NOTFOUND, nSendCode.load());
    EXPECT_EQ(0u, Events('o').size());
    ASSERT_TRUE(SendAll(second.Get(), "stop"));
    ASSERT_TRUE(WaitFor([&] { return bDestroyed.load(); }));
    m_xhNet = nullptr;  // gone; the fixture checks that its threads and descriptors are too
    EXPECT_TRUE(PeerClosed(second.Get()));
}

// One row per refused call: run on the server it gives the row's code, on a null handle the
// handle code.
#define ROW(code, call)                                              \
    {                                                                \
        [&](void* h) { return call; }, ERROR_NETCORE_TCPXCORE_##code \
    }

TEST_F(TCPXCoreTest, BadArgumentsUnknownClientsAndNullHandlesGetTheirCodes) {
    unsigned long long n = 0;
    int nSocket = 0;
    char tszAddr[256] = {};
    const char* lpszNone = "1.2.3.4:5";
    const std::vector<std::pair<std::function<bool(void*)>, unsigned long long>> stl_Rows = {
        ROW(PARAMENT, NetCore_TCPXCore_SendEx(h, lpszNone, "x", 0, 1, -1)),
        ROW(PARAMENT, NetCore_TCPXCore_SendEx(h, lpszNone, nullptr, 1, 1, -1)),
        ROW(NOTFOUND, NetCore_TCPXCore_SendEx(h, lpszNone, "x", 1, 1, -1)),
        ROW(PARAMENT, NetCore_TCPXCore_CBSendEx(h, nullptr, OnWritable, nullptr)),
        ROW(NOTFOUND, NetCore_TCPXCore_CBSendEx(h, lpszNone, OnWritable, nullptr)),
        ROW(PARAMENT, NetCore_TCPXCore_GetAllEx(h, nullptr, &nSocket)),
        ROW(PARAMENT, NetCore_TCPXCore_CloseForClientEx(h, nullptr)),
        ROW(PARAMENT, NetCore_TCPXCore_SetStatusEx(h, nullptr, true)),
        ROW(NOTFOUND, NetCore_TCPXCore_SetStatusEx(h, lpszNone, true)),
        ROW(PARAMENT, NetCore_TCPXCore_RegisterCallBackEx(h, OnLogin, OnRecv, nullptr, this, this, this)),
        ROW(PARAMENT, NetCore_TCPXCore_GetAddrForSocketEx(h, 0, tszAddr)),
        ROW(NOTFOUND, NetCore_TCPXCore_GetAddrForSocketEx(h, 12345, tszAddr)),
        ROW(PARAMENT, NetCore_TCPXCore_GetSocketForAddrEx(h, lpszNone, nullptr)),
        ROW(NOTFOUND, NetCore_TCPXCore_GetSocketForAddrEx(h, lpszNone, &nSocket)),
        ROW(PARAMENT, NetCore_TCPXCore_GetFlowEx(h, &n, nullptr, &n, &n, nullptr)),
        ROW(NOTFOUND, NetCore_TCPXCore_GetFlowEx(h, &n, &n, nullptr, nullptr, lpszNone)),
        ROW(PARAMENT, NetCore_TCPXCore_GetTimeEx(h, lpszNone, &n, nullptr, &n)),
        ROW(NOTFOUND, NetCore_TCPXCore_GetTimeEx(h, lpszNone, &n, &n, nullptr)),
        ROW(PARAMENT, NetCore_TCPXCore_GetAverageFlowEx(h, &n, &n, &n, nullptr, nullptr, true)),
        ROW(NOTFOUND, NetCore_TCPXCore_GetAverageFlowEx(h, &n, &n, &n, &n, lpszNone, false)),
        ROW(PARAMENT, NetCore_TCPXCore_SetLimitEx(h, nullptr, 10, "\n")),
        ROW(NOTFOUND, NetCore_TCPXCore_SetLimitEx(h, lpszNone, 10, nullptr)),
        ROW(PARAMENT, NetCore_TCPXCore_GetLimitEx(h, nullptr, &nSocket, tszAddr)),
        ROW(NOTFOUND, NetCore_TCPXCore_GetLimitEx(h, lpszNone, &nSocket, tszAddr)),
        ROW(PARAMENT, NetCore_TCPXCore_PasueRecvEx(h, nullptr, true)),
        ROW(NOTFOUND, NetCore_TCPXCore_PasueRecvEx(h, lpszNone, true)),
    };
    for (size_t i = 0; i < stl_Rows.size(); i++) {
        for (void* xhNet : {m_xhNet, static_cast<void*>(nullptr)}) {
            nctest::ResetErrorState();
            SCOPED_TRACE(i);
            ExpectFail(stl_Rows[i].first(xhNet),
                       xhNet != nullptr ? stl_Rows[i].second : ERROR_NETCORE_TCPXCORE_EX_HANDLE);
        }
    }
    // a success clears the flag and keeps the code, the stop of a server included
    EXPECT_TRUE(NetCore_TCPXCore_GetFlowEx(m_xhNet, &n, &n, nullptr, nullptr, nullptr));
    EXPECT_FALSE(ErrorFlag());
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
    // the second one on IPv6 where the host has it, for one client, with a flow period of 0
    int nFamily = nctest::Ipv6Available() ? AF_INET6 : AF_INET, nPort = 0;
    void* xhTwo = StartOne(1, 2, 0, nFamily, &nPort);
    std::string strB = Connect(&b, nFamily, nPort);
    std::string strOver = Connect(&over, nFamily, nPort);
    // the one over the limit hears of it with socket 0 and is closed
    EXPECT_GT(Events('i')[1].hSocket, 0);
    EXPECT_EQ(strOver, Events('i')[2].strAddr);
    EXPECT_EQ(0, Events('i')[2].hSocket);
    EXPECT_TRUE(PeerClosed(over.Get()));
    ASSERT_TRUE(SendAll(b.Get(), "abcde"));
    ASSERT_TRUE(WaitFor([&] { return Received(strB) == "abcde|"; }));
    EXPECT_EQ(Strings{strA}, List(m_xhNet));
    EXPECT_EQ(Strings{strB}, List(xhTwo));
    EXPECT_EQ(0u, Events('o').size());
    ExpectFail(NetCore_TCPXCore_SendEx(m_xhNet, strB.c_str(), "x", 1, 1, -1), ERROR_NETCORE_TCPXCORE_NOTFOUND);
    EXPECT_EQ((Flow{0, 5, 0, 1}), AverageOf(xhTwo, strB.c_str(), false));  // the counters themselves
    Stop();                                                                // leaves the other serving
    EXPECT_TRUE(PeerClosed(a.Get()));
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(xhTwo, strB.c_str(), "six", 3, 3, -1));
    EXPECT_EQ("six", ReadExactly(b.Get(), 3));
    EXPECT_TRUE(NetCore_TCPXCore_DestroyEx(xhTwo, false));
}

TEST_F(TCPXCoreTest, SendsWaitForWritabilityOnSocketsNumberedAboveFdSetSize) {
    rlimit st_Limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &st_Limit));
    if (st_Limit.rlim_cur < FD_SETSIZE + 64) GTEST_SKIP() << "descriptor limit too low";
    std::vector<Fd> fillers;  // the low numbers taken, the accepted socket lands above FD_SETSIZE
    for (int n = nctest::CountOpenFds(); n < FD_SETSIZE + 8; n++)
        fillers.emplace_back(fcntl(0, F_DUPFD_CLOEXEC, 0));
    Fd client;
    std::string strAddr = Connect(&client);
    EXPECT_GE(Events('i')[0].hSocket, FD_SETSIZE);
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(m_xhNet, strAddr.c_str(), "high", 4, 3, 500));
    EXPECT_EQ("high", ReadExactly(client.Get(), 4));
}

// ----- framing -----------------------------------------------------------------------------------

TEST_F(TCPXCoreTest, FramingByTerminatorAndByLength) {
    Fd client;
    std::string strAddr = Connect(&client);
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(m_xhNet, strAddr.c_str(), 4096, "\r\n"));
    SendAsOneRead(client.Get(), strAddr, "GET / HT");
    EXPECT_EQ("", Received());
    SendAsOneRead(client.Get(), strAddr, "TP\r\nHost");  // everything buffered once the terminator is in
    SendAsOneRead(client.Get(), strAddr, ": a\r\n");
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(m_xhNet, strAddr.c_str(), 0, ""));  // plain reads
    SendAsOneRead(client.Get(), strAddr, "raw");
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(m_xhNet, strAddr.c_str(), 10, nullptr));
    // whole messages, one per read at most; the rest stays buffered for the next read
    for (const char* lpszRead : {"abcdefg", "hijklmn", "opqrst", "xxxxxxxxxxxxxxxxxxxxxxxxx", "y"})
        SendAsOneRead(client.Get(), strAddr, lpszRead);
    EXPECT_EQ("GET / HTTP\r\nHost|: a\r\n|raw|abcdefghij|klmnopqrst|xxxxxxxxxx|xxxxxxxxxx|", Received());
    int nPktLen = 0;
    char tszEndMark[256] = {'?'};
    ASSERT_TRUE(NetCore_TCPXCore_GetLimitEx(m_xhNet, strAddr.c_str(), &nPktLen, tszEndMark));
    EXPECT_EQ(10, nPktLen);
    EXPECT_STREQ("", tszEndMark);
    // the terminator keeps its first 255 characters; a length beyond the buffer is kept as given
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(m_xhNet, strAddr.c_str(), 20000, std::string(300, 'm').c_str()));
    ASSERT_TRUE(NetCore_TCPXCore_GetLimitEx(m_xhNet, strAddr.c_str(), &nPktLen, tszEndMark));
    EXPECT_EQ(20000, nPktLen);
    EXPECT_EQ(std::string(255, 'm'), tszEndMark);
    client.Reset();  // leaving mid-message delivers nothing more
    ASSERT_TRUE(WaitFor([&] { return Events('o').size() == 1; }));
    EXPECT_EQ(7u, Events('r').size());
    EXPECT_EQ(70u, FlowOf(nullptr)[1]);
}

TEST_F(TCPXCoreTest, LengthFramingOfABurstBeyondTheBufferKeepsEveryMessageInOrder) {
    // rows numbered in order, so that a lost, repeated or shifted byte shows
    std::string strData;
    for (int i = 0; i < 6000; i++)
        strData += std::to_string(1000000000 + i).substr(1) + ";";
    for (int nPktLen : {10, 20000}) {  // 20000 frames by the 8192-byte buffer
        Fd client;
        std::string strAddr = Connect(&client);
        ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(m_xhNet, strAddr.c_str(), nPktLen, nullptr));
        // a message begun in the buffer, then many full reads behind it
        SendAsOneRead(client.Get(), strAddr, strData.substr(0, 7));
        ASSERT_TRUE(SendAll(client.Get(), strData.substr(7)));
        ASSERT_TRUE(WaitFor([&] { return FlowOf(strAddr.c_str())[1] == strData.size(); }));
        std::string strDelivered;
        for (const Event& st_Event : Events('r')) {
            if (st_Event.strAddr != strAddr) continue;
            EXPECT_EQ(std::min<size_t>(nPktLen, 8192), st_Event.strData.size());
            strDelivered += st_Event.strData;
        }
        EXPECT_EQ(strData.substr(0, strDelivered.size()), strDelivered);
        EXPECT_LE(strData.size() - strDelivered.size(), 8192u) << nPktLen;
    }
}

TEST_F(TCPXCoreTest, FloodingClientDoesNotStarveOthersOnItsThread) {
    Fd flooder, quiet;
    std::string strFlooder = Connect(&flooder), strQuiet = Connect(&quiet);
    std::atomic<bool> bStop{false};
    std::atomic<unsigned long long> nSent{0};
    std::thread flood([&] {
        std::string strChunk(65536, 'f');
        while (!bStop) {
            ssize_t n = send(flooder.Get(), strChunk.data(), strChunk.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            nSent += static_cast<unsigned long long>(std::max<ssize_t>(n, 0));
            std::this_thread::yield();
        }
    });
    EXPECT_TRUE(WaitFor([&] { return nSent > (4u << 20); }));
    EXPECT_TRUE(SendAll(quiet.Get(), "heard"));
    EXPECT_TRUE(WaitFor([&] { return Received(strQuiet) == "heard|"; }));
    bStop = true;
    flood.join();
    // the rest of a long drain is read without new data arriving
    EXPECT_TRUE(WaitFor([&] { return FlowOf(strFlooder.c_str())[1] == nSent; }));
}

}  // namespace
