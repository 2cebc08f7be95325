// The UDX protocol without sockets: datagrams go in through Parse, come out through the send
// hook, and time is whatever the test says it is.
#include <algorithm>
#include <cstring>
#include <functional>
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

tag_NetCore_UDXConfig Config(bool bOrder = true, bool bReliable = true, bool bMtap = false, int nWindowSize = 0,
                             bool bStrictResend = false, bool bHeartBeat = false) {
    tag_NetCore_UDXConfig st_Config{};
    st_Config.bHeartBeat = bHeartBeat;
    st_Config.bOrder = bOrder;
    st_Config.bReliable = bReliable;
    st_Config.bStrictResend = bStrictResend;
    st_Config.bMtap = bMtap;
    st_Config.nWindowSize = nWindowSize;
    return st_Config;
}

// A datagram as the library puts it on the wire.
struct Wire {
    std::string strAddr;
    std::string strData;
    udxpeer::Header Head() const {
        udxpeer::Header st_Header;
        EXPECT_TRUE(
            udxpeer::DecodeHeader(reinterpret_cast<const uint8_t*>(strData.data()), strData.size(), &st_Header));
        return st_Header;
    }
};

class EngineTest : public nctest::NetCoreTest {
protected:
    void Make(const tag_NetCore_UDXConfig& st_Config) {
        auto Log = [this](const char* lpszWhat) {
            return [this, lpszWhat](const char* lpszAddr) { m_Log.push_back(std::string(lpszWhat) + lpszAddr); };
        };
        UDXEngine::Hooks st_Hooks{[this](const char* lpszAddr, const char* lpszData, int nLen) {
                                      m_Wire.push_back({lpszAddr, std::string(lpszData, static_cast<size_t>(nLen))});
                                  },
                                  Log("accepted "),
                                  Log("login "),
                                  Log("active "),
                                  Log("removed "),
                                  Log("leave ")};
        m_Engine = std::make_unique<UDXEngine>(st_Config, std::move(st_Hooks));
    }
    // Makes the engine and connects kPeer with the given window.
    void Connected(const tag_NetCore_UDXConfig& st_Config, uint32_t nPeerWindow = 0) {
        Make(st_Config);
        ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kConnect, nPeerWindow, 0)));
        m_Wire.clear();
    }
    bool Feed(const std::string& strDatagram, unsigned long long nTick = 0) {
        return m_Engine->Parse(kPeer, strDatagram.data(), static_cast<int>(strDatagram.size()), nTick);
    }
    static std::string Data(uint16_t wSerial, const std::string& strPayload) {
        return udxpeer::Packet(udxpeer::kData, static_cast<uint32_t>(strPayload.size()), wSerial, strPayload.data(),
                               strPayload.size());
    }
    bool Fetch(std::string* pStr_Out, unsigned long long nTick = 0) {
        char tszBuffer[2048];
        int nLen = -1;
        if (!m_Engine->Recv(kPeer, tszBuffer, &nLen, nTick)) return false;
        pStr_Out->assign(tszBuffer, static_cast<size_t>(nLen));
        return true;
    }
    UDXSessionState State() {
        UDXSessionState st_State{};
        EXPECT_TRUE(m_Engine->GetState(kPeer, &st_State));
        return st_State;
    }
    size_t CountType(uint32_t nType) const {
        return static_cast<size_t>(std::count_if(m_Wire.begin(), m_Wire.end(),
                                                 [nType](const Wire& st_W) { return st_W.Head().nType == nType; }));
    }
    bool Send(const std::string& strMsg, unsigned long long nTick = 0) {
        return m_Engine->Send(kPeer, strMsg.data(), static_cast<int>(strMsg.size()), nTick);
    }

    std::unique_ptr<UDXEngine> m_Engine;
    std::vector<Wire> m_Wire;
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

    // the library's header and the peer's independent encoder agree
    EXPECT_EQ(udxpeer::Packet(udxpeer::kData, 0x01020304, 0x1234), std::string(tszHeader, 30));

    wSerial = 65535;
    UDX_BuildHeader(0, tszHeader, &wSerial, UDX_PACKET_DATA);
    EXPECT_EQ(0, wSerial) << "the send serial wraps from 65535 to 0";

    wSerial = 77;
    UDX_BuildHeader(5, tszHeader, &wSerial, UDX_PACKET_WINDOW);
    EXPECT_EQ(77, wSerial) << "only DATA consumes a serial";
    EXPECT_EQ(udxpeer::Packet(udxpeer::kWindow, 5, 77), std::string(tszHeader, 30));
}

TEST_F(EngineTest, BadMarksClassOrShortDatagramsAreRejectedWhole) {
    Connected(Config(false));
    std::string strGood = Data(0, "payload");
    auto Broken = [&](size_t nAt, unsigned char byValue) {
        std::string strBad = strGood;
        strBad[nAt] = static_cast<char>(byValue);
        return strBad;
    };
    for (const std::string& strBad : {Broken(0, 0x12), Broken(28, 0xFE), Broken(10, 7), strGood.substr(0, 29)}) {
        EXPECT_FALSE(Feed(strBad));
        EXPECT_TRUE(ErrorFlag());
        EXPECT_EQ(ERROR_NETCORE_UDX_PARSE_PROTOCOL, NetCore_GetLastError(nullptr));
    }
    EXPECT_EQ(0u, State().nRecv);
    EXPECT_EQ(0, State().wRecvCount);
    EXPECT_EQ(0u, m_Engine->RecvPackets());

    // reserved bytes and the two constant bytes are not checked
    std::string strOdd = Broken(5, 0xAA);
    strOdd[22] = 9;
    EXPECT_TRUE(Feed(strOdd));
}

TEST_F(EngineTest, ConnectIsAnsweredWithTheWindowAndARepeatChangesNothing) {
    Make(Config(true, true, false, 65536, false, true));
    EXPECT_FALSE(Feed(udxpeer::Packet(udxpeer::kAck, 0, 1)));
    EXPECT_EQ(ERROR_NETCORE_UDX_PARSE_NOTFOUND, NetCore_GetLastError(nullptr));

    ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kConnect, 5000, 0)));
    ASSERT_EQ(1u, m_Wire.size());
    EXPECT_EQ(kPeer, m_Wire[0].strAddr);
    EXPECT_EQ(30u, m_Wire[0].strData.size());
    EXPECT_EQ(udxpeer::kConnectOk, m_Wire[0].Head().nType);
    EXPECT_EQ(65536u, m_Wire[0].Head().nLen);
    EXPECT_EQ(0, m_Wire[0].Head().wSerial);
    EXPECT_EQ(5000u, State().nWindowPeer);
    EXPECT_EQ(65536u, State().nWindowSelf);
    EXPECT_EQ((std::vector<std::string>{"login 10.0.0.7:4000", "accepted 10.0.0.7:4000"}), m_Log)
        << "CONNECT does not refresh";

    ASSERT_TRUE(Send("abc"));
    ASSERT_TRUE(Feed(Data(0, "xyz")));
    UDXSessionState st_Before = State();
    m_Wire.clear();
    ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kConnect, 99, 0)));
    ASSERT_EQ(1u, m_Wire.size());
    EXPECT_EQ(udxpeer::kConnectOk, m_Wire[0].Head().nType);
    UDXSessionState st_After = State();
    EXPECT_EQ(st_Before.nWindowPeer, st_After.nWindowPeer);
    EXPECT_EQ(1, st_After.wSendSerial);
    EXPECT_EQ(1u, st_After.nRecv);
    EXPECT_EQ(1u, m_Engine->SessionCount());
    EXPECT_EQ(1, std::count(m_Log.begin(), m_Log.end(), "login 10.0.0.7:4000"));
}

TEST_F(EngineTest, UnorderedDeliveryTakesArrivalOrderAndSplitsMergedDatagrams) {
    Connected(Config(false));
    std::string strMerged = Data(9, std::string(100, 'a')) + Data(3, std::string(200, 'b')) + Data(4, "");
    ASSERT_EQ(390u, strMerged.size());
    ASSERT_TRUE(Feed(strMerged));
    EXPECT_EQ(3, State().wRecvCount);
    EXPECT_EQ(std::vector<std::string>{}, m_Log) << "no supervision without bHeartBeat";
    std::string strOut;
    ASSERT_TRUE(Fetch(&strOut));
    EXPECT_EQ(std::string(100, 'a'), strOut);
    ASSERT_TRUE(Fetch(&strOut));
    EXPECT_EQ(std::string(200, 'b'), strOut);
    ASSERT_TRUE(Fetch(&strOut));
    EXPECT_EQ("", strOut);
    EXPECT_FALSE(Fetch(&strOut));
    EXPECT_EQ(ERROR_NETCORE_UDX_RECV_EMPTY, NetCore_GetLastError(nullptr));
    EXPECT_EQ(1u, m_Engine->RecvPackets());
    EXPECT_EQ(390u, m_Engine->RecvBytes());

    // a packet claiming more payload than the datagram holds ends the walk; the ones before stay
    std::string strShort = Data(10, "ok") + Data(11, "truncated");
    strShort.resize(strShort.size() - 3);
    ASSERT_TRUE(Feed(strShort));
    EXPECT_EQ(1u, State().nRecv);
}

TEST_F(EngineTest, OrderedDeliveryWaitsForGapsAndRequestsTheMissingSerialOnce) {
    Connected(Config(true));
    std::string strOut;
    for (uint16_t w = 0; w < 5; ++w)
        ASSERT_TRUE(Feed(Data(w, std::to_string(w))));
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(Fetch(&strOut));
    ASSERT_EQ(5, State().wRecvNext);

    ASSERT_TRUE(Feed(Data(7, "7"), 100));
    ASSERT_TRUE(Feed(Data(5, "5"), 100));
    EXPECT_FALSE(Feed(Data(5, "5"), 100));
    EXPECT_EQ(ERROR_NETCORE_UDX_PARSE_REPEAT, NetCore_GetLastError(nullptr));
    ASSERT_TRUE(Fetch(&strOut, 100));
    EXPECT_EQ("5", strOut);
    EXPECT_FALSE(Fetch(&strOut, 100));
    EXPECT_EQ(ERROR_NETCORE_UDX_RECV_NODATA, NetCore_GetLastError(nullptr));
    EXPECT_FALSE(Fetch(&strOut, 150));
    EXPECT_EQ(1u, State().nResend) << "a second failing fetch queues no second request";

    // the request waits more than 1000 ms, then goes out on every pass until the packet comes
    m_Engine->StartTimers(0);
    m_Engine->RunSessions(1100, 0);
    EXPECT_TRUE(m_Wire.empty());
    m_Engine->RunSessions(1101, 0);
    m_Engine->RunSessions(1102, 0);
    ASSERT_EQ(2u, m_Wire.size());
    EXPECT_EQ(udxpeer::kResendRequest, m_Wire[1].Head().nType);
    EXPECT_EQ(6, m_Wire[1].Head().wSerial);

    EXPECT_FALSE(Feed(Data(5, "5")));
    EXPECT_EQ(ERROR_NETCORE_UDX_PARSE_EXPIRED, NetCore_GetLastError(nullptr));

    ASSERT_TRUE(Feed(Data(6, "6")));
    EXPECT_EQ(0u, State().nResend) << "the arrival cancels the request";
    ASSERT_TRUE(Fetch(&strOut));
    EXPECT_EQ("6", strOut);
    ASSERT_TRUE(Fetch(&strOut));
    EXPECT_EQ("7", strOut);
}

TEST_F(EngineTest, OrderedDeliverySurvivesDuplicatesThatOvertakeTheCount) {
    Connected(Config(true));
    // 0 is lost, 1 arrives twice: the duplicate is queued and the count runs one ahead
    ASSERT_TRUE(Feed(Data(1, "1")));
    ASSERT_TRUE(Feed(Data(1, "1")));
    ASSERT_TRUE(Feed(Data(0, "0")));
    ASSERT_TRUE(Feed(Data(2, "2")));
    std::string strOut, strAll;
    while (Fetch(&strOut))
        strAll += strOut;
    EXPECT_EQ("012", strAll);
    // 3 is below the count with nothing queued: it must still be delivered
    ASSERT_TRUE(Feed(Data(3, "3")));
    ASSERT_TRUE(Fetch(&strOut));
    EXPECT_EQ("3", strOut);
}

TEST_F(EngineTest, LongMessagesAreCutAt1400Bytes) {
    Connected(Config(true, false));
    ASSERT_TRUE(Send(std::string(1399, 'x')));
    ASSERT_TRUE(Send(std::string(2800, 'y')));
    ASSERT_TRUE(Send(std::string(1400, 'w') + std::string(1400, 'v') + "z"));
    ASSERT_EQ(6u, m_Wire.size());
    const size_t nSizes[] = {1429, 1430, 1430, 1430, 1430, 31};
    for (size_t i = 0; i < m_Wire.size(); ++i) {
        EXPECT_EQ(nSizes[i], m_Wire[i].strData.size()) << i;
        EXPECT_EQ(udxpeer::kData, m_Wire[i].Head().nType);
        EXPECT_EQ(i, m_Wire[i].Head().wSerial);
        EXPECT_EQ(nSizes[i] - 30, m_Wire[i].Head().nLen);
    }
    EXPECT_EQ('v', m_Wire[4].strData.back());
    EXPECT_EQ("z", m_Wire[5].strData.substr(30));
    EXPECT_EQ(6u, m_Engine->SendPackets());
    EXPECT_EQ(1429u + 4 * 1430 + 31, m_Engine->SendBytes());
    EXPECT_EQ(0u, State().nSent) << "nothing is kept without bReliable";
}

TEST_F(EngineTest, SendCreditRefusesLongMessagesAndWindowPacketsRestoreIt) {
    Connected(Config(true, true), 1000);
    EXPECT_FALSE(Send(std::string(1001, 'a')));
    EXPECT_EQ(ERROR_NETCORE_UDX_SEND_WINDOW, NetCore_GetLastError(nullptr));
    EXPECT_EQ(0, State().wSendSerial) << "a refused send leaves serial and window alone";
    EXPECT_EQ(1000u, State().nWindowPeer);
    EXPECT_TRUE(m_Wire.empty());

    ASSERT_TRUE(Send(std::string(1000, 'a')));
    EXPECT_FALSE(ErrorFlag());
    // payload plus header comes off: the unsigned credit passes below zero and stops limiting
    EXPECT_EQ(static_cast<unsigned int>(1000 - 1030), State().nWindowPeer);
    ASSERT_TRUE(Send(std::string(5000, 'b')));

    ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kWindow, 300, 0)));
    EXPECT_EQ(300u, State().nWindowPeer);
    EXPECT_FALSE(Send(std::string(301, 'c')));
    ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kWindow, 0, 0)));
    EXPECT_TRUE(Send(std::string(4000, 'c'))) << "a credit of 0 does not limit";
}

TEST_F(EngineTest, ReceiveWindowShrinksOnArrivalGrowsOnFetchAndIsAdvertised) {
    Connected(Config(true, true, false, 10000));
    m_Engine->StartTimers(50);
    ASSERT_TRUE(Send("s"));  // the WINDOW packet carries the send serial, now 1
    m_Wire.clear();
    ASSERT_TRUE(Feed(Data(0, std::string(100, 'd'))));
    EXPECT_EQ(10000u - 130, State().nWindowSelf);

    // less than 2048 bytes in use and a new value: advertised at once
    m_Engine->RunSessions(0, 50);
    ASSERT_EQ(1u, m_Wire.size());
    EXPECT_EQ(udxpeer::kWindow, m_Wire[0].Head().nType);
    EXPECT_EQ(10000u - 130, m_Wire[0].Head().nLen);
    EXPECT_EQ(1, m_Wire[0].Head().wSerial);
    EXPECT_EQ(1, State().wSendSerial);
    m_Engine->RunSessions(0, 50);
    EXPECT_EQ(1u, m_Wire.size()) << "an unchanged window is not repeated within 3 s";

    std::string strOut;
    ASSERT_TRUE(Fetch(&strOut));
    EXPECT_EQ(10000u, State().nWindowSelf);
    m_Engine->RunSessions(0, 50);
    ASSERT_EQ(2u, m_Wire.size());
    EXPECT_EQ(10000u, m_Wire[1].Head().nLen);
    m_Engine->RunSessions(0, 53);
    EXPECT_EQ(2u, CountType(udxpeer::kWindow));
    m_Engine->RunSessions(0, 54);
    EXPECT_EQ(3u, CountType(udxpeer::kWindow)) << "after more than 3 s the window goes out regardless";
}

TEST_F(EngineTest, AckIsSentWhenTheNextSerialChangedAndMoreThanTwoSecondsPassed) {
    Connected(Config(true));
    m_Engine->StartTimers(100);
    ASSERT_TRUE(Feed(Data(0, "a")));
    std::string strOut;
    ASSERT_TRUE(Fetch(&strOut));
    m_Engine->RunSessions(0, 102);
    EXPECT_EQ(0u, m_Wire.size());
    m_Engine->RunSessions(0, 103);
    ASSERT_EQ(1u, m_Wire.size());
    EXPECT_EQ(udxpeer::kAck, m_Wire[0].Head().nType);
    EXPECT_EQ(1, m_Wire[0].Head().wSerial);
    EXPECT_EQ(1, State().wAckLast);
    m_Engine->RunSessions(0, 200);
    EXPECT_EQ(1u, CountType(udxpeer::kAck)) << "no ACK while the next serial is unchanged";
}

TEST_F(EngineTest, AckPrunesKeptPacketsResendsOldOnesAndRequestsAreAnsweredOnThePass) {
    Connected(Config(true, true));
    for (int i = 0; i < 12; ++i)
        ASSERT_TRUE(Send("m" + std::to_string(i), 0));
    EXPECT_EQ(12u, State().nSent);
    m_Wire.clear();

    ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kAck, 0, 10), 2000));
    EXPECT_EQ(2u, State().nSent);
    EXPECT_EQ(0u, State().nSend) << "2000 ms is not yet too old";
    ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kAck, 0, 10), 2001));
    EXPECT_EQ(2u, State().nSend);
    // a request is answered with the kept packet, or with RESEND_GONE for one no longer kept
    ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kResendRequest, 0, 11)));
    ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kResendRequest, 0, 3)));
    EXPECT_TRUE(m_Wire.empty()) << "everything waits for the session pass";
    m_Engine->StartTimers(0);
    m_Engine->RunSessions(2001, 0);
    ASSERT_EQ(4u, m_Wire.size());
    const uint16_t wSerials[] = {10, 11, 11, 3};
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ(wSerials[i], m_Wire[i].Head().wSerial);
    EXPECT_EQ("m11", m_Wire[2].strData.substr(30));
    EXPECT_EQ(udxpeer::kResendGone, m_Wire[3].Head().nType);
    EXPECT_EQ(30u, m_Wire[3].strData.size());
    EXPECT_EQ(0u, State().nSend);

    ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kAck, 0, 10), 2500));
    m_Engine->RunSessions(2500, 0);
    EXPECT_EQ(6u, m_Wire.size()) << "resent again on every ACK that leaves them in place";
}

TEST_F(EngineTest, ResendGoneSkipsTheSerialOrClosesInStrictMode) {
    Connected(Config(true));
    ASSERT_TRUE(Feed(Data(1, "1")));
    std::string strOut;
    EXPECT_FALSE(Fetch(&strOut));
    EXPECT_EQ(1u, State().nResend);
    ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kResendGone, 0, 0)));
    EXPECT_EQ(0u, State().nResend);
    EXPECT_EQ(1, State().wRecvNext);
    ASSERT_TRUE(Fetch(&strOut));
    EXPECT_EQ("1", strOut);

    Connected(Config(true, true, false, 0, true, true));
    ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kResendGone, 0, 0)));
    EXPECT_EQ(1u, m_Engine->SessionCount()) << "the close is deferred";
    m_Log.clear();
    m_Engine->RunCloses();
    EXPECT_EQ(0u, m_Engine->SessionCount());
    ASSERT_EQ(1u, m_Wire.size());
    EXPECT_EQ(udxpeer::kClose, m_Wire[0].Head().nType);
    EXPECT_EQ((std::vector<std::string>{"removed 10.0.0.7:4000", "leave 10.0.0.7:4000"}), m_Log);
}

TEST_F(EngineTest, CloseFromThePeerOrTheApplicationEndsTheSession) {
    Connected(Config(true, true, false, 0, false, true));
    m_Log.clear();
    ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kClose, 0, 0)));
    EXPECT_EQ(std::vector<std::string>{"active 10.0.0.7:4000"}, m_Log);
    m_Engine->RunCloses();
    EXPECT_EQ(0u, m_Engine->SessionCount());
    ASSERT_EQ(1u, m_Wire.size());
    EXPECT_EQ(udxpeer::kClose, m_Wire[0].Head().nType);
    EXPECT_EQ(kPeer, m_Wire[0].strAddr);
    EXPECT_FALSE(Feed(Data(0, "late")));
    EXPECT_EQ(ERROR_NETCORE_UDX_PARSE_NOTFOUND, NetCore_GetLastError(nullptr));

    // the application's close, twice: the second finds no session but still sends CLOSE
    ASSERT_TRUE(Feed(udxpeer::Packet(udxpeer::kConnect, 0, 0)));
    m_Wire.clear();
    m_Log.clear();
    EXPECT_TRUE(m_Engine->Close(kPeer));
    EXPECT_TRUE(m_Engine->Close(kPeer));
    m_Engine->RunCloses();
    EXPECT_EQ(2u, m_Wire.size());
    EXPECT_EQ((std::vector<std::string>{"removed 10.0.0.7:4000", "leave 10.0.0.7:4000", "leave 10.0.0.7:4000"}), m_Log);
}

TEST_F(EngineTest, SmallMessagesWaitForTheMergingPassAndFollowTheTwentyMsRule) {
    Connected(Config(true, true, true));
    ASSERT_TRUE(Send(std::string(699, 'a'), 0));
    EXPECT_TRUE(m_Wire.empty());
    EXPECT_EQ(1u, State().nMtap);
    EXPECT_EQ(0u, State().nSent) << "merged packets are not kept";
    ASSERT_TRUE(Send(std::string(700, 'b'), 0));
    ASSERT_EQ(1u, m_Wire.size()) << "700 bytes go out at once";
    EXPECT_EQ(1, m_Wire[0].Head().wSerial);
    m_Wire.clear();
    m_Engine->Clear();

    // three small packets: each that still fits pushes out what the buffer held
    Connected(Config(true, true, true));
    for (char c : {'x', 'y', 'z'})
        ASSERT_TRUE(Send(std::string(100, c), 1000));
    m_Engine->RunMtap(1000);
    ASSERT_EQ(2u, m_Wire.size());
    EXPECT_EQ(std::string(100, 'x'), m_Wire[0].strData.substr(30));
    EXPECT_EQ(std::string(100, 'y'), m_Wire[1].strData.substr(30));
    EXPECT_EQ(130u, State().nMtapLen);
    m_Engine->RunMtap(1020);
    EXPECT_EQ(2u, m_Wire.size()) << "20 ms is not yet more than 20 ms";
    m_Engine->RunMtap(1021);
    ASSERT_EQ(3u, m_Wire.size());
    EXPECT_EQ(std::string(100, 'z'), m_Wire[2].strData.substr(30));
    EXPECT_EQ(0u, State().nMtapLen);

    // a fresh packet that does not fit goes to the start of the buffer, the length grows
    m_Wire.clear();
    ASSERT_TRUE(Send(std::string(699, 'p'), 2000));
    ASSERT_TRUE(Send(std::string(699, 'q'), 2000));
    m_Engine->RunMtap(2010);
    EXPECT_TRUE(m_Wire.empty());
    EXPECT_EQ(1458u, State().nMtapLen);
    m_Engine->RunMtap(2031);
    ASSERT_EQ(1u, m_Wire.size());
    ASSERT_EQ(1458u, m_Wire[0].strData.size());
    EXPECT_EQ(std::string(699, 'q'), m_Wire[0].strData.substr(30, 699));
    EXPECT_EQ(std::string(729, '\0'), m_Wire[0].strData.substr(729));

    // a stale packet that does not fit goes out by itself
    m_Wire.clear();
    ASSERT_TRUE(Send(std::string(699, 'r'), 3000));
    m_Engine->RunMtap(3000);
    ASSERT_TRUE(Send(std::string(699, 's'), 3000));
    m_Engine->RunMtap(3050);
    ASSERT_EQ(2u, m_Wire.size());
    EXPECT_EQ(std::string(699, 's'), m_Wire[0].strData.substr(30));
    EXPECT_EQ(std::string(699, 'r'), m_Wire[1].strData.substr(30)) << "then the buffer, being old";
}

TEST_F(EngineTest, MergingNeverReadsPastItsBuffer) {
    Connected(Config(false, false, true));
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(Send(std::string(699, 'm'), 0));
    m_Engine->RunMtap(5);
    EXPECT_EQ(2048u, State().nMtapLen);
    m_Engine->RunMtap(100);
    ASSERT_EQ(1u, m_Wire.size());
    EXPECT_EQ(2048u, m_Wire[0].strData.size());
}

TEST_F(EngineTest, ArgumentsAndUnknownPeersAreRefusedWithTheirCodes) {
    Connected(Config(true));
    char tszBuffer[2048];
    int nLen = 0;
    UDXEngine& e = *m_Engine;
    const std::vector<std::pair<std::function<bool()>, unsigned long long>> rows = {
        {[&] { return e.Send("10.0.0.8:1", "x", 1, 0); }, ERROR_NETCORE_UDX_SEND_NOTFOUND},
        {[&] { return e.Send(nullptr, "x", 1, 0); }, ERROR_NETCORE_UDX_SEND_NOTFOUND},
        {[&] { return e.Send(kPeer, nullptr, 1, 0); }, ERROR_NETCORE_UDX_SEND_PARAMENT},
        {[&] { return e.Send(kPeer, "x", -1, 0); }, ERROR_NETCORE_UDX_SEND_PARAMENT},
        // the peer is looked up before the length is judged
        {[&] { return e.Send("10.0.0.8:1", "x", -1, 0); }, ERROR_NETCORE_UDX_SEND_NOTFOUND},
        {[&] { return e.Recv(kPeer, nullptr, &nLen, 0); }, ERROR_NETCORE_UDX_RECV_PARAMENT},
        {[&] { return e.Recv(kPeer, tszBuffer, nullptr, 0); }, ERROR_NETCORE_UDX_RECV_PARAMENT},
        {[&] { return e.Recv(nullptr, tszBuffer, &nLen, 0); }, ERROR_NETCORE_UDX_RECV_PARAMENT},
        {[&] { return e.Recv("1.2.3.4:5", tszBuffer, &nLen, 0); }, ERROR_NETCORE_UDX_RECV_NOTFOUND},
        {[&] { return e.Recv(kPeer, tszBuffer, &nLen, 0); }, ERROR_NETCORE_UDX_RECV_EMPTY},
        {[&] { return e.Accept(nullptr, 0); }, ERROR_NETCORE_UDX_ACCEPT_PARAMENT},
        {[&] { return e.Parse(kPeer, nullptr, 30, 0); }, ERROR_NETCORE_UDX_PARSE_PARAMENT},
        {[&] { return e.Parse(nullptr, "x", 1, 0); }, ERROR_NETCORE_UDX_PARSE_PARAMENT},
        {[&] { return Feed(udxpeer::Packet(udxpeer::kData, 0, 0).substr(0, 29)); }, ERROR_NETCORE_UDX_PARSE_PROTOCOL},
    };
    for (size_t i = 0; i < rows.size(); i++) {
        SCOPED_TRACE(i);
        nctest::ResetErrorState();
        EXPECT_FALSE(rows[i].first());
        EXPECT_TRUE(ErrorFlag());
        EXPECT_EQ(rows[i].second, NetCore_GetLastError(nullptr));
    }
    EXPECT_TRUE(m_Wire.empty());
}

}  // namespace
