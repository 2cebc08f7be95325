// Demo section: a UDX endpoint and a peer exchanging messages on loopback.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "../../tools/udxpeer/UDXPeer.h"
#include "Demo.h"
#include "Ombrelt_NetCore.h"

namespace {

std::atomic<int> g_nLeaves{0};

bool UDXLogin(char const* lpszAddr, int, void*) {
    printf("    login callback: %s\n", lpszAddr);
    return true;
}

void UDXLeave(char const* lpszAddr, int, void*) {
    printf("    leave callback: %s\n", lpszAddr);
    ++g_nLeaves;
}

// A UDP port nobody uses right now.
int FreePort() {
    int hSocket = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in st_Addr{};
    st_Addr.sin_family = AF_INET;
    bind(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    close(hSocket);
    return ntohs(st_Addr.sin_port);
}

template <typename Pred>
bool WaitUntil(Pred fnPred, std::chrono::milliseconds timeout) {
    auto tEnd = std::chrono::steady_clock::now() + timeout;
    while (!fnPred()) {
        if (std::chrono::steady_clock::now() > tEnd) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace

void DemoUDX() {
    printf("UDX reliable transport on 127.0.0.1\n");
    tag_NetCore_UDXConfig st_Config{};
    st_Config.bHeartBeat = true;
    st_Config.bOrder = true;
    st_Config.bReliable = true;
    st_Config.nWindowSize = 65536;
    const int nPort = FreePort();
    void* xhUDX = NetCore_UDXSocket_InitEx(&st_Config, nPort, 1);
    Report("start an endpoint (ordered, reliable)", xhUDX != nullptr);
    if (xhUDX == nullptr) return;
    Report("register login and leave callbacks",
           NetCore_UDXSocket_CBSetEx(xhUDX, UDXLogin, UDXLeave, nullptr, nullptr));

    udxpeer::Peer st_Peer;
    Report("open a peer", st_Peer.Open(nPort));
    Report("peer connects (CONNECT_OK)", st_Peer.Connect(std::chrono::seconds(5)));
    printf("    window granted to the peer: %u bytes\n", st_Peer.GrantedWindow());
    const std::string strAddr = st_Peer.LocalAddr();

    st_Peer.Send(std::string("hello from the peer"));
    char tszBuffer[2048];
    int nLen = 0;
    bool bGot = WaitUntil([&] { return NetCore_UDXSocket_RecvEx(xhUDX, strAddr.c_str(), tszBuffer, &nLen); },
                          std::chrono::seconds(5));
    Report("endpoint fetches the peer's message", bGot);
    if (bGot) printf("    endpoint got: %.*s\n", nLen, tszBuffer);

    const std::string strReply = "hello from the endpoint";
    Report("endpoint answers",
           NetCore_UDXSocket_SendEx(xhUDX, strAddr.c_str(), strReply.data(), static_cast<int>(strReply.size())));
    std::string strOut;
    bool bReply = st_Peer.Recv(&strOut, std::chrono::seconds(5));
    Report("peer receives the answer", bReply && strOut == strReply);
    if (bReply) printf("    peer got: %s\n", strOut.c_str());

    Report("close the peer's session", NetCore_UDXSocket_CloseEx(xhUDX, strAddr.c_str()));
    Report("leave callback called", WaitUntil([] { return g_nLeaves.load() == 1; }, std::chrono::seconds(5)));
    Report("peer receives CLOSE",
           WaitUntil([&] { return st_Peer.CountOf(udxpeer::kClose) == 1; }, std::chrono::seconds(5)));
    st_Peer.Stop();
    Report("destroy the endpoint", NetCore_UDXSocket_DestroyEx(xhUDX));
}
