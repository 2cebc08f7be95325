// One UDX endpoint: a UDP epoll server (through its handle functions), an optional heartbeat
// supervisor, a session thread and an optional merging thread around the session engine.
#pragma once

#include <atomic>
#include <memory>

#include "Ombrelt_NetCore.h"
#include "base/Thread.h"
#include "udx/UDXEngine.h"

class NETCORE_API CNetCore_UDXSocket {
public:
    CNetCore_UDXSocket();
    ~CNetCore_UDXSocket();
    CNetCore_UDXSocket(const CNetCore_UDXSocket&) = delete;
    CNetCore_UDXSocket& operator=(const CNetCore_UDXSocket&) = delete;

    bool NetCore_UDXSocket_Init(tag_NetCore_UDXConfig* pSt_UDXConfig, int nPort, int nTimeFlow);
    bool NetCore_UDXSocket_CBSet(bool (*fpCall_Login)(char const*, int, void*),
                                 void (*fpCall_Leave)(char const*, int, void*), void* lParamLogin, void* lParamLeave);
    bool NetCore_UDXSocket_Send(char const* lpszClientAddr, char const* lpszMsgBuffer, int nMsgLen);
    bool NetCore_UDXSocket_Recv(char const* lpszClientAddr, char* ptszMsgBuffer, int* pInt_MsgLen);
    bool NetCore_UDXSocket_Close(char const* lpszClientAddr);
    bool NetCore_UDXSocket_Destroy();

protected:
    bool NetCore_UDXSocket_Parse(char const* lpszClientAddr, char const* lpszMsgBuffer, int nMsgLen);
    // The UDP server's receive callback (lParam: the endpoint) and the supervisor's leave callback.
    static void NetCore_UDXSocket_CBRecv(char const* lpszClientAddr, int hSocket, char const* lpszMsgBuffer,
                                         int nMsgLen, void* lParam);
    static void NetCore_UDXSocket_CBHeartBeat(char const* lpszClientAddr, int hSocket, int nStatus, void* lParam);
    static void* NetCore_UDXSocket_Thread(void* lParam);
    static void* NetCore_UDXSocket_ThreadMtap(void* lParam);

private:
    netcore::udx::UDXEngine::Hooks MakeHooks();

    std::atomic<bool> bIsRun{false};
    std::atomic<void*> xhUDPCore{nullptr};
    std::atomic<void*> xhHeartBeat{nullptr};
    std::unique_ptr<netcore::udx::UDXEngine> m_pEngine;
    netcore::WorkerThread m_ThreadRecv;
    netcore::WorkerThread m_ThreadMtap;

    // set by CBSet while the library's threads may read them
    std::atomic<bool (*)(char const*, int, void*)> lpCall_Login{nullptr};
    std::atomic<void (*)(char const*, int, void*)> lpCall_Leave{nullptr};
    std::atomic<void*> lParamLogin{nullptr};
    std::atomic<void*> lParamLeave{nullptr};
};
