// UDX endpoints through the exported handle functions, with a real peer on loopback, directly or
// through a relay that duplicates and reorders. Loss recovery waits for the protocol's one-second
// timers, so its rules are pinned on the engine with a made-up clock instead.
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "../../tools/udxpeer/LossyRelay.h"
#include "../../tools/udxpeer/UDXPeer.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
using nctest::ErrorFlag;
using nctest::WaitFor;

class UDXSocketTest : public nctest::NetCoreTest {
protected:
    void TearDown() override {
        EXPECT_TRUE(m_hUDX == nullptr || NetCore_UDXSocket_DestroyEx(m_hUDX));
        nctest::NetCoreTest::TearDown();
    }
    static bool OnLogin(char const* lpszAddr, int hSocket, void* lParam) {
        auto* self = static_cast<UDXSocketTest*>(lParam);
        EXPECT_EQ(0, hSocket);
        // nothing reaches the peer for its session before this callback has returned
        EXPECT_FALSE(self->Send(lpszAddr, "welcome"));
        EXPECT_EQ(ERROR_NETCORE_UDX_SEND_NOTFOUND, NetCore_GetLastError(nullptr));
        std::lock_guard<std::mutex> lock(self->m_Mutex);
        self->m_Calls.push_back(std::string("login ") + lpszAddr);
        return false;  // the result is not used: the session stays
    }
    static void OnLeave(char const* lpszAddr, int hSocket, void* lParam) {
        auto* self = static_cast<UDXSocketTest*>(lParam);
        EXPECT_EQ(0, hSocket);
        std::lock_guard<std::mutex> lock(self->m_Mutex);
        self->m_Calls.push_back(std::string("leave ") + lpszAddr);
    }
    std::vector<std::string> Calls() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Calls;
    }
    // Starts an endpoint on a free port (probed, so retried if another process takes it first).
    void Start(bool bHeartBeat, int nWindowSize = 0) {
        tag_NetCore_UDXConfig st_Config{};
        st_Config.bHeartBeat = bHeartBeat;
        st_Config.bOrder = st_Config.bReliable = true;
        st_Config.nWindowSize = nWindowSize;
        for (int i = 0; i < 5 && m_hUDX == nullptr; ++i) {
            nctest::Fd fd = nctest::BindUdp(AF_INET, &m_nPort);
            fd.Reset();
            m_hUDX = NetCore_UDXSocket_InitEx(&st_Config, m_nPort, 1);
        }
        ASSERT_NE(nullptr, m_hUDX);
        ExpectCode(NetCore_UDXSocket_CBSetEx(m_hUDX, OnLogin, nullptr, this, this), ERROR_NETCORE_UDX_CBSET_PARAMENT);
        ASSERT_TRUE(NetCore_UDXSocket_CBSetEx(m_hUDX, OnLogin, OnLeave, this, this));
    }
    // Fetches the next message of a peer, waiting for it.
    bool Fetch(const std::string& strAddr, std::string* pStr_Out, std::chrono::milliseconds timeout = 5s) {
        char tszBuffer[2048];
        int nLen = 0;
        bool bGot =
            WaitFor([&] { return NetCore_UDXSocket_RecvEx(m_hUDX, strAddr.c_str(), tszBuffer, &nLen); }, timeout);
        if (bGot) pStr_Out->assign(tszBuffer, static_cast<size_t>(nLen));
        return bGot;
    }
    bool Send(const std::string& strAddr, const std::string& strMsg) {
        return NetCore_UDXSocket_SendEx(m_hUDX, strAddr.c_str(), strMsg.data(), static_cast<int>(strMsg.size()));
    }
    static void ExpectCode(bool bResult, unsigned long long nCode) {
        EXPECT_FALSE(bResult);
        EXPECT_TRUE(ErrorFlag());
        EXPECT_EQ(nCode, NetCore_GetLastError(nullptr)) << std::hex << nCode;
    }

    void* m_hUDX = nullptr;
    int m_nPort = 0;
    std::mutex m_Mutex;
    std::vector<std::string> m_Calls;
};

TEST_F(UDXSocketTest, ArgumentsHandlesAndUnknownPeersAreRefusedWithTheirCodes) {
    Start(false);
    udxpeer::Peer st_Peer;
    ASSERT_TRUE(st_Peer.Open(m_nPort));
    ASSERT_TRUE(st_Peer.Connect(5s));
    const std::string strAddr = st_Peer.LocalAddr();
    const char* lpszAddr = strAddr.c_str();
    char tszBuffer[2048];
    int nLen = 0;
    void* h = m_hUDX;
    const std::vector<std::pair<std::function<bool()>, unsigned long long>> rows = {
        {[&] { return NetCore_UDXSocket_SendEx(h, "127.0.0.1:9", "x", 1); }, ERROR_NETCORE_UDX_SEND_NOTFOUND},
        {[&] { return NetCore_UDXSocket_SendEx(h, nullptr, "x", 1); }, ERROR_NETCORE_UDX_SEND_NOTFOUND},
        {[&] { return NetCore_UDXSocket_SendEx(h, lpszAddr, nullptr, 1); }, ERROR_NETCORE_UDX_SEND_PARAMENT},
        {[&] { return NetCore_UDXSocket_SendEx(h, lpszAddr, "x", -1); }, ERROR_NETCORE_UDX_SEND_PARAMENT},
        // the peer is looked up before the length is judged
        {[&] { return NetCore_UDXSocket_SendEx(h, "127.0.0.1:9", "x", -1); }, ERROR_NETCORE_UDX_SEND_NOTFOUND},
        {[&] { return NetCore_UDXSocket_RecvEx(h, lpszAddr, nullptr, &nLen); }, ERROR_NETCORE_UDX_RECV_PARAMENT},
        {[&] { return NetCore_UDXSocket_RecvEx(h, lpszAddr, tszBuffer, nullptr); }, ERROR_NETCORE_UDX_RECV_PARAMENT},
        {[&] { return NetCore_UDXSocket_RecvEx(h, nullptr, tszBuffer, &nLen); }, ERROR_NETCORE_UDX_RECV_PARAMENT},
        {[&] { return NetCore_UDXSocket_RecvEx(h, "127.0.0.1:9", tszBuffer, &nLen); }, ERROR_NETCORE_UDX_RECV_NOTFOUND},
        {[&] { return NetCore_UDXSocket_RecvEx(h, lpszAddr, tszBuffer, &nLen); }, ERROR_NETCORE_UDX_RECV_EMPTY},
        {[&] { return NetCore_UDXSocket_SendEx(nullptr, lpszAddr, "x", 1); }, ERROR_NETCORE_UDX_HANDLE_NULL},
        {[&] { return NetCore_UDXSocket_RecvEx(nullptr, lpszAddr, tszBuffer, &nLen); }, ERROR_NETCORE_UDX_HANDLE_NULL},
        {[&] { return NetCore_UDXSocket_CBSetEx(nullptr, OnLogin, OnLeave, this, this); },
         ERROR_NETCORE_UDX_HANDLE_NULL},
        {[&] { return NetCore_UDXSocket_CloseEx(nullptr, lpszAddr); }, ERROR_NETCORE_UDX_HANDLE_NULL},
        {[&] { return NetCore_UDXSocket_DestroyEx(nullptr); }, ERROR_NETCORE_UDX_HANDLE_NULL},
        {[&] { return NetCore_UDXSocket_InitEx(nullptr, 0, 1) != nullptr; }, ERROR_NETCORE_UDX_INIT_PARAMENT},
    };
    for (size_t i = 0; i < rows.size(); i++) {
        SCOPED_TRACE(i);
        nctest::ResetErrorState();
        ExpectCode(rows[i].first(), rows[i].second);
    }
    // without supervision a close is accepted and never carried out
    EXPECT_TRUE(NetCore_UDXSocket_CloseEx(h, lpszAddr));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_TRUE(Send(strAddr, "still here"));
    std::string strOut;
    EXPECT_TRUE(st_Peer.Recv(&strOut, 5s));
    EXPECT_TRUE(Calls().empty());
}

TEST_F(UDXSocketTest, PeerConnectsAndMessagesTravelBothWaysUntilEitherSideCloses) {
    Start(true, 65536);
    udxpeer::Peer st_Peer;
    ASSERT_TRUE(st_Peer.Open(m_nPort));
    ASSERT_TRUE(st_Peer.Connect(5s));
    EXPECT_EQ(65536u, st_Peer.GrantedWindow());
    const std::string strAddr = st_Peer.LocalAddr();
    ASSERT_TRUE(WaitFor([&] { return Calls().size() == 1; }));
    EXPECT_EQ("login " + strAddr, Calls()[0]);
    std::string strOut;
    st_Peer.Send("hello");
    st_Peer.Send(std::string(2801, 'L'));
    // a long message arrives as its 1400-byte pieces
    for (const std::string& strExpected :
         {std::string("hello"), std::string(1400, 'L'), std::string(1400, 'L'), std::string(1, 'L')}) {
        ASSERT_TRUE(Fetch(strAddr, &strOut));
        EXPECT_EQ(strExpected, strOut);
    }
    ASSERT_TRUE(Send(strAddr, "world"));
    EXPECT_FALSE(ErrorFlag());
    ASSERT_TRUE(Send(strAddr, std::string(2800, 'R')));
    for (const std::string& strExpected : {std::string("world"), std::string(1400, 'R'), std::string(1400, 'R')}) {
        ASSERT_TRUE(st_Peer.Recv(&strOut, 5s));
        EXPECT_EQ(strExpected, strOut);
    }
    // closed by the application: CLOSE goes to the peer, the leave callback follows
    EXPECT_TRUE(NetCore_UDXSocket_CloseEx(m_hUDX, strAddr.c_str()));
    ASSERT_TRUE(WaitFor([&] { return Calls().size() == 2; }));
    EXPECT_TRUE(WaitFor([&] { return st_Peer.CountOf(udxpeer::kClose) == 1; }));
    ExpectCode(Send(strAddr, "gone"), ERROR_NETCORE_UDX_SEND_NOTFOUND);
    // closed by the peer
    udxpeer::Peer st_Second;
    ASSERT_TRUE(st_Second.Open(m_nPort));
    ASSERT_TRUE(st_Second.Connect(5s));
    st_Second.SendClose();
    ASSERT_TRUE(WaitFor([&] { return Calls().size() == 4; }));
    const std::string strSecond = st_Second.LocalAddr();
    EXPECT_EQ(
        (std::vector<std::string>{"login " + strAddr, "leave " + strAddr, "login " + strSecond, "leave " + strSecond}),
        Calls());
}

// Messages carry their index, so that order and completeness can be checked.
std::string Message(char cDirection, int nIndex) {
    return cDirection + std::to_string(nIndex) + ":" + std::string(static_cast<size_t>((nIndex * 37) % 1300), 'm');
}

TEST_F(UDXSocketTest, MessagesCrossARelayThatDuplicatesAndReordersInOrderBothWays) {
    constexpr int kMessages = 400;
    constexpr int kInFlight = 32;  // fetched this far behind, so the socket buffers never overflow
    Start(true);
    udxpeer::LossyRelay st_Relay;
    udxpeer::RelayOptions st_RelayOptions;
    st_RelayOptions.dLoss = 0;
    st_RelayOptions.dDuplicate = 0.03;
    st_RelayOptions.dReorder = 0.05;
    ASSERT_TRUE(st_Relay.Start(m_nPort, st_RelayOptions));
    udxpeer::Peer st_Peer;
    ASSERT_TRUE(st_Peer.Open(st_Relay.Port()));
    ASSERT_TRUE(st_Peer.Connect(10s));
    const std::string strAddr = st_Relay.Addr();
    std::string strOut;
    for (int i = 0; i < kMessages + kInFlight; ++i) {
        if (i < kMessages) {
            st_Peer.Send(Message('p', i));
            ASSERT_TRUE(Send(strAddr, Message('e', i))) << i << " " << std::hex << NetCore_GetLastError(nullptr);
        }
        if (i < kInFlight) continue;
        ASSERT_TRUE(Fetch(strAddr, &strOut));
        ASSERT_EQ(Message('p', i - kInFlight), strOut);
        ASSERT_TRUE(st_Peer.Recv(&strOut, 5s));
        ASSERT_EQ(Message('e', i - kInFlight), strOut);
    }
    udxpeer::RelayStats st_Stats = st_Relay.Stats();
    EXPECT_GT(st_Stats.nDuplicated, 0u);
    EXPECT_GT(st_Stats.nReordered, 0u);
    EXPECT_EQ(1u, Calls().size()) << "the login only";
    st_Peer.Stop();
    st_Relay.Stop();
}

}  // namespace
