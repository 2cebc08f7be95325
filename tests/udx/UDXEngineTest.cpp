// The UDX protocol without sockets: datagrams go in through Parse, come out through the send
// hook, and time is whatever the test says it is.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "../../src/udx/UDXEngine.h"
#include "../../tools/udxpeer/UDXPeer.h"
#include "TestSupport.h"

namespace {

using namespace netcore::udx;
using nctest::ErrorFlag;

constexpr const char* kPeer = "10.0.0.7:4000";
enum : unsigned { kOrder = 1, kReliable = 2, kMtap = 4, kStrict = 8, kHeartBeat = 16 };

tag_NetCore_UDXConfig Config(unsigned nFlags, int nWindowSize = 0) {
    tag_NetCore_UDXConfig st_Config{};
    st_Config.bOrder = (nFlags & kOrder) != 0;
    st_Config.bReliable = (nFlags & kReliable) != 0;
    st_Config.bMtap = (nFlags & kMtap) != 0;
    st_Config.bStrictResend = (nFlags & kStrict) != 0;
    st_Config.bHeartBeat = (nFlags & kHeartBeat) != 0;
    st_Config.nWindowSize = nWindowSize;
    return st_Config;
}

std::string Data(uint16_t wSerial, const std::string& strPayload) {
    return udxpeer::Packet(udxpeer::kData, static_cast<uint32_t>(strPayload.size()), wSerial, strPayload.data(),
                           strPayload.size());
}

std::string Control(uint32_t nType, uint16_t wSerial, uint32_t nLen = 0) {
    return udxpeer::Packet(nType, nLen, wSerial);
}

class EngineTest : public nctest::NetCoreTest {
protected:
    void Make(const tag_NetCore_UDXConfig& st_Config) {
        auto Log = [this](const char* lpszWhat) {
            return [this, lpszWhat](const char* lpszAddr) { m_Log.push_back(std::string(lpszWhat) + lpszAddr); };
        };
        auto Wire = [this](const char* lpszAddr, const char* lpszData, int nLen) {
            EXPECT_STREQ(kPeer, lpszAddr);
            m_Wire.emplace_back(lpszData, static_cast<size_t>(nLen));
        };
        m_Engine = std::make_unique<UDXEngine>(
            st_Config,
            UDXEngine::Hooks{Wire, Log("accepted "), Log("login "), Log("active "), Log("removed "), Log("leave ")});
    }
    // Makes the engine and connects kPeer with the given window.
    void Connected(const tag_NetCore_UDXConfig& st_Config, uint32_t nPeerWindow = 0) {
        Make(st_Config);
        ASSERT_TRUE(Feed(Control(udxpeer::kConnect, 0, nPeerWindow)));
        m_Wire.clear();
        m_Log.clear();
    }
    bool Feed(const std::string& strDatagram, unsigned long long nTick = 0) {
        return m_Engine->Parse(kPeer, strDatagram.data(), static_cast<int>(strDatagram.size()), nTick);
    }
    bool Send(const std::string& strMsg, unsigned long long nTick = 0) {
        return m_Engine->Send(kPeer, strMsg.data(), static_cast<int>(strMsg.size()), nTick);
    }
    // Fetches until the engine refuses; the messages joined by commas.
    std::string Drain(unsigned long long nTick = 0) {
        std::string strAll;
        char tszBuffer[2048];
        int nLen = -1;
        for (int i = 0; m_Engine->Recv(kPeer, tszBuffer, &nLen, nTick); i++)
            strAll += (i > 0 ? "," : "") + std::string(tszBuffer, static_cast<size_t>(nLen));
        return strAll;
    }
    // What went on the wire since the last call, one "type#serial:length" per datagram.
    std::string Taken() {
        std::string strAll;
        for (const std::string& strData : m_Wire) {
            udxpeer::Header st_Header;
            EXPECT_TRUE(
                udxpeer::DecodeHeader(reinterpret_cast<const uint8_t*>(strData.data()), strData.size(), &st_Header));
            char tszText[64];
            snprintf(tszText, sizeof(tszText), "%s%x#%u:%u", strAll.empty() ? "" : " ", st_Header.nType,
                     st_Header.wSerial, st_Header.nLen);
            strAll += tszText;
        }
        m_Wire.clear();
        return strAll;
    }
    UDXSessionState State() {
        UDXSessionState st_State{};
        EXPECT_TRUE(m_Engine->GetState(kPeer, &st_State));
        return st_State;
    }
    void ExpectCode(bool bResult, unsigned long long nCode) {
        EXPECT_FALSE(bResult);
        EXPECT_TRUE(ErrorFlag());
        EXPECT_EQ(nCode, NetCore_GetLastError(nullptr)) << std::hex << nCode;
    }

    std::unique_ptr<UDXEngine> m_Engine;
    std::vector<std::string> m_Wire;
    std::vector<std::string> m_Log;
};

TEST_F(EngineTest, HeaderIsLaidOutByteForByte) {
    char tszHeader[30];
    uint16_t wSerial = 0x1234;
    UDX_BuildHeader(0x01020304, tszHeader, &wSerial, UDX_PACKET_DATA);
    const unsigned char byExpected[30] = {0x11, 0x00, 0,    0,    0,    0,    0,    0,    0,    0,
                                          0x08, 0x00, 0x00, 0x00, 0x00, 0x90, 0x00, 0x00, 0x04, 0x03,
                                          0x02, 0x01, 0x01, 0x00, 0,    0,    0x34, 0x12, 0xFF, 0x00};
    EXPECT_EQ(0, memcmp(byExpected, tszHeader, 30));
    EXPECT_EQ(0x1235, wSerial) << "a DATA header takes the serial and advances it";
    wSerial = 65535;
    UDX_BuildHeader(0, tszHeader, &wSerial, UDX_PACKET_DATA);
    EXPECT_EQ(0, wSerial) << "the send serial wraps from 65535 to 0";
    wSerial = 77;
    UDX_BuildHeader(5, tszHeader, &wSerial, UDX_PACKET_WINDOW);
    EXPECT_EQ(77, wSerial) << "only DATA consumes a serial";
    EXPECT_EQ(Control(udxpeer::kWindow, 77, 5), std::string(tszHeader, 30));
}

TEST_F(EngineTest, BadMarksClassOrShortDatagramsAreRejectedWhole) {
    Connected(Config(0));
    const std::string strGood = Data(0, "payload");
    auto Broken = [&](size_t nAt, unsigned char byValue) {
        std::string strBad = strGood;
        strBad[nAt] = static_cast<char>(byValue);
        return strBad;
    };
    for (const std::string& strBad : {Broken(0, 0x12), Broken(28, 0xFE), Broken(10, 7), strGood.substr(0, 29)})
        ExpectCode(Feed(strBad), ERROR_NETCORE_UDX_PARSE_PROTOCOL);
    EXPECT_EQ(0u, State().nRecv + State().wRecvCount + m_Engine->RecvPackets());
    // reserved bytes and the two constant bytes are not checked
    std::string strOdd = Broken(5, 0xAA);
    strOdd[22] = 9;
    EXPECT_TRUE(Feed(strOdd));
}

TEST_F(EngineTest, ConnectIsAnsweredWithTheWindowAndARepeatChangesNothing) {
    Make(Config(kOrder | kReliable | kHeartBeat, 65536));
    ExpectCode(Feed(Control(udxpeer::kAck, 1)), ERROR_NETCORE_UDX_PARSE_NOTFOUND);
    ASSERT_TRUE(Feed(Control(udxpeer::kConnect, 0, 5000)));
    EXPECT_EQ("9002#0:65536", Taken());
    EXPECT_EQ(5000u, State().nWindowPeer);
    EXPECT_EQ(65536u, State().nWindowSelf);
    EXPECT_EQ((std::vector<std::string>{"login 10.0.0.7:4000", "accepted 10.0.0.7:4000"}), m_Log)
        << "CONNECT does not refresh";

    ASSERT_TRUE(Send("abc"));
    ASSERT_TRUE(Feed(Data(0, "xyz")));
    m_Wire.clear();
    ASSERT_TRUE(Feed(Control(udxpeer::kConnect, 0, 99)));
    EXPECT_EQ("9002#0:65536", Taken());
    EXPECT_EQ(5000u - 33, State().nWindowPeer);
    EXPECT_EQ(1, State().wSendSerial);
    EXPECT_EQ(1u, State().nRecv);
    EXPECT_EQ(1u, m_Engine->SessionCount());
    EXPECT_EQ(3u, m_Log.size()) << "one login only, and one refresh for the DATA";
}

TEST_F(EngineTest, UnorderedDeliveryTakesArrivalOrderAndSplitsMergedDatagrams) {
    Connected(Config(0));
    const std::string strA(100, 'a'), strB(200, 'b');
    ASSERT_TRUE(Feed(Data(9, strA) + Data(3, strB) + Data(4, "")));
    EXPECT_EQ(3, State().wRecvCount);
    EXPECT_TRUE(m_Log.empty()) << "no supervision without bHeartBeat";
    EXPECT_EQ(strA + "," + strB + ",", Drain());
    EXPECT_EQ(ERROR_NETCORE_UDX_RECV_EMPTY, NetCore_GetLastError(nullptr));
    EXPECT_EQ(1u, m_Engine->RecvPackets());
    EXPECT_EQ(390u, m_Engine->RecvBytes());

    // a packet claiming more payload than the datagram holds ends the walk; the ones before stay
    std::string strShort = Data(10, "ok") + Data(11, "truncated");
    strShort.resize(strShort.size() - 3);
    ASSERT_TRUE(Feed(strShort));
    EXPECT_EQ("ok", Drain());
}

TEST_F(EngineTest, OrderedDeliveryWaitsForGapsAndRequestsTheMissingSerialOnce) {
    Connected(Config(kOrder));
    for (uint16_t w = 0; w < 5; ++w)
        ASSERT_TRUE(Feed(Data(w, std::to_string(w))));
    EXPECT_EQ("0,1,2,3,4", Drain());
    ASSERT_TRUE(Feed(Data(7, "7"), 100));
    ASSERT_TRUE(Feed(Data(5, "5"), 100));
    ExpectCode(Feed(Data(5, "5"), 100), ERROR_NETCORE_UDX_PARSE_REPEAT);
    EXPECT_EQ("5", Drain(100));
    EXPECT_EQ(ERROR_NETCORE_UDX_RECV_NODATA, NetCore_GetLastError(nullptr));
    EXPECT_EQ("", Drain(150));
    EXPECT_EQ(1u, State().nResend) << "a second failing fetch queues no second request";

    // the request waits more than 1000 ms, then goes out on every pass until the packet comes
    m_Engine->StartTimers(0);
    m_Engine->RunSessions(1100, 0);
    EXPECT_EQ("", Taken());
    m_Engine->RunSessions(1101, 0);
    m_Engine->RunSessions(1102, 0);
    EXPECT_EQ("9003#6:0 9003#6:0", Taken());
    ExpectCode(Feed(Data(5, "5")), ERROR_NETCORE_UDX_PARSE_EXPIRED);
    ASSERT_TRUE(Feed(Data(6, "6")));
    EXPECT_EQ(0u, State().nResend) << "the arrival cancels the request";
    EXPECT_EQ("6,7", Drain());

    // 0 is lost, 1 arrives twice: the duplicate is queued and the count runs one ahead
    Connected(Config(kOrder));
    for (uint16_t w : {1, 1, 0, 2})
        ASSERT_TRUE(Feed(Data(w, std::to_string(w))));
    EXPECT_EQ("0,1,2", Drain());
    // 3 is below the count with nothing queued: it must still be delivered
    ASSERT_TRUE(Feed(Data(3, "3")));
    EXPECT_EQ("3", Drain());
}

TEST_F(EngineTest, LongMessagesAreCutAt1400BytesAndTheSendCreditLimitsThem) {
    Connected(Config(kOrder));
    ASSERT_TRUE(Send(std::string(1399, 'x')));
    ASSERT_TRUE(Send(std::string(2800, 'y')));
    ASSERT_TRUE(Send(std::string(1400, 'w') + std::string(1400, 'v') + "z"));
    EXPECT_EQ(std::string(1400, 'v'), m_Wire[4].substr(30));
    EXPECT_EQ("z", m_Wire[5].substr(30));
    EXPECT_EQ("9000#0:1399 9000#1:1400 9000#2:1400 9000#3:1400 9000#4:1400 9000#5:1", Taken());
    EXPECT_EQ(6u, m_Engine->SendPackets());
    EXPECT_EQ(1429u + 4 * 1430 + 31, m_Engine->SendBytes());
    EXPECT_EQ(0u, State().nSent) << "nothing is kept without bReliable";

    Connected(Config(kOrder | kReliable), 1000);
    ExpectCode(Send(std::string(1001, 'a')), ERROR_NETCORE_UDX_SEND_WINDOW);
    EXPECT_EQ(0, State().wSendSerial) << "a refused send leaves serial and window alone";
    EXPECT_EQ(1000u, State().nWindowPeer);
    ASSERT_TRUE(Send(std::string(1000, 'a')));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_EQ(1u, State().nSent);
    // payload plus header comes off: the unsigned credit passes below zero and stops limiting
    EXPECT_EQ(static_cast<unsigned int>(1000 - 1030), State().nWindowPeer);
    ASSERT_TRUE(Send(std::string(5000, 'b')));
    ASSERT_TRUE(Feed(Control(udxpeer::kWindow, 0, 300)));
    EXPECT_EQ(300u, State().nWindowPeer);
    EXPECT_FALSE(Send(std::string(301, 'c')));
    ASSERT_TRUE(Feed(Control(udxpeer::kWindow, 0, 0)));
    EXPECT_TRUE(Send(std::string(4000, 'c'))) << "a credit of 0 does not limit";
}

TEST_F(EngineTest, SessionPassAdvertisesTheReceiveWindowAndAcknowledges) {
    Connected(Config(kOrder | kReliable, 10000));
    m_Engine->StartTimers(50);
    ASSERT_TRUE(Send("s"));  // the WINDOW packet carries the send serial, now 1
    m_Wire.clear();
    ASSERT_TRUE(Feed(Data(0, std::string(100, 'd'))));
    EXPECT_EQ(10000u - 130, State().nWindowSelf);
    // less than 2048 bytes in use and a new value: advertised at once
    m_Engine->RunSessions(0, 50);
    EXPECT_EQ("9101#1:9870", Taken());
    m_Engine->RunSessions(0, 50);
    EXPECT_EQ("", Taken()) << "an unchanged window is not repeated within 3 s";
    EXPECT_EQ(std::string(100, 'd'), Drain());
    EXPECT_EQ(10000u, State().nWindowSelf);
    m_Engine->RunSessions(0, 50);
    EXPECT_EQ("9101#1:10000", Taken());
    // the ACK names the next serial expected, once more than 2 s have passed and it changed
    m_Engine->RunSessions(0, 52);
    EXPECT_EQ("", Taken());
    m_Engine->RunSessions(0, 53);
    EXPECT_EQ("9103#1:0", Taken());
    EXPECT_EQ(1, State().wAckLast);
    m_Engine->RunSessions(0, 54);
    EXPECT_EQ("9101#1:10000", Taken()) << "after more than 3 s the window goes out regardless";
    m_Engine->RunSessions(0, 99);
    EXPECT_EQ("9101#1:10000", Taken()) << "no ACK while the next serial is unchanged";
}

TEST_F(EngineTest, AckPrunesKeptPacketsResendsOldOnesAndRequestsAreAnsweredOnThePass) {
    Connected(Config(kOrder | kReliable));
    for (int i = 0; i < 12; ++i)
        ASSERT_TRUE(Send("m" + std::to_string(i), 0));
    EXPECT_EQ(12u, State().nSent);
    m_Wire.clear();
    ASSERT_TRUE(Feed(Control(udxpeer::kAck, 10), 2000));
    EXPECT_EQ(2u, State().nSent);
    EXPECT_EQ(0u, State().nSend) << "2000 ms is not yet too old";
    ASSERT_TRUE(Feed(Control(udxpeer::kAck, 10), 2001));
    EXPECT_EQ(2u, State().nSend);
    // a request is answered with the kept packet, or with RESEND_GONE for one no longer kept
    ASSERT_TRUE(Feed(Control(udxpeer::kResendRequest, 11)));
    ASSERT_TRUE(Feed(Control(udxpeer::kResendRequest, 3)));
    EXPECT_TRUE(m_Wire.empty()) << "everything waits for the session pass";
    m_Engine->StartTimers(0);
    m_Engine->RunSessions(2001, 0);
    EXPECT_EQ("m11", m_Wire[2].substr(30));
    EXPECT_EQ(30u, m_Wire[3].size());
    EXPECT_EQ("9000#10:3 9000#11:3 9000#11:3 9004#3:0", Taken());
    EXPECT_EQ(0u, State().nSend);
    ASSERT_TRUE(Feed(Control(udxpeer::kAck, 10), 2500));
    m_Engine->RunSessions(2500, 0);
    EXPECT_EQ("9000#10:3 9000#11:3", Taken()) << "resent again on every ACK that leaves them in place";
}

TEST_F(EngineTest, PeerCloseStrictResendGoneOrTheApplicationEndTheSessionOnTheNextPass) {
    // outside strict mode RESEND_GONE only skips the lost serial
    Connected(Config(kOrder));
    ASSERT_TRUE(Feed(Data(1, "1")));
    EXPECT_EQ("", Drain());
    EXPECT_EQ(1u, State().nResend);
    ASSERT_TRUE(Feed(Control(udxpeer::kResendGone, 0)));
    EXPECT_EQ(0u, State().nResend);
    EXPECT_EQ("1", Drain());

    for (int nHow = 0; nHow < 3; nHow++) {
        SCOPED_TRACE(nHow);
        Connected(Config(kOrder | kReliable | kStrict | kHeartBeat));
        EXPECT_TRUE(nHow == 2 ? m_Engine->Close(kPeer) && m_Engine->Close(kPeer)
                              : Feed(Control(nHow == 0 ? udxpeer::kClose : udxpeer::kResendGone, 0)));
        EXPECT_EQ(1u, m_Engine->SessionCount()) << "the close is deferred";
        m_Engine->RunCloses();
        EXPECT_EQ(0u, m_Engine->SessionCount());
        std::vector<std::string> log = {"removed 10.0.0.7:4000", "leave 10.0.0.7:4000"};
        if (nHow < 2) log.insert(log.begin(), "active 10.0.0.7:4000");
        // the application's second close finds no session but still sends CLOSE
        if (nHow == 2) log.push_back("leave 10.0.0.7:4000");
        EXPECT_EQ(log, m_Log);
        EXPECT_EQ(nHow == 2 ? "9102#0:0 9102#0:0" : "9102#0:0", Taken());
    }
    ExpectCode(Feed(Data(0, "late")), ERROR_NETCORE_UDX_PARSE_NOTFOUND);
}

TEST_F(EngineTest, SmallMessagesWaitForTheMergingPassAndFollowTheTwentyMsRule) {
    Connected(Config(kOrder | kReliable | kMtap));
    ASSERT_TRUE(Send(std::string(699, 'a'), 0));
    EXPECT_EQ(1u, State().nMtap);
    EXPECT_EQ(0u, State().nSent) << "merged packets are not kept";
    ASSERT_TRUE(Send(std::string(700, 'b'), 0));
    EXPECT_EQ("9000#1:700", Taken()) << "700 bytes go out at once";

    // three small packets: each that still fits pushes out what the buffer held
    Connected(Config(kOrder | kReliable | kMtap));
    for (char c : {'x', 'y', 'z'})
        ASSERT_TRUE(Send(std::string(100, c), 1000));
    m_Engine->RunMtap(1000);
    EXPECT_EQ(std::string(100, 'y'), m_Wire[1].substr(30));
    EXPECT_EQ("9000#0:100 9000#1:100", Taken());
    EXPECT_EQ(130u, State().nMtapLen);
    m_Engine->RunMtap(1020);
    EXPECT_EQ("", Taken()) << "20 ms is not yet more than 20 ms";
    m_Engine->RunMtap(1021);
    EXPECT_EQ("9000#2:100", Taken());
    EXPECT_EQ(0u, State().nMtapLen);

    // a fresh packet that does not fit goes to the start of the buffer, the length grows
    ASSERT_TRUE(Send(std::string(699, 'p'), 2000));
    ASSERT_TRUE(Send(std::string(699, 'q'), 2000));
    m_Engine->RunMtap(2010);
    EXPECT_EQ(1458u, State().nMtapLen);
    m_Engine->RunMtap(2031);
    ASSERT_EQ(1u, m_Wire.size());
    EXPECT_EQ(Data(4, std::string(699, 'q')) + std::string(729, '\0'), m_Wire[0]);
    m_Wire.clear();

    // a stale packet that does not fit goes out by itself, then the buffer, being old
    ASSERT_TRUE(Send(std::string(699, 'r'), 3000));
    m_Engine->RunMtap(3000);
    ASSERT_TRUE(Send(std::string(699, 's'), 3000));
    m_Engine->RunMtap(3050);
    EXPECT_EQ("9000#6:699 9000#5:699", Taken());

    // the grown length is bounded by the buffer, so a flush never reads past it
    Connected(Config(kMtap));
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(Send(std::string(699, 'm'), 0));
    m_Engine->RunMtap(5);
    EXPECT_EQ(2048u, State().nMtapLen);
    m_Engine->RunMtap(100);
    ASSERT_EQ(1u, m_Wire.size());
    EXPECT_EQ(2048u, m_Wire[0].size());
}

}  // namespace
