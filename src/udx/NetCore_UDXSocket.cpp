#include "udx/NetCore_UDXSocket.h"

#include <chrono>
#include <ctime>
#include <system_error>
#include <thread>

#include "Ombrelt_BaseLib.h"
#include "base/Error.h"

using netcore::ClearError;
using netcore::Fail;
using netcore::udx::UDXEngine;

namespace {

unsigned long long TickNow() {
    return BaseLib_OperatorTime_GetTickCount();
}

}  // namespace

CNetCore_UDXSocket::CNetCore_UDXSocket() = default;

CNetCore_UDXSocket::~CNetCore_UDXSocket() {
    if (bIsRun || xhUDPCore.load() != nullptr || xhHeartBeat.load() != nullptr) NetCore_UDXSocket_Destroy();
}

UDXEngine::Hooks CNetCore_UDXSocket::MakeHooks() {
    UDXEngine::Hooks st_Hooks;
    st_Hooks.fnSend = [this](const char* lpszAddr, const char* lpszData, int nLen) {
        NetCore_UDPXCore_SendEx(xhUDPCore.load(), lpszAddr, lpszData, nLen);
    };
    st_Hooks.fnAccepted = [this](const char* lpszAddr) {
        SocketOpt_HeartBeat_InsertAddrEx(xhHeartBeat.load(), lpszAddr);
    };
    st_Hooks.fnLogin = [this](const char* lpszAddr) {
        // registered by CBSet before the first peer connects; a missing one is skipped
        auto fpLogin = lpCall_Login.load();
        if (fpLogin != nullptr) fpLogin(lpszAddr, 0, lParamLogin.load());
    };
    st_Hooks.fnActive = [this](const char* lpszAddr) {
        SocketOpt_HeartBeat_ActiveAddrEx(xhHeartBeat.load(), lpszAddr, nullptr);
    };
    st_Hooks.fnRemoved = [this](const char* lpszAddr) {
        SocketOpt_HeartBeat_DeleteAddrEx(xhHeartBeat.load(), lpszAddr);
    };
    st_Hooks.fnLeave = [this](const char* lpszAddr) {
        auto fpLeave = lpCall_Leave.load();
        if (fpLeave != nullptr) fpLeave(lpszAddr, 0, lParamLeave.load());
    };
    return st_Hooks;
}

bool CNetCore_UDXSocket::NetCore_UDXSocket_Init(tag_NetCore_UDXConfig* pSt_UDXConfig, int nPort, int nTimeFlow) {
    ClearError();
    if (pSt_UDXConfig == nullptr) return Fail(ERROR_NETCORE_UDX_INIT_PARAMENT);
    m_pEngine = std::make_unique<UDXEngine>(*pSt_UDXConfig, MakeHooks());

    // four receive threads, IPv4
    void* xhUDP = NetCore_UDPXCore_StartEx(nPort, 4, nTimeFlow, 2);
    if (xhUDP == nullptr) return false;
    xhUDPCore = xhUDP;
    NetCore_UDPXCore_RegisterCallBackEx(xhUDP, NetCore_UDXSocket_CBRecv, this);

    bIsRun = true;
    try {
        m_ThreadRecv.Start(NetCore_UDXSocket_Thread, this);
        if (pSt_UDXConfig->bMtap) m_ThreadMtap.Start(NetCore_UDXSocket_ThreadMtap, this);
    } catch (const std::system_error&) {
        return Fail(ERROR_NETCORE_UDX_INIT_THREAD);
    }
    if (pSt_UDXConfig->bHeartBeat) {
        // 5-second interval, 3 tolerated misses, peers by address
        void* xhHB = SocketOpt_HeartBeat_InitEx(5, 3, NetCore_UDXSocket_CBHeartBeat, this, true);
        if (xhHB == nullptr) return false;
        xhHeartBeat = xhHB;
    }
    ClearError();
    return true;
}

bool CNetCore_UDXSocket::NetCore_UDXSocket_CBSet(bool (*fpCall_Login)(char const*, int, void*),
                                                 void (*fpCall_Leave)(char const*, int, void*), void* lParamLogin_,
                                                 void* lParamLeave_) {
    ClearError();
    if (fpCall_Login == nullptr || fpCall_Leave == nullptr) return Fail(ERROR_NETCORE_UDX_CBSET_PARAMENT);
    lParamLogin = lParamLogin_;
    lParamLeave = lParamLeave_;
    lpCall_Login = fpCall_Login;
    lpCall_Leave = fpCall_Leave;
    return true;
}

bool CNetCore_UDXSocket::NetCore_UDXSocket_Send(char const* lpszClientAddr, char const* lpszMsgBuffer, int nMsgLen) {
    if (!m_pEngine) {
        ClearError();
        return Fail(ERROR_NETCORE_UDX_SEND_NOTFOUND);
    }
    return m_pEngine->Send(lpszClientAddr, lpszMsgBuffer, nMsgLen, TickNow());
}

bool CNetCore_UDXSocket::NetCore_UDXSocket_Recv(char const* lpszClientAddr, char* ptszMsgBuffer, int* pInt_MsgLen) {
    if (!m_pEngine) {
        ClearError();
        return Fail(ERROR_NETCORE_UDX_RECV_NOTFOUND);
    }
    return m_pEngine->Recv(lpszClientAddr, ptszMsgBuffer, pInt_MsgLen, TickNow());
}

bool CNetCore_UDXSocket::NetCore_UDXSocket_Close(char const* lpszClientAddr) {
    ClearError();
    if (m_pEngine) m_pEngine->Close(lpszClientAddr);
    return true;
}

bool CNetCore_UDXSocket::NetCore_UDXSocket_Parse(char const* lpszClientAddr, char const* lpszMsgBuffer, int nMsgLen) {
    return m_pEngine->Parse(lpszClientAddr, lpszMsgBuffer, nMsgLen, TickNow());
}

bool CNetCore_UDXSocket::NetCore_UDXSocket_Destroy() {
    ClearError();
    bIsRun = false;
    m_ThreadRecv.Join();
    m_ThreadMtap.Join();
    if (m_pEngine) m_pEngine->Clear();
    void* xhUDP = xhUDPCore.exchange(nullptr);
    if (xhUDP != nullptr) NetCore_UDPXCore_DestroyEx(xhUDP, true);
    void* xhHB = xhHeartBeat.exchange(nullptr);
    if (xhHB != nullptr) SocketOpt_HeartBeat_DestoryEx(xhHB);
    // a CONNECT may have been taken while the UDP server was still stopping
    if (m_pEngine) m_pEngine->Clear();
    ClearError();
    return true;
}

void CNetCore_UDXSocket::NetCore_UDXSocket_CBRecv(char const* lpszClientAddr, int, char const* lpszMsgBuffer,
                                                  int nMsgLen, void* lParam) {
    static_cast<CNetCore_UDXSocket*>(lParam)->NetCore_UDXSocket_Parse(lpszClientAddr, lpszMsgBuffer, nMsgLen);
}

void CNetCore_UDXSocket::NetCore_UDXSocket_CBHeartBeat(char const* lpszClientAddr, int, int, void* lParam) {
    static_cast<CNetCore_UDXSocket*>(lParam)->NetCore_UDXSocket_Close(lpszClientAddr);
}

void* CNetCore_UDXSocket::NetCore_UDXSocket_Thread(void* lParam) {
    CNetCore_UDXSocket* pClass_This = static_cast<CNetCore_UDXSocket*>(lParam);
    UDXEngine* pEngine = pClass_This->m_pEngine.get();
    pEngine->StartTimers(static_cast<long long>(time(nullptr)));
    while (pClass_This->bIsRun) {
        // without supervision queued closes are never carried out
        if (pEngine->Config().bHeartBeat) pEngine->RunCloses();
        pEngine->RunSessions(TickNow(), static_cast<long long>(time(nullptr)));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return nullptr;
}

void* CNetCore_UDXSocket::NetCore_UDXSocket_ThreadMtap(void* lParam) {
    CNetCore_UDXSocket* pClass_This = static_cast<CNetCore_UDXSocket*>(lParam);
    UDXEngine* pEngine = pClass_This->m_pEngine.get();
    while (pClass_This->bIsRun) {
        pEngine->RunMtap(TickNow());
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return nullptr;
}
