// UDX endpoints through the exported handle functions, with a real peer on loopback, directly or
// through a relay that duplicates and reorders. Loss recovery waits for the protocol's one-second
// timers, so its rules are pinned on the engine with a made-up clock instead.
#include <chrono>
#include <mutex>
#include <string>

#include "../../tools/udxpeer/LossyRelay.h"
#include "../../tools/udxpeer/UDXPeer.h"
#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono_literals;
using nctest::WaitFor;

class UDXSocketTest : public nctest::NetCoreTest {
protected:
    void TearDown() override {
        EXPECT_TRUE(m_hUDX == nullptr || NetCore_UDXSocket_DestroyEx(m_hUDX));
        nctest::NetCoreTest::TearDown();
    }
    static bool OnLogin(char const* lpszAddr, int hSocket, void* lParam) {
        auto* self = static_cast<UDXSocketTest*>(lParam);
        // nothing reaches the peer for its session before this callback has returned
        EXPECT_FALSE(self->Send(lpszAddr, "welcome"));
        EXPECT_EQ(ERROR_NETCORE_UDX_SEND_NOTFOUND, NetCore_GetLastError(nullptr));
        self->Log("login ", lpszAddr, hSocket);
        return false;  // the result is not used: the session stays
    }
    static void OnLeave(char const* lpszAddr, int hSocket, void* lParam) {
        static_cast<UDXSocketTest*>(lParam)->Log("leave ", lpszAddr, hSocket);
    }
    void Log(const char* lpszWhat, const char* lpszAddr, int hSocket) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Calls += lpszWhat + std::string(lpszAddr) + " " + std::to_string(hSocket) + ",";
    }
    std::string Calls() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Calls;
    }
    // Starts an ordered reliable endpoint on a free port.
    void Start(bool bHeartBeat, int nWindowSize = 0) {
        tag_NetCore_UDXConfig st_Config{bHeartBeat, true, true, false, false, nWindowSize};
        for (int i = 0; i < 10 && m_hUDX == nullptr; i++) {  // another process may take the probed port first
            nctest::BindUdp(AF_INET, &m_nPort);
            m_hUDX = NetCore_UDXSocket_InitEx(&st_Config, m_nPort, 1);
        }
        ASSERT_NE(nullptr, m_hUDX);
        EXPECT_FAILS(NetCore_UDXSocket_CBSetEx(m_hUDX, OnLogin, nullptr, this, this), ERROR_NETCORE_UDX_CBSET_PARAMENT);
        ASSERT_TRUE(NetCore_UDXSocket_CBSetEx(m_hUDX, OnLogin, OnLeave, this, this));
    }
    bool Send(const std::string& strAddr, const std::string& strMsg) {
        return NetCore_UDXSocket_SendEx(m_hUDX, strAddr.c_str(), strMsg.data(), static_cast<int>(strMsg.size()));
    }

    void* m_hUDX = nullptr;
    int m_nPort = 0;
    std::mutex m_Mutex;
    std::string m_Calls;
};

TEST_F(UDXSocketTest, WithoutSupervisionACloseIsAcceptedAndNeverCarriedOut) {
    Start(false);
    udxpeer::Peer st_Peer;
    ASSERT_TRUE(st_Peer.Open(m_nPort) && st_Peer.Connect(5s));
    EXPECT_TRUE(NetCore_UDXSocket_CloseEx(m_hUDX, st_Peer.LocalAddr().c_str()) && !nctest::ErrorFlag());
    std::string strOut;
    EXPECT_TRUE(Send(st_Peer.LocalAddr(), "still here") && st_Peer.Recv(&strOut, 5s) && Calls().empty());
}

// Messages carry their index, so that order and completeness can be checked.
std::string Message(char cDirection, int nIndex) {
    return cDirection + std::to_string(nIndex) + ":" + std::string(static_cast<size_t>((nIndex * 37) % 1300), 'm');
}

TEST_F(UDXSocketTest, PeerBehindADuplicatingReorderingRelayTradesMessagesInOrderUntilEitherSideCloses) {
    Start(true, 65536);
    udxpeer::LossyRelay st_Relay;
    ASSERT_TRUE(st_Relay.Start(m_nPort, {0, 0.03, 0.05}));  // no loss
    udxpeer::Peer st_Peer;
    ASSERT_TRUE(st_Peer.Open(st_Relay.Port()) && st_Peer.Connect(10s));
    EXPECT_EQ(65536u, st_Peer.GrantedWindow());
    const std::string strAddr = st_Relay.Addr();
    const char* lpszAddr = strAddr.c_str();
    ASSERT_TRUE(WaitFor([&] { return Calls() == "login " + strAddr + " 0,"; })) << Calls();

    void* h = m_hUDX;
    char tszBuffer[2048];
    int nLen = 0;
    EXPECT_FAILS(NetCore_UDXSocket_SendEx(h, "127.0.0.1:9", "x", 1), ERROR_NETCORE_UDX_SEND_NOTFOUND);
    EXPECT_FAILS(NetCore_UDXSocket_SendEx(h, nullptr, "x", 1), ERROR_NETCORE_UDX_SEND_NOTFOUND);
    EXPECT_FAILS(NetCore_UDXSocket_SendEx(h, lpszAddr, nullptr, 1), ERROR_NETCORE_UDX_SEND_PARAMENT);
    EXPECT_FAILS(NetCore_UDXSocket_SendEx(h, lpszAddr, "x", -1), ERROR_NETCORE_UDX_SEND_PARAMENT);
    // the peer is looked up before the length is judged
    EXPECT_FAILS(NetCore_UDXSocket_SendEx(h, "127.0.0.1:9", "x", -1), ERROR_NETCORE_UDX_SEND_NOTFOUND);
    EXPECT_FAILS(NetCore_UDXSocket_RecvEx(h, lpszAddr, nullptr, &nLen), ERROR_NETCORE_UDX_RECV_PARAMENT);
    EXPECT_FAILS(NetCore_UDXSocket_RecvEx(h, lpszAddr, tszBuffer, nullptr), ERROR_NETCORE_UDX_RECV_PARAMENT);
    EXPECT_FAILS(NetCore_UDXSocket_RecvEx(h, nullptr, tszBuffer, &nLen), ERROR_NETCORE_UDX_RECV_PARAMENT);
    EXPECT_FAILS(NetCore_UDXSocket_RecvEx(h, "127.0.0.1:9", tszBuffer, &nLen), ERROR_NETCORE_UDX_RECV_NOTFOUND);
    EXPECT_FAILS(NetCore_UDXSocket_RecvEx(h, lpszAddr, tszBuffer, &nLen), ERROR_NETCORE_UDX_RECV_EMPTY);
    EXPECT_FAILS(NetCore_UDXSocket_SendEx(nullptr, lpszAddr, "x", 1), ERROR_NETCORE_UDX_HANDLE_NULL);
    EXPECT_FAILS(NetCore_UDXSocket_RecvEx(nullptr, lpszAddr, tszBuffer, &nLen), ERROR_NETCORE_UDX_HANDLE_NULL);
    EXPECT_FAILS(NetCore_UDXSocket_CBSetEx(nullptr, OnLogin, OnLeave, this, this), ERROR_NETCORE_UDX_HANDLE_NULL);
    EXPECT_FAILS(NetCore_UDXSocket_CloseEx(nullptr, lpszAddr), ERROR_NETCORE_UDX_HANDLE_NULL);
    EXPECT_FAILS(NetCore_UDXSocket_DestroyEx(nullptr), ERROR_NETCORE_UDX_HANDLE_NULL);
    EXPECT_FAILS(NetCore_UDXSocket_InitEx(nullptr, 0, 1) != nullptr, ERROR_NETCORE_UDX_INIT_PARAMENT);

    std::string strOut;  // a long message goes out as its 1400-byte pieces
    ASSERT_TRUE(Send(strAddr, std::string(2801, 'R')));
    for (size_t nPiece : {1400, 1400, 1})
        EXPECT_TRUE(st_Peer.Recv(&strOut, 5s) && strOut == std::string(nPiece, 'R'));
    constexpr int kMessages = 400, kInFlight = 32;  // fetched this far behind: the socket buffers never overflow
    for (int i = 0; i < kMessages + kInFlight; ++i) {
        if (i < kMessages) st_Peer.Send(Message('p', i));
        ASSERT_TRUE(i >= kMessages || Send(strAddr, Message('e', i))) << i << " " << NetCore_GetLastError(nullptr);
        if (i < kInFlight) continue;
        ASSERT_TRUE(WaitFor([&] { return NetCore_UDXSocket_RecvEx(h, lpszAddr, tszBuffer, &nLen); }));
        ASSERT_EQ(Message('p', i - kInFlight), std::string(tszBuffer, static_cast<size_t>(nLen)));
        ASSERT_TRUE(st_Peer.Recv(&strOut, 5s) && strOut == Message('e', i - kInFlight)) << i;
    }
    EXPECT_TRUE(st_Relay.Stats().nDuplicated > 0 && st_Relay.Stats().nReordered > 0);

    // closed by the application: CLOSE goes to the peer, the leave callback follows
    EXPECT_TRUE(NetCore_UDXSocket_CloseEx(m_hUDX, lpszAddr));
    EXPECT_TRUE(
        WaitFor([&] { return Calls().find("leave") != std::string::npos && st_Peer.CountOf(udxpeer::kClose); }));
    EXPECT_FAILS(Send(strAddr, "gone"), ERROR_NETCORE_UDX_SEND_NOTFOUND);
    // closed by the peer
    udxpeer::Peer st_Second;
    ASSERT_TRUE(st_Second.Open(m_nPort) && st_Second.Connect(5s));
    st_Second.SendClose();
    const std::string strSecond = st_Second.LocalAddr();
    EXPECT_TRUE(WaitFor([&] {
        return Calls() ==
               "login " + strAddr + " 0,leave " + strAddr + " 0,login " + strSecond + " 0,leave " + strSecond + " 0,";
    })) << Calls();
}

}  // namespace
