// The exported server class used directly, as a caller linking against it may: what Destroy keeps
// or clears is only visible on an object that outlives it.
#include <sys/socket.h>

#include <string>

#include "../../src/udpxcore/NetCore_UDPXCore.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"
#include "UDPXCoreHelpers.h"

namespace {

using nctest::ErrorFlag;
using nctest::Fd;
using udpxtest::Recorder;

class UDPXCoreClassTest : public nctest::NetCoreTest {
protected:
    // Receives two datagrams and sends one, so every total and both times are set.
    void Exercise(CNetCore_UDPXCore* server, Recorder* recorder) {
        ASSERT_TRUE(server->NetCore_UDPXCore_Start(0, 2, 60, AF_INET));
        ASSERT_TRUE(server->NetCore_UDPXCore_RegisterCallBack(&Recorder::OnRecv, recorder));
        int hSocket = -1;
        ASSERT_TRUE(server->NetCore_UDPXCore_GetSocket(&hSocket));
        int port = nctest::LocalPort(hSocket);
        int peerPort = 0;
        Fd peer = nctest::BindUdp(AF_INET, &peerPort);
        ASSERT_TRUE(udpxtest::SendTo(peer.Get(), AF_INET, port, "one"));
        ASSERT_TRUE(udpxtest::SendTo(peer.Get(), AF_INET, port, "two!"));
        ASSERT_TRUE(recorder->WaitCount(2));
        std::string to = "127.0.0.1:" + std::to_string(peerPort);
        ASSERT_TRUE(server->NetCore_UDPXCore_SendMsg(to.c_str(), "answer", 6));
        ASSERT_EQ("answer", udpxtest::RecvOne(peer.Get()));
    }

    struct Snapshot {
        unsigned long long sb = 0, rb = 0, sp = 0, rp = 0, timeRecv = 0, timeSend = 0;
        unsigned long long avg[4] = {};
    };
    Snapshot Read(CNetCore_UDPXCore* server) {
        Snapshot s;
        EXPECT_TRUE(server->NetCore_UDPXCore_GetFlow(&s.sb, &s.rb, &s.sp, &s.rp));
        EXPECT_TRUE(server->NetCore_UDPXCore_GetTime(&s.timeRecv, &s.timeSend));
        EXPECT_TRUE(server->NetCore_UDPXCore_GetAverageFlow(&s.avg[0], &s.avg[1], &s.avg[2], &s.avg[3], false));
        return s;
    }
};

TEST_F(UDPXCoreClassTest, DestroyWithoutClearingKeepsTotalsAndTimes) {
    CNetCore_UDPXCore server;
    Recorder recorder;
    Exercise(&server, &recorder);
    Snapshot before = Read(&server);
    ASSERT_TRUE(server.NetCore_UDPXCore_Destroy(false));
    EXPECT_FALSE(ErrorFlag());
    Snapshot after = Read(&server);
    EXPECT_EQ(6u, after.sb);
    EXPECT_EQ(7u, after.rb);
    EXPECT_EQ(1u, after.sp);
    EXPECT_EQ(2u, after.rp);
    EXPECT_EQ(before.timeRecv, after.timeRecv);
    EXPECT_EQ(before.timeSend, after.timeSend);
    EXPECT_GT(after.timeRecv, 0u);
    EXPECT_GT(after.timeSend, 0u);
    int hSocket = 0;
    EXPECT_TRUE(server.NetCore_UDPXCore_GetSocket(&hSocket));
    EXPECT_EQ(-1, hSocket);
}

TEST_F(UDPXCoreClassTest, DestroyWithClearingZeroesEveryTotalAndTime) {
    CNetCore_UDPXCore server;
    Recorder recorder;
    Exercise(&server, &recorder);
    ASSERT_TRUE(server.NetCore_UDPXCore_Destroy(true));
    Snapshot after = Read(&server);
    EXPECT_EQ(0u, after.sb + after.rb + after.sp + after.rp);
    EXPECT_EQ(0u, after.timeRecv);
    EXPECT_EQ(0u, after.timeSend);
    // the interval length and its snapshots are gone too: the averages are the (zero) totals
    for (unsigned long long v : after.avg)
        EXPECT_EQ(0u, v);
    unsigned long long whole[4] = {1, 1, 1, 1};
    EXPECT_TRUE(server.NetCore_UDPXCore_GetAverageFlow(&whole[0], &whole[1], &whole[2], &whole[3], true));
    for (unsigned long long v : whole)
        EXPECT_EQ(0u, v);
}

TEST_F(UDPXCoreClassTest, ServerCanBeStartedAgainAfterDestroyAndCountsOn) {
    CNetCore_UDPXCore server;
    Recorder recorder;
    Exercise(&server, &recorder);
    ASSERT_TRUE(server.NetCore_UDPXCore_Destroy(false));
    Recorder second;
    Exercise(&server, &second);
    unsigned long long sb = 0, rb = 0, sp = 0, rp = 0;
    ASSERT_TRUE(server.NetCore_UDPXCore_GetFlow(&sb, &rb, &sp, &rp));
    EXPECT_EQ(4u, rp);
    EXPECT_EQ(2u, sp);
    // a destroyed server may be destroyed again; the destructor finds nothing left to release
    EXPECT_TRUE(server.NetCore_UDPXCore_Destroy(false));
    EXPECT_TRUE(server.NetCore_UDPXCore_Destroy(true));
}

}  // namespace
