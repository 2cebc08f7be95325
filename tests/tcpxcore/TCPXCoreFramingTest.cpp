// Framing by length and by terminator, its bounds, hostile peers, and the flow arithmetic.
#include <thread>

#include "TCPXCoreHelpers.h"

namespace {

using namespace tcpxtest;
using nctest::ErrorFlag;
using nctest::Fd;
using nctest::WaitFor;

class TCPXCoreFramingTest : public nctest::NetCoreTest {};

// Server-side reads of the client so far.
unsigned long long ReadsOf(void* xhNet, const std::string& strAddr) {
    unsigned long long nSendB = 0, nRecvB = 0, nSendP = 0, nRecvP = 0;
    NetCore_TCPXCore_GetFlowEx(xhNet, &nSendB, &nRecvB, &nSendP, &nRecvP, strAddr.c_str());
    return nRecvP;
}

// Sends one chunk and waits until the server has read it on its own.
void SendAsOneRead(Server& server, int hClient, const std::string& strAddr, const std::string& strData) {
    unsigned long long nBefore = ReadsOf(server.Handle(), strAddr);
    ASSERT_TRUE(SendAll(hClient, strData));
    ASSERT_TRUE(WaitFor([&] { return ReadsOf(server.Handle(), strAddr) > nBefore; }));
}

TEST_F(TCPXCoreFramingTest, LengthFramingDeliversWholeMessagesAndKeepsTheRest) {
    Server server;
    Fd client;
    std::string strAddr = server.Connect(&client);
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(server.Handle(), strAddr.c_str(), 10, nullptr));

    SendAsOneRead(server, client.Get(), strAddr, "abcdefg");
    EXPECT_EQ(0u, server.Events().RecvCount());
    SendAsOneRead(server, client.Get(), strAddr, "hijklmn");
    ASSERT_TRUE(WaitFor([&] { return server.Events().RecvCount() == 1; }));
    EXPECT_EQ("abcdefghij", server.Events().Recvs()[0].strData);
    EXPECT_EQ(10, server.Events().Recvs()[0].nLen);
    // four bytes stay buffered and start the next message
    SendAsOneRead(server, client.Get(), strAddr, "opqrst");
    ASSERT_TRUE(WaitFor([&] { return server.Events().RecvCount() == 2; }));
    EXPECT_EQ("klmnopqrst", server.Events().Recvs()[1].strData);

    // one read holding more than a message delivers one; the rest waits for the next read
    SendAsOneRead(server, client.Get(), strAddr, std::string(25, 'x'));
    EXPECT_EQ(3u, server.Events().RecvCount());
    SendAsOneRead(server, client.Get(), strAddr, "y");
    EXPECT_EQ(4u, server.Events().RecvCount());
    EXPECT_EQ(std::string(10, 'x'), server.Events().Recvs()[3].strData);

    int nPktLen = 0;
    char tszEndMark[256] = {'?'};
    ASSERT_TRUE(NetCore_TCPXCore_GetLimitEx(server.Handle(), strAddr.c_str(), &nPktLen, tszEndMark));
    EXPECT_EQ(10, nPktLen);
    EXPECT_STREQ("", tszEndMark);
}

TEST_F(TCPXCoreFramingTest, TerminatorDeliversEverythingBufferedOnceItAppears) {
    Server server;
    Fd client;
    std::string strAddr = server.Connect(&client);
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(server.Handle(), strAddr.c_str(), 4096, "\r\n"));
    int nPktLen = 0;
    char tszEndMark[256] = {};
    ASSERT_TRUE(NetCore_TCPXCore_GetLimitEx(server.Handle(), strAddr.c_str(), &nPktLen, tszEndMark));
    EXPECT_EQ(4096, nPktLen);
    EXPECT_STREQ("\r\n", tszEndMark);

    SendAsOneRead(server, client.Get(), strAddr, "GET / HT");
    EXPECT_EQ(0u, server.Events().RecvCount());
    SendAsOneRead(server, client.Get(), strAddr, "TP\r\nHost");
    ASSERT_TRUE(WaitFor([&] { return server.Events().RecvCount() == 1; }));
    EXPECT_EQ("GET / HTTP\r\nHost", server.Events().Recvs()[0].strData);
    SendAsOneRead(server, client.Get(), strAddr, ": a\r\n");
    ASSERT_TRUE(WaitFor([&] { return server.Events().RecvCount() == 2; }));
    EXPECT_EQ(": a\r\n", server.Events().Recvs()[1].strData);

    // back to plain reads
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(server.Handle(), strAddr.c_str(), 0, ""));
    SendAsOneRead(server, client.Get(), strAddr, "raw");
    ASSERT_TRUE(WaitFor([&] { return server.Events().RecvCount() == 3; }));
    EXPECT_EQ("raw", server.Events().Recvs()[2].strData);
}

TEST_F(TCPXCoreFramingTest, OversizedLimitsAreBounded) {
    Server server;
    Fd client;
    std::string strAddr = server.Connect(&client);
    std::string strLongMark(300, 'm');
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(server.Handle(), strAddr.c_str(), 20000, strLongMark.c_str()));
    int nPktLen = 0;
    char tszEndMark[256] = {};
    ASSERT_TRUE(NetCore_TCPXCore_GetLimitEx(server.Handle(), strAddr.c_str(), &nPktLen, tszEndMark));
    EXPECT_EQ(20000, nPktLen);
    EXPECT_EQ(std::string(255, 'm'), tszEndMark);

    // messages frame by the 8192-byte buffer, and a flood never overflows it
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(server.Handle(), strAddr.c_str(), 20000, ""));
    std::string strData;
    for (int i = 0; i < 3 * 8192 + 100; i++)
        strData += static_cast<char>('a' + i % 26);
    ASSERT_TRUE(SendAll(client.Get(), strData));
    ASSERT_TRUE(WaitFor([&] { return server.Events().RecvCount() == 3; }));
    std::string strDelivered;
    for (const Recv& st_Recv : server.Events().Recvs()) {
        EXPECT_EQ(8192, st_Recv.nLen);
        strDelivered += st_Recv.strData;
    }
    EXPECT_EQ(strData.substr(0, 3 * 8192), strDelivered);
}

TEST_F(TCPXCoreFramingTest, SmallMessagesFloodingOneReadAreNotLost) {
    Server server;
    Fd client;
    std::string strAddr = server.Connect(&client);
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(server.Handle(), strAddr.c_str(), 3, nullptr));
    std::string strData;
    for (int i = 0; i < 30000; i++)
        strData += static_cast<char>('A' + i % 3);
    ASSERT_TRUE(SendAll(client.Get(), strData));
    // one message per read, plus whatever the buffer cannot hold: every delivery is "ABC"
    ASSERT_TRUE(WaitFor([&] { return server.Events().RecvCount() >= 10; }));
    size_t nCount = server.Events().RecvCount();
    for (const Recv& st_Recv : server.Events().Recvs())
        EXPECT_EQ("ABC", st_Recv.strData);
    EXPECT_LE(nCount, 10000u);
}

TEST_F(TCPXCoreFramingTest, ClientLeavingMidMessageIsALeaveWithoutData) {
    Server server;
    Fd client;
    std::string strAddr = server.Connect(&client);
    ASSERT_TRUE(NetCore_TCPXCore_SetLimitEx(server.Handle(), strAddr.c_str(), 100, nullptr));
    ASSERT_TRUE(SendAll(client.Get(), std::string(30, 'p')));
    client.Reset();
    ASSERT_TRUE(WaitFor([&] { return server.Events().LeaveCount() == 1; }));
    EXPECT_EQ(0u, server.Events().RecvCount());
    unsigned long long nSendB = 0, nRecvB = 0;
    ASSERT_TRUE(NetCore_TCPXCore_GetFlowEx(server.Handle(), &nSendB, &nRecvB, nullptr, nullptr, nullptr));
    EXPECT_EQ(30u, nRecvB);
}

TEST_F(TCPXCoreFramingTest, FloodingClientDoesNotStarveOthers) {
    Server server(100, 1);  // both clients on the one event thread
    Fd flooder, quiet;
    std::string strFlooder = server.Connect(&flooder);
    std::string strQuiet = server.Connect(&quiet);
    std::atomic<bool> bStop{false};
    std::atomic<unsigned long long> nSent{0};
    std::thread flood([&] {
        std::string strChunk(65536, 'f');
        while (!bStop) {
            ssize_t n = send(flooder.Get(), strChunk.data(), strChunk.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n > 0)
                nSent += static_cast<unsigned long long>(n);
            else
                std::this_thread::yield();
        }
    });
    ASSERT_TRUE(WaitFor([&] { return nSent > (4u << 20); }));
    ASSERT_TRUE(SendAll(quiet.Get(), "heard"));
    EXPECT_TRUE(WaitFor([&] { return server.Events().DataOf(strQuiet) == "heard"; }));
    bStop = true;
    flood.join();
    EXPECT_TRUE(WaitFor([&] {
        unsigned long long nSendB = 0, nRecvB = 0;
        NetCore_TCPXCore_GetFlowEx(server.Handle(), &nSendB, &nRecvB, nullptr, nullptr, strFlooder.c_str());
        return nRecvB == nSent;
    }));
}

TEST_F(TCPXCoreFramingTest, AverageFlowFollowsItsIntegerArithmetic) {
    Server server(10, 1, 4);
    unsigned long long nSendB = 9, nRecvB = 9, nSendP = 9, nRecvP = 9;
    // almost nothing has flowed: counter / (milliseconds * 1000) is 0
    ASSERT_TRUE(NetCore_TCPXCore_GetAverageFlowEx(server.Handle(), &nSendB, &nRecvB, &nSendP, &nRecvP, nullptr, true));
    EXPECT_EQ(0u, nSendB + nRecvB + nSendP + nRecvP);

    Fd client;
    std::string strAddr = server.Connect(&client);
    // the first read opens a period whose snapshot includes it: 10 - 10 / 4
    SendAsOneRead(server, client.Get(), strAddr, std::string(10, 'r'));
    ASSERT_TRUE(NetCore_TCPXCore_SendEx(server.Handle(), strAddr.c_str(), "12345678", 8, 3, -1));
    ASSERT_TRUE(
        NetCore_TCPXCore_GetAverageFlowEx(server.Handle(), &nSendB, &nRecvB, &nSendP, &nRecvP, strAddr.c_str(), false));
    EXPECT_EQ(8u - 8u / 4, nSendB);
    EXPECT_EQ(10u - 10u / 4, nRecvB);
    EXPECT_EQ(1u, nSendP);
    EXPECT_EQ(1u, nRecvP);
    // within the period the snapshot stays: 16 - 10 / 4
    SendAsOneRead(server, client.Get(), strAddr, std::string(6, 'r'));
    ASSERT_TRUE(
        NetCore_TCPXCore_GetAverageFlowEx(server.Handle(), &nSendB, &nRecvB, &nSendP, &nRecvP, strAddr.c_str(), false));
    EXPECT_EQ(16u - 10u / 4, nRecvB);
    EXPECT_EQ(2u, nRecvP);
    // over the client's life: far below one byte per (millisecond * 1000)
    ASSERT_TRUE(
        NetCore_TCPXCore_GetAverageFlowEx(server.Handle(), &nSendB, &nRecvB, &nSendP, &nRecvP, strAddr.c_str(), true));
    EXPECT_EQ(0u, nSendB + nRecvB + nSendP + nRecvP);
}

TEST_F(TCPXCoreFramingTest, ZeroFlowPeriodReportsTheCountersThemselves) {
    Server server(10, 1, 0);
    Fd client;
    std::string strAddr = server.Connect(&client);
    SendAsOneRead(server, client.Get(), strAddr, "abcde");
    unsigned long long nSendB = 9, nRecvB = 0, nSendP = 9, nRecvP = 0;
    ASSERT_TRUE(
        NetCore_TCPXCore_GetAverageFlowEx(server.Handle(), &nSendB, &nRecvB, &nSendP, &nRecvP, strAddr.c_str(), false));
    EXPECT_EQ(0u, nSendB);
    EXPECT_EQ(5u, nRecvB);
    EXPECT_EQ(0u, nSendP);
    EXPECT_EQ(1u, nRecvP);
}

}  // namespace
