// The UDX protocol without sockets: datagrams go in through Parse, come out through the send
// hook, and time is whatever the test says it is.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "../../src/udx/UDXEngine.h"
#include "../../tools/udxpeer/UDXPeer.h"
#include "TestSupport.h"

namespace {

using namespace netcore::udx;
using namespace udxpeer;

constexpr const char* kPeer = "10.0.0.7:4000";
enum : unsigned { kOrder = 1, kReliable = 2, kMtap = 4, kStrict = 8, kHeartBeat = 16 };

std::string Data(uint16_t wSerial, const std::string& strPayload) {
    return Packet(kData, static_cast<uint32_t>(strPayload.size()), wSerial, strPayload.data(), strPayload.size());
}

class EngineTest : public nctest::NetCoreTest {
protected:
    // Makes the engine; unless nPeerWindow is negative, kPeer connects with it and what that
    // caused is forgotten. The hooks log "what ", the wire keeps one datagram per entry.
    void Connected(unsigned f, int nWindowSize = 0, long long nPeerWindow = 0) {
        auto Log = [this](const char* lpszWhat) {
            return [this, lpszWhat](const char*) { m_Log += std::string(lpszWhat) + " "; };
        };
        auto Wire = [this](const char*, const char* lpszData, int nLen) { m_Wire.emplace_back(lpszData, nLen); };
        m_Engine = std::make_unique<UDXEngine>(
            tag_NetCore_UDXConfig{(f & kHeartBeat) != 0, (f & kOrder) != 0, (f & kReliable) != 0, (f & kStrict) != 0,
                                  (f & kMtap) != 0, nWindowSize},
            UDXEngine::Hooks{Wire, Log("accepted"), Log("login"), Log("active"), Log("removed"), Log("leave")});
        if (nPeerWindow < 0) return;
        ASSERT_TRUE(Feed(0, Packet(kConnect, static_cast<uint32_t>(nPeerWindow), 0)));
        m_Wire.clear();
        m_Log.clear();
    }
    // Each takes its datagrams or messages in order; true when all of them were taken.
    template <typename... T>
    bool Feed(unsigned long long nTick, const T&... str) {
        bool bAll = true;
        ((bAll = m_Engine->Parse(kPeer, str.data(), static_cast<int>(str.size()), nTick) && bAll), ...);
        return bAll;
    }
    template <typename... T>
    bool Send(unsigned long long nTick, const T&... str) {
        bool bAll = true;
        ((bAll = m_Engine->Send(kPeer, str.data(), static_cast<int>(str.size()), nTick) && bAll), ...);
        return bAll;
    }
    // Fetches until the engine refuses; the messages joined by commas.
    std::string Drain(unsigned long long nTick = 0) {
        std::string strAll;
        char tszBuffer[2048];
        for (int nLen = 0, i = 0; m_Engine->Recv(kPeer, tszBuffer, &nLen, nTick); i++)
            strAll += (i > 0 ? "," : "") + std::string(tszBuffer, static_cast<size_t>(nLen));
        return strAll;
    }
    // What went on the wire since the last call, one "type#serial:length" per datagram.
    std::string Taken() {
        std::string strAll;
        for (const std::string& strData : m_Wire) {
            Header st{};
            EXPECT_TRUE(DecodeHeader(reinterpret_cast<const uint8_t*>(strData.data()), strData.size(), &st));
            char tszText[64];
            snprintf(tszText, sizeof(tszText), " %x#%u:%u", st.nType, st.wSerial, st.nLen);
            strAll += tszText;
        }
        m_Wire.clear();
        return strAll.substr(strAll.empty() ? 0 : 1);
    }
    std::string Pass(unsigned long long nTick, long long nSeconds) {
        m_Engine->RunSessions(nTick, nSeconds);
        return Taken();
    }
    std::string Flush(unsigned long long nTick) {
        m_Engine->RunMtap(nTick);
        return Taken();
    }
    UDXSessionState State() {
        UDXSessionState st_State{};
        EXPECT_TRUE(m_Engine->GetState(kPeer, &st_State));
        return st_State;
    }

    std::unique_ptr<UDXEngine> m_Engine;
    std::vector<std::string> m_Wire;
    std::string m_Log;
};

// The header's layout is checked on every datagram taken from the wire.
TEST_F(EngineTest, ConnectIsAnsweredWithTheWindowARepeatChangesNothingAndBadDatagramsAreRejectedWhole) {
    Connected(kOrder | kReliable | kHeartBeat, 65536, -1);
    EXPECT_FAILS(Feed(0, Packet(kAck, 0, 1)), ERROR_NETCORE_UDX_PARSE_NOTFOUND);
    ASSERT_TRUE(Feed(0, Packet(kConnect, 5000, 0)));
    EXPECT_EQ("9002#0:65536", Taken());
    EXPECT_TRUE(State().nWindowPeer == 5000 && State().nWindowSelf == 65536);
    EXPECT_EQ("login accepted ", m_Log) << "CONNECT does not refresh";
    ASSERT_TRUE(Send(0, std::string("abc")) && Feed(0, Data(0, "xyz")) && Taken() == "9000#0:3" &&
                Feed(0, Packet(kConnect, 99, 0)));
    EXPECT_EQ("9002#0:65536", Taken());
    EXPECT_TRUE(State().nWindowPeer == 5000 - 33 && State().wSendSerial == 1 && State().nRecv == 1);
    EXPECT_TRUE(m_Engine->SessionCount() == 1 && m_Log == "login accepted active ") << m_Log;

    for (auto [nAt, byValue] : std::vector<std::pair<size_t, int>>{{0, 0x12}, {28, 0xFE}, {10, 7}, {31, -1}}) {
        std::string strBad = Data(1, "payload");
        strBad.resize(byValue < 0 ? 29 : strBad.size());  // shorter than a header
        if (byValue >= 0) strBad[nAt] = static_cast<char>(byValue);
        EXPECT_FAILS(Feed(0, strBad), ERROR_NETCORE_UDX_PARSE_PROTOCOL);
    }
    EXPECT_TRUE(State().nRecv == 1 && m_Engine->RecvPackets() == 1);
}

TEST_F(EngineTest, DeliveryInArrivalOrSerialOrderWithGapsDuplicatesAndMergedDatagrams) {
    // unordered: arrival order; a datagram holds several packets
    Connected(0);
    const std::string strA(100, 'a'), strB(200, 'b');
    ASSERT_TRUE(Feed(0, Data(9, strA) + Data(3, strB) + Data(4, "")));
    EXPECT_EQ(strA + "," + strB + ",", Drain());
    EXPECT_EQ(ERROR_NETCORE_UDX_RECV_EMPTY, NetCore_GetLastError(nullptr));
    EXPECT_TRUE(m_Engine->RecvPackets() == 1 && m_Engine->RecvBytes() == 390 && State().wRecvCount == 3);
    EXPECT_TRUE(m_Log.empty()) << "no supervision without bHeartBeat";

    Connected(kOrder);
    ASSERT_TRUE(Feed(0, Data(0, "0"), Data(1, "1"), Data(2, "2")) && Drain() == "0,1,2");
    ASSERT_TRUE(Feed(100, Data(5, "5"), Data(3, "3")));
    EXPECT_FAILS(Feed(100, Data(3, "3")), ERROR_NETCORE_UDX_PARSE_REPEAT);
    EXPECT_EQ("3", Drain(100));
    EXPECT_EQ(ERROR_NETCORE_UDX_RECV_NODATA, NetCore_GetLastError(nullptr));
    EXPECT_EQ("", Drain(150));
    EXPECT_EQ(1u, State().nResend) << "a second failing fetch queues no second request";
    // the request waits more than 1000 ms, then goes out on every pass until the packet comes
    m_Engine->StartTimers(0);
    EXPECT_EQ("", Pass(1100, 0));
    m_Engine->RunSessions(1101, 0);
    EXPECT_EQ("9003#4:0 9003#4:0", Pass(1102, 0));
    EXPECT_FAILS(Feed(0, Data(3, "3")), ERROR_NETCORE_UDX_PARSE_EXPIRED);
    ASSERT_TRUE(Feed(0, Data(4, "4")));
    EXPECT_EQ(0u, State().nResend) << "the arrival cancels the request";
    EXPECT_EQ("4,5", Drain());

    // 0 is lost, 1 arrives twice: the duplicate is queued and the count runs one ahead; 3 is
    // then below the count with nothing queued, and must still be delivered
    Connected(kOrder);
    ASSERT_TRUE(Feed(0, Data(1, "1"), Data(1, "1"), Data(0, "0"), Data(2, "2")) && Drain() == "0,1,2");
    ASSERT_TRUE(Feed(0, Data(3, "3")));
    EXPECT_EQ("3", Drain());
}

TEST_F(EngineTest, LongMessagesAreCutAt1400BytesAndTheSendCreditLimitsThem) {
    Connected(kOrder);
    ASSERT_TRUE(
        Send(0, std::string(1399, 'x'), std::string(2800, 'y'), std::string(1400, 'w') + std::string(1400, 'v') + "z"));
    EXPECT_EQ(std::string(1400, 'v') + "|z", m_Wire.at(4).substr(30) + "|" + m_Wire.at(5).substr(30));
    EXPECT_EQ("9000#0:1399 9000#1:1400 9000#2:1400 9000#3:1400 9000#4:1400 9000#5:1", Taken());
    // nothing is kept without bReliable
    EXPECT_TRUE(m_Engine->SendPackets() == 6 && m_Engine->SendBytes() == 1429 + 4 * 1430 + 31 && State().nSent == 0);

    Connected(kOrder | kReliable, 0, 1000);
    EXPECT_FAILS(Send(0, std::string(1001, 'a')), ERROR_NETCORE_UDX_SEND_WINDOW);
    EXPECT_TRUE(State().wSendSerial == 0 && State().nWindowPeer == 1000) << "a refused send changes nothing";
    // payload plus header comes off: the unsigned credit passes below zero and stops limiting
    ASSERT_TRUE(Send(0, std::string(1000, 'a')) && State().nWindowPeer == static_cast<unsigned int>(1000 - 1030));
    ASSERT_TRUE(Send(0, std::string(5000, 'b')) && State().nSent == 5 && Feed(0, Packet(kWindow, 300, 0)));
    EXPECT_FALSE(Send(0, std::string(301, 'c')));
    EXPECT_TRUE(Feed(0, Packet(kWindow, 0, 0)) && Send(0, std::string(4000, 'c'))) << "a credit of 0 does not limit";
}

// The passes of the session thread (window, ACK, resends, deferred closes) and of the merging one.
TEST_F(EngineTest, PassesAdvertiseAcknowledgeResendCloseSessionsAndFlushMergedMessages) {
    Connected(kOrder | kReliable, 10000);
    m_Engine->StartTimers(50);
    // the WINDOW packet carries the send serial, now 1
    ASSERT_TRUE(Send(0, std::string("s")) && Taken() == "9000#0:1" && Feed(0, Data(0, std::string(100, 'd'))));
    // less than 2048 bytes in use and a new value: advertised at once, not repeated within 3 s
    m_Engine->RunSessions(0, 50);
    EXPECT_EQ("9101#1:9870", Pass(0, 50));
    EXPECT_EQ(std::string(100, 'd'), Drain());
    EXPECT_EQ("9101#1:10000", Pass(0, 50));
    // the ACK names the next serial expected, once more than 2 s have passed and it changed;
    // after more than 3 s the window goes out regardless
    EXPECT_EQ("", Pass(0, 52));
    EXPECT_EQ("9103#1:0", Pass(0, 53));
    EXPECT_EQ("9101#1:10000", Pass(0, 99)) << "no ACK while the next serial is unchanged";

    Connected(kOrder | kReliable);
    for (int i = 0; i < 12; ++i)
        ASSERT_TRUE(Send(0, "m" + std::to_string(i)));
    m_Wire.clear();
    ASSERT_TRUE(Feed(2000, Packet(kAck, 0, 10)));
    EXPECT_TRUE(State().nSent == 2 && State().nSend == 0) << "pruned; 2000 ms is not yet too old";
    // a request is answered with the kept packet, or with RESEND_GONE for one no longer kept,
    // all on the session pass
    ASSERT_TRUE(Feed(2001, Packet(kAck, 0, 10), Packet(kResendRequest, 0, 11), Packet(kResendRequest, 0, 3)));
    EXPECT_TRUE(m_Wire.empty());
    m_Engine->StartTimers(0);
    m_Engine->RunSessions(2001, 0);
    EXPECT_EQ("m11", m_Wire.at(2).substr(30));
    EXPECT_EQ("9000#10:3 9000#11:3 9000#11:3 9004#3:0", Taken());
    ASSERT_TRUE(Feed(2500, Packet(kAck, 0, 10)));
    EXPECT_EQ("9000#10:3 9000#11:3", Pass(2500, 0)) << "resent again on every ACK that leaves them in place";

    // outside strict mode RESEND_GONE only skips the lost serial
    Connected(kOrder);
    ASSERT_TRUE(Feed(0, Data(1, "1")) && Drain().empty() && Feed(0, Packet(kResendGone, 0, 0)));
    EXPECT_EQ("1", Drain());

    for (int nHow = 0; nHow < 3; nHow++) {
        SCOPED_TRACE(nHow);
        Connected(kOrder | kReliable | kStrict | kHeartBeat);
        EXPECT_TRUE(nHow == 2 ? m_Engine->Close(kPeer) && m_Engine->Close(kPeer)
                              : Feed(0, Packet(nHow == 0 ? kClose : kResendGone, 0, 0)));
        EXPECT_EQ(1u, m_Engine->SessionCount()) << "the close is deferred";
        m_Engine->RunCloses();
        EXPECT_EQ(0u, m_Engine->SessionCount());
        // the application's second close finds no session but still sends CLOSE
        EXPECT_EQ(std::string(nHow < 2 ? "active " : "") + "removed leave " + (nHow == 2 ? "leave " : ""), m_Log);
        EXPECT_EQ(nHow == 2 ? "9102#0:0 9102#0:0" : "9102#0:0", Taken());
    }
    EXPECT_FAILS(Feed(0, Data(0, "late")), ERROR_NETCORE_UDX_PARSE_NOTFOUND);

    // 700 bytes go out at once; each small packet that still fits pushes out what the buffer
    // held; merged packets are not kept
    Connected(kOrder | kReliable | kMtap);
    ASSERT_TRUE(Send(1000, std::string(700, 'b'), std::string(100, 'x'), std::string(100, 'y'), std::string(100, 'z')));
    EXPECT_TRUE(State().nMtap == 3 && State().nSent == 1);
    m_Engine->RunMtap(1000);
    EXPECT_EQ(std::string(100, 'y'), m_Wire.at(2).substr(30));
    EXPECT_EQ("9000#0:700 9000#1:100 9000#2:100", Taken());
    EXPECT_EQ("", Flush(1020)) << "20 ms is not yet more than 20 ms";
    EXPECT_EQ("9000#3:100", Flush(1021));

    // a fresh packet that does not fit goes to the start of the buffer, the length grows
    ASSERT_TRUE(Send(2000, std::string(699, 'p'), std::string(699, 'q')));
    EXPECT_TRUE(Flush(2010).empty() && State().nMtapLen == 1458) << State().nMtapLen;
    m_Engine->RunMtap(2031);
    EXPECT_EQ(std::vector<std::string>{Data(5, std::string(699, 'q')) + std::string(729, '\0')}, m_Wire);
    m_Wire.clear();

    // a stale packet that does not fit goes out by itself, then the buffer, being old
    ASSERT_TRUE(Send(3000, std::string(699, 'r')) && Flush(3000).empty() && Send(3000, std::string(699, 's')));
    EXPECT_EQ("9000#7:699 9000#6:699", Flush(3050));

    // the grown length is bounded by the buffer, so a flush never reads past it
    Connected(kMtap);
    const std::string strM(699, 'm');
    ASSERT_TRUE(Send(0, strM, strM, strM, strM, strM, strM, strM, strM, strM, strM) && Flush(5).empty());
    m_Engine->RunMtap(100);
    EXPECT_TRUE(m_Wire.size() == 1 && m_Wire[0].size() == 2048) << m_Wire.size();
}

}  // namespace
