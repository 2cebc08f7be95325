// The TCP epoll server through its exported handle functions, with real loopback clients:
// connect, receive, send, leave, admission, per-client controls, queries and lifecycle.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <set>
#include <thread>

#include "Ombrelt_BaseLib.h"
#include "TCPXCoreHelpers.h"

namespace {

using namespace tcpxtest;
using nctest::ErrorFlag;
using nctest::Fd;
using nctest::WaitFor;

class TCPXCoreTest : public nctest::NetCoreTest {};

// ----- connect, receive, answer, leave -----------------------------------------------------------

TEST_F(TCPXCoreTest, ClientLifeReachesEveryCallbackWithItsAddressAndSocket) {
    Server server;
    Fd client;
    std::string strAddr = server.Connect(&client);
    auto logins = server.Events().Logins();
    ASSERT_EQ(1u, logins.size());
    EXPECT_EQ(strAddr, logins[0].first);
    int hServerSide = logins[0].second;
    EXPECT_GT(hServerSide, 0);

    // address and socket translate both ways
    int hSocket = -1;
    ASSERT_TRUE(NetCore_TCPXCore_GetSocketForAddrEx(server.Handle(), strAddr.c_str(), &hSocket));
    EXPECT_EQ(hServerSide, hSocket);
    char tszAddr[128] = {};
    ASSERT_TRUE(NetCore_TCPXCore_GetAddrForSocketEx(server.Handle(), hServerSide, tszAddr));
    EXPECT_EQ(strAddr, tszAddr);

    ASSERT_TRUE(SendAll(client.Get(), "hello"));
    ASSERT_TRUE(WaitFor([&] { return server.Events().RecvCount() == 1; }));
    Recv st_Recv = server.Events().Recvs()[0];
    EXPECT_EQ(strAddr, st_Recv.strAddr);
    EXPECT_EQ(hServerSide, st_Recv.hSocket);
    EXPECT_EQ(5, st_Recv.nLen);
    EXPECT_EQ("hello", st_Recv.strData);

    ASSERT_TRUE(NetCore_TCPXCore_SendEx(server.Handle(), strAddr.c_str(), "world!", 6, 3, -1));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ("world!", ReadExactly(client.Get(), 6));
    // waiting for writability first works the same
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(server.Handle(), strAddr.c_str(), "ok", 2, 3, 100));
    EXPECT_EQ("ok", ReadExactly(client.Get(), 2));

    unsigned long long nSendBytes = 0, nRecvBytes = 0, nSendPackets = 0, nRecvPackets = 0;
    ASSERT_TRUE(NetCore_TCPXCore_GetFlowEx(server.Handle(), &nSendBytes, &nRecvBytes, &nSendPackets, &nRecvPackets,
                                           strAddr.c_str()));
    EXPECT_EQ(8u, nSendBytes);
    EXPECT_EQ(5u, nRecvBytes);
    EXPECT_EQ(2u, nSendPackets);
    EXPECT_EQ(1u, nRecvPackets);

    client.Reset();
    ASSERT_TRUE(WaitFor([&] { return server.Events().LeaveCount() == 1; }));
    EXPECT_EQ(strAddr, server.Events().Leaves()[0].first);
    EXPECT_EQ(hServerSide, server.Events().Leaves()[0].second);
    char** ppszList = nullptr;
    int nCount = -1;
    ASSERT_TRUE(WaitFor([&] { return !NetCore_TCPXCore_GetAllEx(server.Handle(), &ppszList, &nCount); }));
    EXPECT_EQ(nullptr, ppszList);
    ExpectCode(ERROR_NETCORE_TCPXCORE_EMPTY);

    // the server's totals outlive the client
    ASSERT_TRUE(NetCore_TCPXCore_GetFlowEx(server.Handle(), &nSendBytes, &nRecvBytes, nullptr, nullptr, nullptr));
    EXPECT_EQ(8u, nSendBytes);
    EXPECT_EQ(5u, nRecvBytes);
}

TEST_F(TCPXCoreTest, ResetByPeerIsALeave) {
    Server server;
    Fd client;
    std::string strAddr = server.Connect(&client);
    linger st_Linger{1, 0};
    ASSERT_EQ(0, setsockopt(client.Get(), SOL_SOCKET, SO_LINGER, &st_Linger, sizeof(st_Linger)));
    client.Reset();  // sends a reset
    ASSERT_TRUE(WaitFor([&] { return server.Events().LeaveCount() == 1; }));
    EXPECT_EQ(strAddr, server.Events().Leaves()[0].first);
    EXPECT_EQ(0u, server.Events().RecvCount());
}

TEST_F(TCPXCoreTest, ManyClientsEchoConcurrentlyOnSeveralThreads) {
    Server server(1000, 3);
    server.Events().fnOnRecv = [&](const char* lpszAddr, int, const char* lpszMsg, int nLen) {
        NetCore_TCPXCore_SendEx(server.Handle(), lpszAddr, lpszMsg, nLen, 3, -1);
    };
    constexpr int kClients = 40;
    std::vector<Fd> clients(kClients);
    for (Fd& client : clients)
        server.Connect(&client);
    std::vector<std::thread> threads;
    std::atomic<int> nGood{0};
    std::atomic<unsigned long long> nBytes{0};
    for (int i = 0; i < kClients; i++) {
        threads.emplace_back([&, i] {
            bool bOk = true;
            for (int j = 0; j < 20 && bOk; j++) {
                std::string strMsg = "client " + std::to_string(i) + " message " + std::to_string(j) + ";";
                bOk = SendAll(clients[i].Get(), strMsg) && ReadExactly(clients[i].Get(), strMsg.size()) == strMsg;
                nBytes += strMsg.size();
            }
            if (bOk) nGood++;
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(kClients, nGood.load());
    // the server's totals count every event thread's and every sender's share
    unsigned long long nSendBytes = 0, nRecvBytes = 0, nSendPackets = 0, nRecvPackets = 0;
    ASSERT_TRUE(
        NetCore_TCPXCore_GetFlowEx(server.Handle(), &nSendBytes, &nRecvBytes, &nSendPackets, &nRecvPackets, nullptr));
    EXPECT_EQ(nBytes.load(), nSendBytes);
    EXPECT_EQ(nBytes.load(), nRecvBytes);
    EXPECT_EQ(nRecvPackets, nSendPackets);
    EXPECT_GE(nRecvPackets, static_cast<unsigned long long>(kClients));
}

// ----- admission ---------------------------------------------------------------------------------

TEST_F(TCPXCoreTest, ClientOverTheLimitGetsLoginWithSocketZeroAndIsClosed) {
    Server server(1);
    Fd first, second;
    std::string strFirst = server.Connect(&first);
    std::string strSecond = server.Connect(&second);
    auto logins = server.Events().Logins();
    ASSERT_EQ(2u, logins.size());
    EXPECT_GT(logins[0].second, 0);
    EXPECT_EQ(strSecond, logins[1].first);
    EXPECT_EQ(0, logins[1].second);
    EXPECT_TRUE(PeerClosed(second.Get()));

    char** ppszList = nullptr;
    int nCount = 0;
    ASSERT_TRUE(NetCore_TCPXCore_GetAllEx(server.Handle(), &ppszList, &nCount));
    ASSERT_EQ(1, nCount);
    EXPECT_STREQ(strFirst.c_str(), ppszList[0]);
    BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppszList), nCount);
    EXPECT_EQ(0u, server.Events().LeaveCount());
}

TEST_F(TCPXCoreTest, LoginAnsweringFalseClosesBeforeAnyDataIsRead) {
    Server server;
    server.Events().bLoginResult = false;
    // the data is already waiting when the login callback answers
    server.Events().fnOnLogin = [](const char*, int) { std::this_thread::sleep_for(20ms); };
    Fd client(nctest::ConnectTcp(AF_INET, server.Port()));
    ASSERT_TRUE(SendAll(client.Get(), "early data"));
    EXPECT_TRUE(PeerClosed(client.Get()));
    EXPECT_EQ(1u, server.Events().LoginCount());
    EXPECT_EQ(0u, server.Events().RecvCount());
    EXPECT_EQ(0u, server.Events().LeaveCount());
}

// ----- per-client controls -----------------------------------------------------------------------

TEST_F(TCPXCoreTest, DisabledClientIsRefusedSendsAndClosedOnItsNextData) {
    Server server;
    Fd client;
    std::string strAddr = server.Connect(&client);
    ASSERT_TRUE(NetCore_TCPXCore_SetStatusEx(server.Handle(), strAddr.c_str(), true));
    EXPECT_FALSE(NetCore_TCPXCore_SendEx(server.Handle(), strAddr.c_str(), "x", 1, 1, -1));
    ExpectCode(ERROR_NETCORE_TCPXCORE_SEND_STATUS);

    ASSERT_TRUE(SendAll(client.Get(), "data"));
    ASSERT_TRUE(WaitFor([&] { return server.Events().RecvCount() == 1; }));
    Recv st_Recv = server.Events().Recvs()[0];
    EXPECT_TRUE(st_Recv.bNull);
    EXPECT_EQ(-1, st_Recv.nLen);
    EXPECT_TRUE(PeerClosed(client.Get()));
    EXPECT_EQ(0u, server.Events().LeaveCount());
}

TEST_F(TCPXCoreTest, PausedClientIsNotReadUntilResumed) {
    Server server;
    Fd client;
    std::string strAddr = server.Connect(&client);
    ASSERT_TRUE(NetCore_TCPXCore_PasueRecvEx(server.Handle(), strAddr.c_str(), false));
    // pausing twice: the socket is no longer registered
    EXPECT_FALSE(NetCore_TCPXCore_PasueRecvEx(server.Handle(), strAddr.c_str(), false));
    ExpectCode(ERROR_NETCORE_TCPXCORE_PAUSE_EPOLLCTL);

    ASSERT_TRUE(SendAll(client.Get(), "held"));
    EXPECT_FALSE(WaitFor([&] { return server.Events().RecvCount() > 0; }, 200ms));
    ASSERT_TRUE(NetCore_TCPXCore_PasueRecvEx(server.Handle(), strAddr.c_str(), true));
    ASSERT_TRUE(WaitFor([&] { return server.Events().RecvCount() == 1; }));
    EXPECT_EQ("held", server.Events().Recvs()[0].strData);

    // A burst of many reads, all waiting in the server's socket while paused, is drained in full
    // on resume: no later arrival comes to report what a shorter drain would leave behind. The
    // server's side of the connection lives in this process; its buffer is grown to hold it all.
    const std::string strBurst(2 << 20, 'b');
    int hServerSide = server.Events().Logins()[0].second;
    int nBuffer = 4 * static_cast<int>(strBurst.size());
    socklen_t nOptLen = sizeof(nBuffer);
    setsockopt(hServerSide, SOL_SOCKET, SO_RCVBUF, &nBuffer, nOptLen);
    getsockopt(hServerSide, SOL_SOCKET, SO_RCVBUF, &nBuffer, &nOptLen);
    if (nBuffer < 2 * static_cast<int>(strBurst.size())) GTEST_SKIP() << "receive buffers are capped at " << nBuffer;
    ASSERT_TRUE(NetCore_TCPXCore_PasueRecvEx(server.Handle(), strAddr.c_str(), false));
    std::atomic<bool> bSent{false};
    std::thread st_Sender([&] { bSent = SendAll(client.Get(), strBurst); });
    EXPECT_TRUE(WaitFor([&] {
        int nUnsent = -1;
        return bSent.load() && ioctl(client.Get(), TIOCOUTQ, &nUnsent) == 0 && nUnsent == 0;
    })) << "the burst did not reach the server's socket";
    ASSERT_TRUE(NetCore_TCPXCore_PasueRecvEx(server.Handle(), strAddr.c_str(), true));
    st_Sender.join();
    EXPECT_TRUE(WaitFor([&] { return server.Events().DataOf(strAddr).size() == 4 + strBurst.size(); }))
        << server.Events().DataOf(strAddr).size();
}

struct Writable {
    std::atomic<int> nCalls{0};
    std::atomic<int> hSocket{-1};
    static void OnSend(const char*, int hSocket, void* lParam) {
        auto* pThis = static_cast<Writable*>(lParam);
        pThis->hSocket = hSocket;
        pThis->nCalls++;
    }
};

TEST_F(TCPXCoreTest, WritableCallbackFiresWhenRegisteredAndAfterEverySend) {
    Server server;
    Fd client;
    std::string strAddr = server.Connect(&client);
    Writable writable;
    ASSERT_TRUE(NetCore_TCPXCore_CBSendEx(server.Handle(), strAddr.c_str(), Writable::OnSend, &writable));
    // this operation leaves the flag raised on success
    EXPECT_TRUE(ErrorFlag());
    ASSERT_TRUE(WaitFor([&] { return writable.nCalls >= 1; }));
    EXPECT_EQ(server.Events().Logins()[0].second, writable.hSocket.load());

    int nBefore = writable.nCalls;
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(server.Handle(), strAddr.c_str(), "ping", 4, 3, -1));
    ASSERT_TRUE(WaitFor([&] { return writable.nCalls > nBefore; }));

    // removed: sends no longer re-arm it
    ASSERT_TRUE(NetCore_TCPXCore_CBSendEx(server.Handle(), strAddr.c_str(), nullptr, nullptr));
    // receiving still works with the plain registration
    ASSERT_TRUE(SendAll(client.Get(), "in"));
    ASSERT_TRUE(WaitFor([&] { return server.Events().RecvCount() == 1; }));
    EXPECT_EQ("ping", ReadExactly(client.Get(), 4));

    EXPECT_FALSE(NetCore_TCPXCore_CBSendEx(server.Handle(), "10.0.0.1:1", Writable::OnSend, nullptr));
    ExpectCode(ERROR_NETCORE_TCPXCORE_NOTFOUND);
}

TEST_F(TCPXCoreTest, CloseForClientClosesWithoutLeaveAndForgetsTheClient) {
    Server server;
    Fd kept, closed;
    std::string strKept = server.Connect(&kept);
    std::string strClosed = server.Connect(&closed);
    ASSERT_TRUE(NetCore_TCPXCore_CloseForClientEx(server.Handle(), strClosed.c_str()));
    EXPECT_TRUE(PeerClosed(closed.Get()));
    char** ppszList = nullptr;
    int nCount = 0;
    ASSERT_TRUE(NetCore_TCPXCore_GetAllEx(server.Handle(), &ppszList, &nCount));
    ASSERT_EQ(1, nCount);
    EXPECT_STREQ(strKept.c_str(), ppszList[0]);
    BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppszList), nCount);

    EXPECT_FALSE(NetCore_TCPXCore_CloseForClientEx(server.Handle(), strClosed.c_str()));
    ExpectCode(ERROR_NETCORE_TCPXCORE_NOTFOUND);
    int hSocket = 0;
    EXPECT_FALSE(NetCore_TCPXCore_GetSocketForAddrEx(server.Handle(), strClosed.c_str(), &hSocket));
    ExpectCode(ERROR_NETCORE_TCPXCORE_NOTFOUND);
    EXPECT_EQ(0u, server.Events().LeaveCount());
}

TEST_F(TCPXCoreTest, CallbacksMayCloseTheirClientOrDestroyTheirServer) {
    {
        Server server;
        std::atomic<bool> bSentAfterClose{true};
        std::atomic<unsigned long long> nSendCode{0};
        server.Events().fnOnRecv = [&](const char* lpszAddr, int, const char*, int) {
            NetCore_TCPXCore_CloseForClientEx(server.Handle(), lpszAddr);
            // an answer to the closed client, with the very text the callback was handed
            bSentAfterClose = NetCore_TCPXCore_SendEx(server.Handle(), lpszAddr, "x", 1, 1, -1);
            nSendCode = NetCore_GetLastError(nullptr);
        };
        Fd client;
        server.Connect(&client);
        ASSERT_TRUE(SendAll(client.Get(), "bye"));
        EXPECT_TRUE(PeerClosed(client.Get()));
        EXPECT_EQ(1u, server.Events().RecvCount());
        EXPECT_EQ(0u, server.Events().LeaveCount());
        // the callback goes on after the close the client sees
        ASSERT_TRUE(WaitFor([&] { return nSendCode.load() != 0; }));
        EXPECT_FALSE(bSentAfterClose.load());
        EXPECT_EQ(ERROR_NETCORE_TCPXCORE_NOTFOUND, nSendCode.load());
    }
    Server server;
    std::atomic<bool> bDestroyed{false};
    server.Events().fnOnRecv = [&](const char*, int, const char*, int) {
        bDestroyed = NetCore_TCPXCore_DestroyEx(server.Handle(), true);
    };
    Fd client;
    server.Connect(&client);
    ASSERT_TRUE(SendAll(client.Get(), "stop"));
    ASSERT_TRUE(WaitFor([&] { return bDestroyed.load(); }));
    server.Forget();
    EXPECT_TRUE(PeerClosed(client.Get()));
    // the fixture checks that the threads and descriptors are gone
}

// ----- queries -----------------------------------------------------------------------------------

TEST_F(TCPXCoreTest, GetAllListsEveryClientInRowsTheCallerFrees) {
    Server server;
    std::vector<Fd> clients(3);
    std::set<std::string> stl_Expected;
    for (Fd& client : clients)
        stl_Expected.insert(server.Connect(&client));
    char** ppszList = nullptr;
    int nCount = 0;
    ASSERT_TRUE(NetCore_TCPXCore_GetAllEx(server.Handle(), &ppszList, &nCount));
    ASSERT_EQ(3, nCount);
    std::set<std::string> stl_Listed(ppszList, ppszList + nCount);
    EXPECT_EQ(stl_Expected, stl_Listed);
    ASSERT_TRUE(BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppszList), nCount));
}

TEST_F(TCPXCoreTest, TimesCountFromConnectSendAndReceive) {
    Server server;
    Fd client;
    std::string strAddr = server.Connect(&client);
    unsigned long long nSend = 1, nRecv = 1, nOnline = 0;
    ASSERT_TRUE(NetCore_TCPXCore_GetTimeEx(server.Handle(), strAddr.c_str(), &nSend, &nRecv, &nOnline));
    EXPECT_EQ(0u, nSend);  // nothing sent or received yet
    EXPECT_EQ(0u, nRecv);
    EXPECT_LT(nOnline, 5000u);

    ASSERT_TRUE(SendAll(client.Get(), "x"));
    ASSERT_TRUE(WaitFor([&] { return server.Events().RecvCount() == 1; }));
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(server.Handle(), strAddr.c_str(), "y", 1, 3, -1));
    std::this_thread::sleep_for(5ms);  // lets the clock move on; nothing waits on it
    ASSERT_TRUE(NetCore_TCPXCore_GetTimeEx(server.Handle(), strAddr.c_str(), &nSend, &nRecv, nullptr));
    EXPECT_GE(nSend, 1u);
    EXPECT_LT(nSend, 5000u);
    EXPECT_GE(nRecv, nSend);
    EXPECT_LT(nRecv, 5000u);
}

TEST_F(TCPXCoreTest, BadArgumentsAndUnknownClientsGetTheirCodes) {
    Server server;
    void* h = server.Handle();
    unsigned long long n = 0;
    char tszAddr[256] = {};
    const char* lpszUnknown = "1.2.3.4:5";
    struct Case {
        const char* what;
        std::function<bool()> fnCall;
        unsigned long long code;
    } cases[] = {
        {"send length 0", [&] { return NetCore_TCPXCore_SendEx(h, lpszUnknown, "x", 0, 1, -1); },
         ERROR_NETCORE_TCPXCORE_PARAMENT},
        {"send null data", [&] { return NetCore_TCPXCore_SendEx(h, lpszUnknown, nullptr, 1, 1, -1); },
         ERROR_NETCORE_TCPXCORE_PARAMENT},
        {"send unknown", [&] { return NetCore_TCPXCore_SendEx(h, lpszUnknown, "x", 1, 1, -1); },
         ERROR_NETCORE_TCPXCORE_NOTFOUND},
        {"register null",
         [&] {
             return NetCore_TCPXCore_RegisterCallBackEx(h, nullptr, Recorder::OnRecv, Recorder::OnLeave, nullptr,
                                                        nullptr, nullptr);
         },
         ERROR_NETCORE_TCPXCORE_PARAMENT},
        {"addr for socket 0", [&] { return NetCore_TCPXCore_GetAddrForSocketEx(h, 0, tszAddr); },
         ERROR_NETCORE_TCPXCORE_PARAMENT},
        {"addr for unknown socket", [&] { return NetCore_TCPXCore_GetAddrForSocketEx(h, 12345, tszAddr); },
         ERROR_NETCORE_TCPXCORE_NOTFOUND},
        {"socket null", [&] { return NetCore_TCPXCore_GetSocketForAddrEx(h, lpszUnknown, nullptr); },
         ERROR_NETCORE_TCPXCORE_PARAMENT},
        {"flow null", [&] { return NetCore_TCPXCore_GetFlowEx(h, &n, nullptr, nullptr, nullptr, nullptr); },
         ERROR_NETCORE_TCPXCORE_PARAMENT},
        {"flow unknown", [&] { return NetCore_TCPXCore_GetFlowEx(h, &n, &n, nullptr, nullptr, lpszUnknown); },
         ERROR_NETCORE_TCPXCORE_NOTFOUND},
        {"time null address", [&] { return NetCore_TCPXCore_GetTimeEx(h, nullptr, &n, &n, &n); },
         ERROR_NETCORE_TCPXCORE_PARAMENT},
        {"average null", [&] { return NetCore_TCPXCore_GetAverageFlowEx(h, &n, &n, &n, nullptr, nullptr, true); },
         ERROR_NETCORE_TCPXCORE_PARAMENT},
        {"average unknown", [&] { return NetCore_TCPXCore_GetAverageFlowEx(h, &n, &n, &n, &n, lpszUnknown, false); },
         ERROR_NETCORE_TCPXCORE_NOTFOUND},
        {"limit unknown", [&] { return NetCore_TCPXCore_SetLimitEx(h, lpszUnknown, 10, nullptr); },
         ERROR_NETCORE_TCPXCORE_NOTFOUND},
        {"get limit null", [&] { return NetCore_TCPXCore_GetLimitEx(h, nullptr, nullptr, nullptr); },
         ERROR_NETCORE_TCPXCORE_PARAMENT},
        {"status unknown", [&] { return NetCore_TCPXCore_SetStatusEx(h, lpszUnknown, true); },
         ERROR_NETCORE_TCPXCORE_NOTFOUND},
        {"pause null", [&] { return NetCore_TCPXCore_PasueRecvEx(h, nullptr, true); }, ERROR_NETCORE_TCPXCORE_PARAMENT},
        {"close null", [&] { return NetCore_TCPXCore_CloseForClientEx(h, nullptr); }, ERROR_NETCORE_TCPXCORE_PARAMENT},
        {"cbsend null", [&] { return NetCore_TCPXCore_CBSendEx(h, nullptr, nullptr, nullptr); },
         ERROR_NETCORE_TCPXCORE_PARAMENT},
        {"getall null", [&] { return NetCore_TCPXCore_GetAllEx(h, nullptr, nullptr); },
         ERROR_NETCORE_TCPXCORE_PARAMENT},
    };
    for (const Case& c : cases) {
        nctest::ResetErrorState();
        EXPECT_FALSE(c.fnCall()) << c.what;
        EXPECT_TRUE(ErrorFlag()) << c.what;
        EXPECT_EQ(c.code, NetCore_GetLastError(nullptr)) << c.what;
    }
    // a success afterwards clears the flag and keeps the code
    EXPECT_TRUE(NetCore_TCPXCore_GetFlowEx(h, &n, &n, nullptr, nullptr, nullptr));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_TCPXCORE_PARAMENT, NetCore_GetLastError(nullptr));
}

TEST_F(TCPXCoreTest, EveryCallWithANullHandleFailsWithTheHandleCode) {
    unsigned long long n = 0;
    int nSocket = 0;
    char tszAddr[256] = {};
    char** ppszList = nullptr;
    auto fnExpect = [](bool bOk) {
        EXPECT_FALSE(bOk);
        ExpectCode(ERROR_NETCORE_TCPXCORE_EX_HANDLE);
    };
    fnExpect(NetCore_TCPXCore_DestroyEx(nullptr, true));
    fnExpect(NetCore_TCPXCore_SendEx(nullptr, "a:1", "x", 1, 1, -1));
    fnExpect(NetCore_TCPXCore_CBSendEx(nullptr, "a:1", Writable::OnSend, nullptr));
    fnExpect(NetCore_TCPXCore_GetAllEx(nullptr, &ppszList, &nSocket));
    fnExpect(NetCore_TCPXCore_CloseForClientEx(nullptr, "a:1"));
    fnExpect(NetCore_TCPXCore_SetStatusEx(nullptr, "a:1", true));
    fnExpect(NetCore_TCPXCore_RegisterCallBackEx(nullptr, Recorder::OnLogin, Recorder::OnRecv, Recorder::OnLeave,
                                                 nullptr, nullptr, nullptr));
    fnExpect(NetCore_TCPXCore_GetAddrForSocketEx(nullptr, 5, tszAddr));
    fnExpect(NetCore_TCPXCore_GetSocketForAddrEx(nullptr, "a:1", &nSocket));
    fnExpect(NetCore_TCPXCore_GetFlowEx(nullptr, &n, &n, &n, &n, nullptr));
    fnExpect(NetCore_TCPXCore_GetTimeEx(nullptr, "a:1", &n, &n, &n));
    fnExpect(NetCore_TCPXCore_GetAverageFlowEx(nullptr, &n, &n, &n, &n, nullptr, true));
    fnExpect(NetCore_TCPXCore_SetLimitEx(nullptr, "a:1", 10, "\n"));
    fnExpect(NetCore_TCPXCore_GetLimitEx(nullptr, "a:1", &nSocket, tszAddr));
    fnExpect(NetCore_TCPXCore_PasueRecvEx(nullptr, "a:1", true));
    EXPECT_EQ(nullptr, ppszList);
}

// ----- lifecycle ---------------------------------------------------------------------------------

TEST_F(TCPXCoreTest, StartOnABusyPortFailsWithTheBindCode) {
    int nPort = 0;
    Fd listener = nctest::ListenTcp(AF_INET, &nPort);
    EXPECT_EQ(nullptr, NetCore_TCPXCore_StartEx(nPort, 10, 1, false, true, 1, AF_INET));
    ExpectCode(ERROR_NETCORE_SOCKET_BIND_BIND);

    // a port held by a running server is busy for a second one, which does not disturb it
    Server first;
    EXPECT_EQ(nullptr, NetCore_TCPXCore_StartEx(first.Port(), 10, 1, false, true, 1, AF_INET));
    ExpectCode(ERROR_NETCORE_SOCKET_BIND_BIND);
    Fd client;
    first.Connect(&client);
    EXPECT_EQ(1u, first.Events().LoginCount());
}

TEST_F(TCPXCoreTest, TwoServersKeepTheirClientsApart) {
    Server one, two;
    Fd a, b, c;
    std::string strA = one.Connect(&a);
    std::string strB = two.Connect(&b);
    std::string strC = two.Connect(&c);
    char** ppszList = nullptr;
    int nCount = 0;
    ASSERT_TRUE(NetCore_TCPXCore_GetAllEx(one.Handle(), &ppszList, &nCount));
    ASSERT_EQ(1, nCount);
    EXPECT_STREQ(strA.c_str(), ppszList[0]);
    BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppszList), nCount);
    ASSERT_TRUE(NetCore_TCPXCore_GetAllEx(two.Handle(), &ppszList, &nCount));
    EXPECT_EQ(2, nCount);
    BaseLib_OperatorMemory_Free(reinterpret_cast<void***>(&ppszList), nCount);
    EXPECT_FALSE(NetCore_TCPXCore_SendEx(one.Handle(), strB.c_str(), "x", 1, 1, -1));
    ExpectCode(ERROR_NETCORE_TCPXCORE_NOTFOUND);

    // destroying one leaves the other serving
    one.Destroy();
    EXPECT_TRUE(PeerClosed(a.Get()));
    ASSERT_TRUE(SendAll(c.Get(), "still here"));
    ASSERT_TRUE(WaitFor([&] { return two.Events().DataOf(strC) == "still here"; }));
}

TEST_F(TCPXCoreTest, ZeroThreadsMeansOneEventThreadPerHardwareThread) {
    int nBefore = nctest::CountThreads();
    Server server(10, 0);
    ASSERT_NE(nullptr, server.Handle());
    int nHardware = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    EXPECT_TRUE(WaitFor([&] { return nctest::CountThreads() - nBefore == nHardware; }));
}

TEST_F(TCPXCoreTest, ServesIPv6ClientsOnLoopback) {
    if (!nctest::Ipv6Available()) GTEST_SKIP() << "no IPv6 loopback on this host";
    Server server(10, 1, 1, AF_INET6);
    Fd client;
    std::string strAddr = server.Connect(&client, AF_INET6);
    EXPECT_EQ(0u, strAddr.rfind("::1:", 0)) << strAddr;
    EXPECT_EQ(strAddr, server.Events().Logins()[0].first);
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(server.Handle(), strAddr.c_str(), "six", 3, 3, -1));
    EXPECT_EQ("six", ReadExactly(client.Get(), 3));
}

TEST_F(TCPXCoreTest, SendsReachSocketsNumberedAboveFdSetSize) {
    rlimit st_Limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &st_Limit));
    if (st_Limit.rlim_cur < FD_SETSIZE + 64) GTEST_SKIP() << "descriptor limit too low";
    // fill the low descriptor numbers so the accepted socket lands above FD_SETSIZE
    std::vector<Fd> fillers;
    while (nctest::CountOpenFds() < FD_SETSIZE + 8)
        fillers.emplace_back(fcntl(0, F_DUPFD_CLOEXEC, 0));
    Server server;
    Fd client;
    std::string strAddr = server.Connect(&client);
    int hSocket = 0;
    ASSERT_TRUE(NetCore_TCPXCore_GetSocketForAddrEx(server.Handle(), strAddr.c_str(), &hSocket));
    EXPECT_GE(hSocket, FD_SETSIZE);
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(server.Handle(), strAddr.c_str(), "high", 4, 3, 500));
    EXPECT_EQ("high", ReadExactly(client.Get(), 4));
}

}  // namespace
