// CNetCore_TCPSelect: a TCP server with one thread per client, each waiting with select().
// Events reach the application through callbacks or, with none installed, through a queue that
// it pulls with NetCore_TCPSelect_ReadIOEvent.
#pragma once

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Ombrelt_NetCore.h"
#include "base/Thread.h"
#include "socket/NetCore_Socket.h"

class CNetCore_TCPSelect;

// One client and its worker thread. Held by the client map and, while it sends, by Send: the
// descriptor is closed with the last holder, so a send never runs on a number already reused.
struct NETCORE_TCPSELECT {
    NETCORE_TCPSELECT() = default;
    NETCORE_TCPSELECT(const NETCORE_TCPSELECT&) = delete;
    NETCORE_TCPSELECT& operator=(const NETCORE_TCPSELECT&) = delete;
    ~NETCORE_TCPSELECT() {
        if (hSocket >= 0) close(hSocket);
    }

    char tszClientAddr[128] = {};
    int hSocket = -1;
    std::atomic<bool> bIsRun{false};  // the worker runs while true
    std::unique_ptr<std::thread> pSTDThread_Work;
    CNetCore_TCPSelect* pClass = nullptr;
    std::atomic<bool> bExited{false};  // the worker has returned from its loop
};

// One queued event.
struct NETCORE_IOEVENT {
    char tszMsgBuffer[8192];
    char tszClientAddr[64];
    uint64_t dwEventType;  // 0x01 arrived, 0x100 data, 0x10 left
    int nMsgLen;
};

class NETCORE_API CNetCore_TCPSelect {
public:
    CNetCore_TCPSelect() = default;
    ~CNetCore_TCPSelect();
    CNetCore_TCPSelect(const CNetCore_TCPSelect&) = delete;
    CNetCore_TCPSelect& operator=(const CNetCore_TCPSelect&) = delete;

    bool NetCore_TCPSelect_Start(int nPort, int nTimeOut = 100, bool bKeepAlive = false, int nIPVer = 2);
    bool NetCore_TCPSelect_RegisterCallBack(CALLBACK_NETCORE_TCPSERVER_LOGIN fpCall_Login,
                                            CALLBACK_NETCORE_TCPSERVER_RECV fpCall_Recv,
                                            CALLBACK_NETCORE_TCPSERVER_LEAVE fpCall_Leave, void* lPLogin = nullptr,
                                            void* lPRecv = nullptr, void* lPLeave = nullptr);
    bool NetCore_TCPSelect_Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen);
    bool NetCore_TCPSelect_RemoveClient(const char* lpszClientAddr);
    bool NetCore_TCPSelect_Stop(bool bClearFlow = true);
    bool NetCore_TCPSelect_GetFlow(unsigned long long* pInt_FlowUp, unsigned long long* pInt_FlowDown);
    bool NetCore_TCPSelect_GetList(char*** pppszList, int* pInt_ListCount);
    bool NetCore_TCPSelect_ReadIOEvent(char* lpszClientAddr, char* lpszMsgBuffer, int* pInt_Len,
                                       unsigned long* pdwType);

protected:
    void NetCore_TCPSelect_MainThread(void* lParam);
    void NetCore_TCPSelect_WorkThread(void* lParam);
    void NetCore_TCPSelect_CloseThread(void* lParam);

private:
    void PushEvent(const char* lpszClientAddr, uint64_t dwType, const char* lpszMsgBuffer, int nMsgLen);
    void DropClient(std::shared_ptr<NETCORE_TCPSELECT> pSt_Client);
    void ReapClients(bool bAll);

    std::atomic<void*> lParamLogin{nullptr};
    std::atomic<void*> lParamLeave{nullptr};
    std::atomic<void*> lParamRecv{nullptr};
    std::atomic<CALLBACK_NETCORE_TCPSERVER_LOGIN> lpCall_Login{nullptr};
    std::atomic<CALLBACK_NETCORE_TCPSERVER_LEAVE> lpCall_Leave{nullptr};
    std::atomic<CALLBACK_NETCORE_TCPSERVER_RECV> lpCall_Recv{nullptr};

    std::atomic<int> nIPVer{2};
    std::atomic<int> nTimeOut{0};  // select time-out in milliseconds
    int hListenSocket = -1;
    std::atomic<unsigned long long> nFlowUp{0};    // bytes sent
    std::atomic<unsigned long long> nFlowDown{0};  // bytes received
    std::atomic<bool> bIsRun{false};
    std::atomic<bool> bKeepAlive{false};
    netcore::WorkerThread pSTDThread_Main;
    netcore::WorkerThread pSTDThread_Close;

    // Lock order: st_LockerClose is never held while st_LockerClient is taken (the close thread
    // takes the queue out first); st_LockerEvent and st_LockerReap are leaves. No lock is held
    // while a worker is joined, so a worker inside a callback that calls back into the server
    // never blocks Stop or RemoveClient.
    std::shared_mutex st_LockerClient;
    std::mutex st_LockerClose;
    std::mutex st_LockerEvent;
    std::mutex st_LockerReap;

    CNetCore_Socket m_Socket;
    std::list<NETCORE_IOEVENT> stl_ListEvent;
    std::list<std::string> stl_ListClose;
    std::unordered_map<std::string, std::shared_ptr<NETCORE_TCPSELECT>> stl_MapClient;
    // clients removed from inside their own worker (a callback): joined once the worker is done
    std::vector<std::shared_ptr<NETCORE_TCPSELECT>> stl_ListReap;
};
