// UDX endpoints through the exported handle functions, with a real peer on loopback, directly or
// through a relay that duplicates and reorders. Loss recovery waits for the protocol's one-second
// timers, so its rules are pinned on the engine with a made-up clock instead.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "../../tools/udxpeer/LossyRelay.h"
#include "../../tools/udxpeer/UDXPeer.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
using nctest::ErrorFlag;
using nctest::WaitFor;

tag_NetCore_UDXConfig Config(bool bHeartBeat, int nWindowSize = 0) {
    tag_NetCore_UDXConfig st_Config{};
    st_Config.bHeartBeat = bHeartBeat;
    st_Config.bOrder = true;
    st_Config.bReliable = true;
    st_Config.bStrictResend = false;
    st_Config.bMtap = false;
    st_Config.nWindowSize = nWindowSize;
    return st_Config;
}

// What the two callbacks saw.
struct Calls {
    std::mutex mutex;
    std::vector<std::string> logins, leaves;
    std::vector<void*> contexts;
    std::atomic<void*> hGreeter{nullptr};  // when set, the login callback tries to greet the new peer
    size_t Leaves() {
        std::lock_guard<std::mutex> lock(mutex);
        return leaves.size();
    }
    std::vector<std::string> Logins() {
        std::lock_guard<std::mutex> lock(mutex);
        return logins;
    }
};

bool OnLogin(char const* lpszAddr, int hSocket, void* lParam) {
    auto* calls = static_cast<Calls*>(lParam);
    std::lock_guard<std::mutex> lock(calls->mutex);
    calls->logins.push_back(lpszAddr);
    calls->contexts.push_back(lParam);
    EXPECT_EQ(0, hSocket);
    if (void* hUDX = calls->hGreeter.load()) {
        // nothing reaches the peer for its session before this callback has returned
        EXPECT_FALSE(NetCore_UDXSocket_SendEx(hUDX, lpszAddr, "welcome", 7));
        EXPECT_EQ(ERROR_NETCORE_UDX_SEND_NOTFOUND, NetCore_GetLastError(nullptr));
    }
    return false;  // the result is not used: the session stays
}

void OnLeave(char const* lpszAddr, int hSocket, void* lParam) {
    auto* calls = static_cast<Calls*>(lParam);
    std::lock_guard<std::mutex> lock(calls->mutex);
    calls->leaves.push_back(lpszAddr);
    EXPECT_EQ(0, hSocket);
}

int FreeUdpPort() {
    int port = 0;
    nctest::Fd fd = nctest::BindUdp(AF_INET, &port);
    return port;
}

class UDXSocketTest : public nctest::NetCoreTest {
protected:
    void TearDown() override {
        EXPECT_TRUE(m_hUDX == nullptr || NetCore_UDXSocket_DestroyEx(m_hUDX));
        nctest::NetCoreTest::TearDown();
    }
    // Starts an endpoint on a free port (probed, so retried if another process takes it first).
    void Start(tag_NetCore_UDXConfig st_Config) {
        for (int i = 0; i < 5 && m_hUDX == nullptr; ++i) {
            m_nPort = FreeUdpPort();
            m_hUDX = NetCore_UDXSocket_InitEx(&st_Config, m_nPort, 1);
        }
        ASSERT_NE(nullptr, m_hUDX);
        ASSERT_TRUE(NetCore_UDXSocket_CBSetEx(m_hUDX, OnLogin, OnLeave, &m_Calls, &m_Calls));
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

    void* m_hUDX = nullptr;
    int m_nPort = 0;
    Calls m_Calls;
};

TEST_F(UDXSocketTest, NullHandlesAndMissingArgumentsFailWithTheirCodes) {
    char tszBuffer[2048];
    int nLen = 0;
    const std::vector<std::pair<std::function<bool()>, unsigned long long>> rows = {
        {[&] { return NetCore_UDXSocket_SendEx(nullptr, "127.0.0.1:1", "x", 1); }, ERROR_NETCORE_UDX_HANDLE_NULL},
        {[&] { return NetCore_UDXSocket_RecvEx(nullptr, "127.0.0.1:1", tszBuffer, &nLen); },
         ERROR_NETCORE_UDX_HANDLE_NULL},
        {[&] { return NetCore_UDXSocket_CBSetEx(nullptr, OnLogin, OnLeave, nullptr, nullptr); },
         ERROR_NETCORE_UDX_HANDLE_NULL},
        {[&] { return NetCore_UDXSocket_CloseEx(nullptr, "127.0.0.1:1"); }, ERROR_NETCORE_UDX_HANDLE_NULL},
        {[&] { return NetCore_UDXSocket_DestroyEx(nullptr); }, ERROR_NETCORE_UDX_HANDLE_NULL},
        {[&] { return NetCore_UDXSocket_InitEx(nullptr, FreeUdpPort(), 1) != nullptr; },
         ERROR_NETCORE_UDX_INIT_PARAMENT},
    };
    for (size_t i = 0; i < rows.size(); i++) {
        SCOPED_TRACE(i);
        nctest::ResetErrorState();
        EXPECT_FALSE(rows[i].first());
        EXPECT_TRUE(ErrorFlag());
        EXPECT_EQ(rows[i].second, NetCore_GetLastError(nullptr));
    }
}

TEST_F(UDXSocketTest, PeerConnectsAndMessagesTravelBothWays) {
    Start(Config(true, 65536));
    EXPECT_FALSE(NetCore_UDXSocket_CBSetEx(m_hUDX, OnLogin, nullptr, nullptr, nullptr));
    EXPECT_EQ(ERROR_NETCORE_UDX_CBSET_PARAMENT, NetCore_GetLastError(nullptr));
    ASSERT_TRUE(NetCore_UDXSocket_CBSetEx(m_hUDX, OnLogin, OnLeave, &m_Calls, &m_Calls));
    m_Calls.hGreeter = m_hUDX;

    udxpeer::Peer st_Peer;
    ASSERT_TRUE(st_Peer.Open(m_nPort));
    ASSERT_TRUE(st_Peer.Connect(5s));
    EXPECT_EQ(65536u, st_Peer.GrantedWindow());
    const std::string strAddr = st_Peer.LocalAddr();
    ASSERT_TRUE(WaitFor([&] { return m_Calls.Logins().size() == 1; }));
    EXPECT_EQ(strAddr, m_Calls.Logins()[0]);
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
    ASSERT_TRUE(WaitFor([&] { return m_Calls.Leaves() == 1; }));
    EXPECT_TRUE(WaitFor([&] { return st_Peer.CountOf(udxpeer::kClose) == 1; }));
    EXPECT_FALSE(Send(strAddr, "gone"));
    EXPECT_EQ(ERROR_NETCORE_UDX_SEND_NOTFOUND, NetCore_GetLastError(nullptr));
    // closed by the peer
    udxpeer::Peer st_Second;
    ASSERT_TRUE(st_Second.Open(m_nPort));
    ASSERT_TRUE(st_Second.Connect(5s));
    st_Second.SendClose();
    ASSERT_TRUE(WaitFor([&] { return m_Calls.Leaves() == 2; }));
    std::lock_guard<std::mutex> lock(m_Calls.mutex);
    EXPECT_EQ((std::vector<std::string>{strAddr, st_Second.LocalAddr()}), m_Calls.leaves);
}

// Messages carry their index, so that order and completeness can be checked.
std::string Message(char cDirection, int nIndex) {
    std::string strMsg = std::string(1, cDirection) + std::to_string(nIndex) + ":";
    strMsg.append(static_cast<size_t>((nIndex * 37) % 1300), static_cast<char>('a' + nIndex % 26));
    return strMsg;
}

TEST_F(UDXSocketTest, MessagesCrossARelayThatDuplicatesAndReordersInOrderBothWays) {
    constexpr int kMessages = 400;
    constexpr int kInFlight = 32;  // both senders wait while this many are undelivered
    Start(Config(true));
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

    const auto tDeadline = std::chrono::steady_clock::now() + 60s;
    auto InTime = [&] { return std::chrono::steady_clock::now() < tDeadline; };
    std::atomic<int> nAtEndpoint{0}, nAtPeer{0};
    std::atomic<bool> bOrderBroken{false};
    // peer -> endpoint, fetched by the endpoint's application
    std::thread st_Reader([&] {
        std::string strOut;
        while (nAtEndpoint < kMessages && Fetch(strAddr, &strOut, 10s) && InTime()) {
            if (strOut != Message('p', nAtEndpoint)) bOrderBroken = true;
            ++nAtEndpoint;
        }
    });
    std::thread st_PeerWriter([&] {
        for (int i = 0; i < kMessages && InTime(); ++i) {
            while (i - nAtEndpoint >= kInFlight && InTime())
                std::this_thread::yield();
            st_Peer.Send(Message('p', i));
        }
    });
    // endpoint -> peer
    std::string strOut;
    for (int i = 0; i < kMessages && InTime(); ++i) {
        ASSERT_TRUE(Send(strAddr, Message('e', i))) << i << " " << std::hex << NetCore_GetLastError(nullptr);
        while (nAtPeer <= i - kInFlight && st_Peer.Recv(&strOut, 10s)) {
            if (strOut != Message('e', nAtPeer)) bOrderBroken = true;
            ++nAtPeer;
        }
    }
    while (nAtPeer < kMessages && st_Peer.Recv(&strOut, 10s)) {
        if (strOut != Message('e', nAtPeer)) bOrderBroken = true;
        ++nAtPeer;
    }
    st_PeerWriter.join();
    st_Reader.join();
    EXPECT_FALSE(bOrderBroken);
    EXPECT_EQ(kMessages, nAtEndpoint.load());
    EXPECT_EQ(kMessages, nAtPeer.load());
    udxpeer::RelayStats st_Stats = st_Relay.Stats();
    EXPECT_GT(st_Stats.nDuplicated, 0u);
    EXPECT_GT(st_Stats.nReordered, 0u);
    EXPECT_EQ(0u, m_Calls.Leaves());
    st_Peer.Stop();
    st_Relay.Stop();
}

}  // namespace
