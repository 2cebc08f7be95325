// UDX endpoints through the exported handle functions, with a real peer on loopback, directly or
// through a lossy relay.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
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
        if (m_hUDX != nullptr) {
            EXPECT_TRUE(NetCore_UDXSocket_DestroyEx(m_hUDX));
        }
        m_hUDX = nullptr;
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

TEST_F(UDXSocketTest, NullHandlesAndAMissingConfigurationFail) {
    char tszBuffer[2048];
    int nLen = 0;
    auto ExpectHandleNull = [](bool bResult) {
        EXPECT_FALSE(bResult);
        EXPECT_TRUE(ErrorFlag());
        EXPECT_EQ(ERROR_NETCORE_UDX_HANDLE_NULL, NetCore_GetLastError(nullptr));
    };
    ExpectHandleNull(NetCore_UDXSocket_SendEx(nullptr, "127.0.0.1:1", "x", 1));
    ExpectHandleNull(NetCore_UDXSocket_RecvEx(nullptr, "127.0.0.1:1", tszBuffer, &nLen));
    ExpectHandleNull(NetCore_UDXSocket_CBSetEx(nullptr, OnLogin, OnLeave, nullptr, nullptr));
    ExpectHandleNull(NetCore_UDXSocket_CloseEx(nullptr, "127.0.0.1:1"));
    ExpectHandleNull(NetCore_UDXSocket_DestroyEx(nullptr));

    EXPECT_EQ(nullptr, NetCore_UDXSocket_InitEx(nullptr, FreeUdpPort(), 1));
    EXPECT_TRUE(ErrorFlag());
    EXPECT_EQ(ERROR_NETCORE_UDX_INIT_PARAMENT, NetCore_GetLastError(nullptr));
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
    ASSERT_TRUE(Fetch(strAddr, &strOut));
    EXPECT_EQ("hello", strOut);
    // a long message arrives as its 1400-byte pieces
    for (size_t nPiece : {1400u, 1400u, 1u}) {
        ASSERT_TRUE(Fetch(strAddr, &strOut));
        EXPECT_EQ(std::string(nPiece, 'L'), strOut);
    }
    char tszBuffer[2048];
    int nLen = 0;
    EXPECT_FALSE(NetCore_UDXSocket_RecvEx(m_hUDX, strAddr.c_str(), tszBuffer, &nLen));
    EXPECT_EQ(ERROR_NETCORE_UDX_RECV_EMPTY, NetCore_GetLastError(nullptr));

    ASSERT_TRUE(Send(strAddr, "world"));
    EXPECT_FALSE(ErrorFlag());
    ASSERT_TRUE(Send(strAddr, std::string(2800, 'R')));
    ASSERT_TRUE(st_Peer.Recv(&strOut, 5s));
    EXPECT_EQ("world", strOut);
    ASSERT_TRUE(st_Peer.Recv(&strOut, 5s));
    EXPECT_EQ(std::string(1400, 'R'), strOut);
    ASSERT_TRUE(st_Peer.Recv(&strOut, 5s));

    EXPECT_FALSE(Send("127.0.0.1:9", "nobody"));
    EXPECT_EQ(ERROR_NETCORE_UDX_SEND_NOTFOUND, NetCore_GetLastError(nullptr));
    EXPECT_FALSE(NetCore_UDXSocket_RecvEx(m_hUDX, "127.0.0.1:9", tszBuffer, &nLen));
    EXPECT_EQ(ERROR_NETCORE_UDX_RECV_NOTFOUND, NetCore_GetLastError(nullptr));
}

TEST_F(UDXSocketTest, SendCreditComesFromTheConnectingPeer) {
    Start(Config(false));
    udxpeer::Options st_Options;
    st_Options.nWindow = 1000;
    udxpeer::Peer st_Peer;
    ASSERT_TRUE(st_Peer.Open(m_nPort, st_Options));
    ASSERT_TRUE(st_Peer.Connect(5s));
    EXPECT_EQ(0u, st_Peer.GrantedWindow());
    const std::string strAddr = st_Peer.LocalAddr();
    EXPECT_FALSE(Send(strAddr, std::string(1001, 'w')));
    EXPECT_EQ(ERROR_NETCORE_UDX_SEND_WINDOW, NetCore_GetLastError(nullptr));
    EXPECT_TRUE(Send(strAddr, std::string(1000, 'w')));
    std::string strOut;
    ASSERT_TRUE(st_Peer.Recv(&strOut, 5s));
    EXPECT_EQ(1000u, strOut.size()) << "the refused message used no serial";
}

TEST_F(UDXSocketTest, CloseNeedsSupervisionAndEndsTheSessionWithALeave) {
    // without bHeartBeat a close is accepted and changes nothing
    Start(Config(false));
    {
        udxpeer::Peer st_Peer;
        ASSERT_TRUE(st_Peer.Open(m_nPort));
        ASSERT_TRUE(st_Peer.Connect(5s));
        EXPECT_TRUE(NetCore_UDXSocket_CloseEx(m_hUDX, st_Peer.LocalAddr().c_str()));
        EXPECT_FALSE(ErrorFlag());
        std::this_thread::sleep_for(50ms);  // give a wrongly carried-out close the chance to show
        EXPECT_TRUE(Send(st_Peer.LocalAddr(), "still here"));
        EXPECT_EQ(0u, st_Peer.CountOf(udxpeer::kClose));
        EXPECT_TRUE(m_Calls.Logins().empty());
    }
    ASSERT_TRUE(NetCore_UDXSocket_DestroyEx(m_hUDX));
    m_hUDX = nullptr;

    Start(Config(true));
    udxpeer::Peer st_First, st_Second;
    ASSERT_TRUE(st_First.Open(m_nPort));
    ASSERT_TRUE(st_Second.Open(m_nPort));
    ASSERT_TRUE(st_First.Connect(5s));
    ASSERT_TRUE(st_Second.Connect(5s));
    // closed by the application: CLOSE goes to the peer, the leave callback follows
    EXPECT_TRUE(NetCore_UDXSocket_CloseEx(m_hUDX, st_First.LocalAddr().c_str()));
    ASSERT_TRUE(WaitFor([&] { return m_Calls.Leaves() == 1; }));
    EXPECT_TRUE(WaitFor([&] { return st_First.CountOf(udxpeer::kClose) == 1; }));
    EXPECT_FALSE(Send(st_First.LocalAddr(), "gone"));
    EXPECT_EQ(ERROR_NETCORE_UDX_SEND_NOTFOUND, NetCore_GetLastError(nullptr));
    // closed by the peer
    st_Second.SendClose();
    ASSERT_TRUE(WaitFor([&] { return m_Calls.Leaves() == 2; }));
    std::lock_guard<std::mutex> lock(m_Calls.mutex);
    EXPECT_EQ((std::vector<std::string>{st_First.LocalAddr(), st_Second.LocalAddr()}), m_Calls.leaves);
}

TEST_F(UDXSocketTest, SilentPeerIsDroppedByTheSupervisor) {
    Start(Config(true));
    udxpeer::Options st_Options;
    st_Options.bAutomatic = false;  // no ACKs: after CONNECT the peer says nothing
    udxpeer::Peer st_Silent, st_Chatty;
    ASSERT_TRUE(st_Silent.Open(m_nPort, st_Options));
    ASSERT_TRUE(st_Chatty.Open(m_nPort));
    ASSERT_TRUE(st_Silent.Connect(5s));
    ASSERT_TRUE(st_Chatty.Connect(5s));
    // 5-second intervals, 3 tolerated misses: about 20 s
    ASSERT_TRUE(WaitFor([&] { return m_Calls.Leaves() == 1; }, 60s));
    {
        std::lock_guard<std::mutex> lock(m_Calls.mutex);
        EXPECT_EQ(st_Silent.LocalAddr(), m_Calls.leaves[0]);
    }
    EXPECT_TRUE(WaitFor([&] { return st_Silent.CountOf(udxpeer::kClose) == 1; }));
    EXPECT_EQ(0u, st_Chatty.CountOf(udxpeer::kClose)) << "a peer that keeps talking stays";
    EXPECT_TRUE(Send(st_Chatty.LocalAddr(), "still supervised"));
}

// Messages carry their index, so that order and completeness can be checked.
std::string Message(char cDirection, int nIndex) {
    std::string strMsg = std::string(1, cDirection) + std::to_string(nIndex) + ":";
    strMsg.append(static_cast<size_t>((nIndex * 37) % 1300), static_cast<char>('a' + nIndex % 26));
    return strMsg;
}

TEST_F(UDXSocketTest, TwoThousandMessagesEachWayCrossALossyRelayInOrder) {
    constexpr int kMessages = 2000;
    constexpr int kInFlight = 32;  // both senders wait while this many are undelivered
    Start(Config(true));
    udxpeer::LossyRelay st_Relay;
    udxpeer::RelayOptions st_RelayOptions;  // 1% loss, 1% duplicates, 2% reordered, fixed seed
    ASSERT_TRUE(st_Relay.Start(m_nPort, st_RelayOptions));
    udxpeer::Peer st_Peer;
    ASSERT_TRUE(st_Peer.Open(st_Relay.Port()));
    ASSERT_TRUE(st_Peer.Connect(10s));
    const std::string strAddr = st_Relay.Addr();
    ASSERT_TRUE(WaitFor([&] { return m_Calls.Logins().size() == 1; }));

    const auto tDeadline = std::chrono::steady_clock::now() + 100s;
    auto InTime = [&] { return std::chrono::steady_clock::now() < tDeadline; };
    std::atomic<int> nAtEndpoint{0}, nAtPeer{0};
    std::atomic<bool> bOrderBroken{false};

    // peer -> endpoint: the endpoint's application fetches
    std::thread st_Reader([&] {
        char tszBuffer[2048];
        int nLen = 0;
        while (nAtEndpoint < kMessages && InTime()) {
            if (!NetCore_UDXSocket_RecvEx(m_hUDX, strAddr.c_str(), tszBuffer, &nLen)) {
                std::this_thread::sleep_for(1ms);
                continue;
            }
            if (std::string(tszBuffer, static_cast<size_t>(nLen)) != Message('p', nAtEndpoint)) bOrderBroken = true;
            ++nAtEndpoint;
        }
    });
    std::thread st_PeerWriter([&] {
        for (int i = 0; i < kMessages && InTime(); ++i) {
            while (i - nAtEndpoint >= kInFlight && InTime())
                std::this_thread::sleep_for(1ms);
            st_Peer.Send(Message('p', i));
        }
    });
    // endpoint -> peer
    std::thread st_PeerReader([&] {
        std::string strOut;
        while (nAtPeer < kMessages && InTime()) {
            if (!st_Peer.Recv(&strOut, 100ms)) continue;
            if (strOut != Message('e', nAtPeer)) bOrderBroken = true;
            ++nAtPeer;
        }
    });
    for (int i = 0; i < kMessages && InTime(); ++i) {
        while (i - nAtPeer >= kInFlight && InTime())
            std::this_thread::sleep_for(1ms);
        if (!Send(strAddr, Message('e', i))) {
            ADD_FAILURE() << "send " << i << " failed: " << std::hex << NetCore_GetLastError(nullptr);
            break;
        }
    }
    st_PeerWriter.join();
    st_Reader.join();
    st_PeerReader.join();

    EXPECT_FALSE(bOrderBroken);
    EXPECT_EQ(kMessages, nAtEndpoint.load());
    EXPECT_EQ(kMessages, nAtPeer.load());
    udxpeer::RelayStats st_Stats = st_Relay.Stats();
    EXPECT_GT(st_Stats.nDropped, 0u);
    EXPECT_GT(st_Stats.nDuplicated, 0u);
    EXPECT_GT(st_Stats.nReordered, 0u);
    EXPECT_EQ(0u, m_Calls.Leaves());
    st_Peer.Stop();
    st_Relay.Stop();
}

}  // namespace
