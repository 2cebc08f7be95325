// CNetCore_TCPXPoll: a TCP server that serves its clients in groups with poll(). One accept
// thread; each group of up to 64 clients (65 at most) has one receive thread polling all of them.
#pragma once

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
#include "base/Descriptor.h"
#include "base/Thread.h"
#include "socket/NetCore_Socket.h"

class CNetCore_TCPXPoll;

// One client, copied by value between the client map, its group and the receive thread's work
// array.
struct tag_NetEngine_Poll_Client {
    unsigned short sPollEvent = 0;                 // always POLLIN | POLLPRI | POLLERR | POLLHUP
    unsigned short sPollResult = 0;                // 1 readable, 2 writable, 3 error, 4 hang-up, 5 other; 0 untouched
    std::shared_ptr<std::thread> pSTDThread_Recv;  // set in the record that founded a group
    char tszClientAddr[256] = {};
    int hSocket = 0;
    uint64_t hThreadID = 0;  // the receive thread (group) serving the client
    CNetCore_TCPXPoll* pClass = nullptr;
    bool bLeaving = false;  // departure already being reported (map record only, under the lock)
};

// A group: its clients, its receive thread and the pipe that wakes the thread when the group
// changes or the server goes away.
struct NETCORE_TCPXPOLL_GROUP {
    std::vector<tag_NetEngine_Poll_Client> stl_ListClient;
    std::shared_ptr<std::thread> pSTDThread_Recv;
    netcore::UniqueFd hWakeRead;
    netcore::UniqueFd hWakeWrite;
    uint64_t hThreadID = 0;
    // Set by the receive thread, under the shared lock, once it has decided to end; from then on
    // it touches nothing shared and joining it is immediate.
    std::atomic<bool> bExited{false};
};

class NETCORE_API CNetCore_TCPXPoll {
public:
    CNetCore_TCPXPoll() = default;
    ~CNetCore_TCPXPoll();
    CNetCore_TCPXPoll(const CNetCore_TCPXPoll&) = delete;
    CNetCore_TCPXPoll& operator=(const CNetCore_TCPXPoll&) = delete;

    bool NetCore_TCPXPoll_Start(int nPort, int nMaxClient = 10000, int nIPVer = 2);
    bool NetCore_TCPXPoll_RegisterCallBack(CALLBACK_NETCORE_TCPSERVER_LOGIN fpCall_Login,
                                           CALLBACK_NETCORE_TCPSERVER_RECV fpCall_Recv,
                                           CALLBACK_NETCORE_TCPSERVER_LEAVE fpCall_Leave, void* lPLogin = nullptr,
                                           void* lPRecv = nullptr, void* lPLeave = nullptr);
    bool NetCore_TCPXPoll_Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen);
    bool NetCore_TCPXPoll_Close(const char* lpszClientAddr);
    bool NetCore_TCPXPoll_Stop(bool bClearFlow = true);
    bool NetCore_TCPXPoll_GetNetFlow(unsigned long long* pInt_FlowUp, unsigned long long* pInt_FlowDown);
    bool NetCore_TCPXPoll_GetList(char*** pppszList, int* pInt_ListCount);

protected:
    void NetCore_TCPXPoll_ThreadAccept(void* lParam);
    void NetCore_TCPXPoll_ThreadRecv(void* lParam);
    // Places a new client into every group with room, or founds a new group.
    bool NetCore_TCPXPoll_Select(const std::shared_ptr<tag_NetEngine_Poll_Client>& pSt_Client);
    // One poll over nCount records; classifies the first r entries, r being poll's result.
    bool NetCore_TCPXPoll_IO(tag_NetEngine_Poll_Client* pSt_Client, int nCount, int nTimeOut);

private:
    enum class IOResult { Ready, Woken, Failed };
    IOResult IOWait(tag_NetEngine_Poll_Client* pSt_Client, int nCount, int nTimeOut, int hWake);
    bool StartGroupThread(NETCORE_TCPXPOLL_GROUP* pSt_Group);
    bool LeaveGroup(NETCORE_TCPXPOLL_GROUP* pSt_Group);
    bool IsLive(const tag_NetEngine_Poll_Client& st_Client) const;
    void ReportLeave(const tag_NetEngine_Poll_Client& st_Client);
    static void WakeGroup(NETCORE_TCPXPOLL_GROUP* pSt_Group);

    std::atomic<int> nMaxClient{0};
    std::atomic<int> nIPVer{2};
    std::atomic<bool> bIsRun{false};
    int hListenSocket = -1;
    std::atomic<unsigned long long> nFlowUp{0};
    std::atomic<unsigned long long> nFlowDown{0};
    netcore::WorkerThread pSTDThread_Accept;

    std::atomic<void*> lParamLogin{nullptr};
    std::atomic<void*> lParamLeave{nullptr};
    std::atomic<void*> lParamRecv{nullptr};
    std::atomic<CALLBACK_NETCORE_TCPSERVER_LOGIN> lpCall_Login{nullptr};
    std::atomic<CALLBACK_NETCORE_TCPSERVER_RECV> lpCall_Recv{nullptr};
    std::atomic<CALLBACK_NETCORE_TCPSERVER_LEAVE> lpCall_Leave{nullptr};

    CNetCore_Socket m_Socket;

    // Guards stl_MapClient, stl_MapThread, every group's client list and stl_ListGroupEnded.
    // Callbacks and sends run without it.
    mutable std::shared_mutex st_Locker;
    // address -> the client record allocated at accept. A Send in progress holds the record too:
    // the descriptor is closed when the last holder lets go, so its number is never reused while a
    // send is still on it.
    std::unordered_map<std::string, std::shared_ptr<tag_NetEngine_Poll_Client>> stl_MapClient;
    // receive thread identifier -> its group
    std::unordered_map<uint64_t, std::shared_ptr<NETCORE_TCPXPOLL_GROUP>> stl_MapThread;
    // groups taken out of stl_MapThread whose threads have not ended yet; such a thread releases
    // its group itself on its way out
    std::list<std::shared_ptr<NETCORE_TCPXPOLL_GROUP>> stl_ListGroupEnded;
    uint64_t nThreadSeq = 0;
    // receive threads that have detached themselves and are still returning
    std::atomic<int> nThreadsLeaving{0};
};
