// CNetCore_BroadCast: IPv4 broadcast endpoints named by their socket. Every datagram goes to
// 255.255.255.255 on the endpoint's port. Exported as NetCore_BroadCast_*.
#pragma once

#include <netinet/in.h>

#include <shared_mutex>
#include <unordered_map>

#include "Ombrelt_NetCore.h"
#include "socket/NetCore_Socket.h"

struct tag_NetCore_BroadCast {
    int nPort;                // bound locally and used as the destination port
    int hSocket;              // also the key in the endpoint table
    sockaddr_in st_SockAddr;  // 255.255.255.255:nPort
};

class NETCORE_API CNetCore_BroadCast {
public:
    bool NetCore_BroadCast_Create(int* phSocket, int nPort, const char* lpszAddr = nullptr);
    bool NetCore_BroadCast_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen);
    bool NetCore_BroadCast_Recv(int hSocket, char* ptszMsgBuffer, int* pInt_Len, char* ptszAddr = nullptr,
                                int nTimeout = -1);
    bool NetCore_BroadCast_Close(int hSocket);

private:
    // Guards stl_MapBroadCast: shared across a Send's or Recv's wait and transfer, exclusive to
    // insert and to close. It is the only lock of the class.
    std::shared_mutex st_Locker;
    CNetCore_Socket m_NetSocket;
    std::unordered_map<int, tag_NetCore_BroadCast> stl_MapBroadCast;
};
