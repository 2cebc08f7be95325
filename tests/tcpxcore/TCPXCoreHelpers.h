// A started TCP epoll server with recording callbacks, and loopback clients for it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "Ombrelt_NetCore.h"
#include "TestSupport.h"

namespace tcpxtest {

using namespace std::chrono_literals;

struct Recv {
    std::string strAddr;
    int hSocket;
    bool bNull;  // null data
    int nLen;
    std::string strData;
};

// What the server's callbacks reported, in order.
class Recorder {
public:
    std::vector<std::pair<std::string, int>> Logins() { return Copy(m_stlLogins); }
    std::vector<std::pair<std::string, int>> Leaves() { return Copy(m_stlLeaves); }
    std::vector<Recv> Recvs() { return Copy(m_stlRecvs); }
    size_t LoginCount() { return Logins().size(); }
    size_t LeaveCount() { return Leaves().size(); }
    size_t RecvCount() { return Recvs().size(); }
    // all received bytes of one client, concatenated
    std::string DataOf(const std::string& strAddr) {
        std::string strAll;
        for (const Recv& st_Recv : Recvs()) {
            if (st_Recv.strAddr == strAddr && !st_Recv.bNull) strAll += st_Recv.strData;
        }
        return strAll;
    }

    std::atomic<bool> bLoginResult{true};
    // optional hooks, run on the server's threads after recording
    std::function<void(const char*, int)> fnOnLogin;
    std::function<void(const char*, int, const char*, int)> fnOnRecv;

    static bool OnLogin(const char* lpszAddr, int hSocket, void* lParam) {
        auto* pThis = static_cast<Recorder*>(lParam);
        {
            std::lock_guard<std::mutex> lock(pThis->m_Lock);
            pThis->m_stlLogins.emplace_back(lpszAddr, hSocket);
        }
        if (pThis->fnOnLogin) pThis->fnOnLogin(lpszAddr, hSocket);
        return pThis->bLoginResult.load();
    }
    static void OnRecv(const char* lpszAddr, int hSocket, const char* lpszMsg, int nLen, void* lParam) {
        auto* pThis = static_cast<Recorder*>(lParam);
        {
            std::lock_guard<std::mutex> lock(pThis->m_Lock);
            pThis->m_stlRecvs.push_back(Recv{lpszAddr, hSocket, lpszMsg == nullptr, nLen,
                                             lpszMsg != nullptr && nLen > 0 ? std::string(lpszMsg, nLen) : ""});
        }
        if (pThis->fnOnRecv) pThis->fnOnRecv(lpszAddr, hSocket, lpszMsg, nLen);
    }
    static void OnLeave(const char* lpszAddr, int hSocket, void* lParam) {
        auto* pThis = static_cast<Recorder*>(lParam);
        std::lock_guard<std::mutex> lock(pThis->m_Lock);
        pThis->m_stlLeaves.emplace_back(lpszAddr, hSocket);
    }

private:
    template <typename T>
    T Copy(const T& stl_Items) {
        std::lock_guard<std::mutex> lock(m_Lock);
        return stl_Items;
    }
    std::mutex m_Lock;
    std::vector<std::pair<std::string, int>> m_stlLogins;
    std::vector<std::pair<std::string, int>> m_stlLeaves;
    std::vector<Recv> m_stlRecvs;
};

// A port nobody listens on right now.
inline int FreePort(int nFamily = AF_INET) {
    nctest::Fd fd(socket(nFamily, SOCK_STREAM, 0));
    int nOne = 1;
    setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &nOne, sizeof(nOne));
    sockaddr_storage st_Addr{};
    socklen_t nLen;
    if (nFamily == AF_INET) {
        auto* pIn = reinterpret_cast<sockaddr_in*>(&st_Addr);
        pIn->sin_family = AF_INET;
        nLen = sizeof(sockaddr_in);
    } else {
        auto* pIn6 = reinterpret_cast<sockaddr_in6*>(&st_Addr);
        pIn6->sin6_family = AF_INET6;
        nLen = sizeof(sockaddr_in6);
    }
    if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&st_Addr), nLen) != 0) return -1;
    return nctest::LocalPort(fd.Get());
}

// A started server with its callbacks registered; destroyed with the object.
class Server {
public:
    explicit Server(int nMaxClient = 1000, int nThreads = 2, int nFlowPeriod = 1, int nIPVer = AF_INET) {
        // a free port can be taken by someone else between the probe and the start: retry
        for (int i = 0; i < 10 && m_xhNet == nullptr; i++) {
            m_nPort = FreePort(nIPVer == AF_INET ? AF_INET : AF_INET6);
            m_xhNet = NetCore_TCPXCore_StartEx(m_nPort, nMaxClient, nThreads, false, true, nFlowPeriod, nIPVer);
        }
        EXPECT_NE(nullptr, m_xhNet) << "code " << std::hex << NetCore_GetLastError(nullptr);
        if (m_xhNet != nullptr) {
            EXPECT_TRUE(NetCore_TCPXCore_RegisterCallBackEx(m_xhNet, Recorder::OnLogin, Recorder::OnRecv,
                                                            Recorder::OnLeave, &m_Recorder, &m_Recorder, &m_Recorder));
        }
    }
    ~Server() { Destroy(); }
    void Destroy() {
        if (m_xhNet != nullptr) {
            EXPECT_TRUE(NetCore_TCPXCore_DestroyEx(m_xhNet, true));
        }
        m_xhNet = nullptr;
    }
    // forget the handle without destroying it (a callback destroyed it)
    void Forget() { m_xhNet = nullptr; }

    void* Handle() const { return m_xhNet; }
    int Port() const { return m_nPort; }
    Recorder& Events() { return m_Recorder; }

    // Connects a client and waits until the server has logged it in; returns its address text.
    std::string Connect(nctest::Fd* pClient, int nFamily = AF_INET) {
        size_t nBefore = m_Recorder.LoginCount();
        *pClient = nctest::ConnectTcp(nFamily, m_nPort);
        std::string strAddr = AddrOf(pClient->Get());
        EXPECT_TRUE(nctest::WaitFor([&] { return m_Recorder.LoginCount() > nBefore; }));
        return strAddr;
    }

    static std::string AddrOf(int hClient) {
        sockaddr_storage st_Addr{};
        socklen_t nLen = sizeof(st_Addr);
        getsockname(hClient, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
        char tszText[64] = {};
        int nPort;
        if (st_Addr.ss_family == AF_INET) {
            auto* pIn = reinterpret_cast<sockaddr_in*>(&st_Addr);
            inet_ntop(AF_INET, &pIn->sin_addr, tszText, sizeof(tszText));
            nPort = ntohs(pIn->sin_port);
        } else {
            auto* pIn6 = reinterpret_cast<sockaddr_in6*>(&st_Addr);
            inet_ntop(AF_INET6, &pIn6->sin6_addr, tszText, sizeof(tszText));
            nPort = ntohs(pIn6->sin6_port);
        }
        return std::string(tszText) + ":" + std::to_string(nPort);
    }

private:
    void* m_xhNet = nullptr;
    int m_nPort = 0;
    Recorder m_Recorder;
};

inline bool SendAll(int hSocket, const std::string& strData) {
    size_t nDone = 0;
    while (nDone < strData.size()) {
        ssize_t n = send(hSocket, strData.data() + nDone, strData.size() - nDone, MSG_NOSIGNAL);
        if (n <= 0) return false;
        nDone += static_cast<size_t>(n);
    }
    return true;
}

// Reads exactly nLen bytes (or until the peer closes or 5 s pass).
inline std::string ReadExactly(int hSocket, size_t nLen) {
    std::string strData;
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (strData.size() < nLen && std::chrono::steady_clock::now() < deadline) {
        pollfd st_Poll{hSocket, POLLIN, 0};
        if (poll(&st_Poll, 1, 100) <= 0) continue;
        char tszBuffer[65536];
        ssize_t n = recv(hSocket, tszBuffer, std::min(sizeof(tszBuffer), nLen - strData.size()), 0);
        if (n <= 0) break;
        strData.append(tszBuffer, static_cast<size_t>(n));
    }
    return strData;
}

// True when the server has closed the connection (end of file or reset), within 5 s.
inline bool PeerClosed(int hSocket) {
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd st_Poll{hSocket, POLLIN, 0};
        if (poll(&st_Poll, 1, 100) <= 0) continue;
        char tszBuffer[4096];
        ssize_t n = recv(hSocket, tszBuffer, sizeof(tszBuffer), 0);
        if (n <= 0) return true;
    }
    return false;
}

inline void ExpectCode(unsigned long long nCode) {
    EXPECT_TRUE(nctest::ErrorFlag());
    EXPECT_EQ(nCode, NetCore_GetLastError(nullptr)) << std::hex << "expected 0x" << nCode;
}

}  // namespace tcpxtest
