// CNetCore_UDPSelect: single UDP endpoints behind handles, read by the caller (pull mode) or by a
// receive thread per endpoint that calls a callback (callback mode). Exported as
// NetCore_UDPSelect_*. The class holds no state; every endpoint lives in its own heap record.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

#include "Ombrelt_NetCore.h"
#include "socket/NetCore_Socket.h"

// One endpoint; its address is the handle the caller holds.
struct tag_UDPSocket_AddrInfo {
    int nIPVer = 0;  // 2 (AF_INET): IPv4; anything else: IPv6
    int nPort = 0;   // local port; below 1: the socket was not bound
    // Written by the caller's thread, read by the receive thread.
    std::atomic<bool> bRunning{false};
    std::atomic<bool> bCallMode{false};
    int hSocket = -1;
    std::unique_ptr<std::thread> pSTDThread;
    void* lParam = nullptr;
    CALLBACK_NETCORE_UDPSELECT_RECV fpCall_Recv = nullptr;

    // Guards lParam and fpCall_Recv, which a second RegisterCallBack may replace while the
    // receive thread runs (the thread always calls a matching pair), and orders the storing of
    // pSTDThread before the thread's first callback.
    std::mutex st_CallLocker;
    // Set by the receive thread when its loop has ended (an empty datagram, a failed receive or
    // Stop), so that a later RegisterCallBack can start a fresh one.
    std::atomic<bool> bThreadEnded{false};
    // Set when Stop ran inside the callback: the receive thread then frees the record itself.
    bool bReleaseOnExit = false;
};

class NETCORE_API CNetCore_UDPSelect : public CNetCore_Socket {
public:
    void* NetCore_UDPSelect_Start(int nPort, int nIPVer = 2);
    bool NetCore_UDPSelect_GetSocket(void* lPClass, int* phSocket);
    bool NetCore_UDPSelect_Send(void* lPClass, const char* lpszMsgBuffer, int nMsgLen, const char* lpszAddr, int nPort);
    bool NetCore_UDPSelect_Recv(void* lPClass, char* ptszAddr, char* ptszMsgBuffer, int* pInt_Len, bool bSelect = true);
    bool NetCore_UDPSelect_Stop(void* lPClass);
    bool NetCore_UDPSelect_SetMode(void* lPClass, bool bCallMode = false);
    bool NetCore_UDPSelect_RegisterCallBack(void* lPClass, CALLBACK_NETCORE_UDPSELECT_RECV fpCall_Recv,
                                            void* lParam = nullptr);

protected:
    static int NetCore_UDPSelect_RecvThread(void* lParam);
};
