// CNetCore_GroupCast: multicast endpoints named by their socket, each bound to the group port on
// any address and joined to one group through one local interface address. Exported as
// NetCore_GroupCast_*.
#pragma once

#include <netinet/in.h>

#include <shared_mutex>
#include <unordered_map>

#include "Ombrelt_NetCore.h"
#include "socket/NetCore_Socket.h"

struct NETCORE_GROUPCAST {
    char szGroupAddr[128];  // group address text, cut to fit
    char szLocalAddr[128];  // local interface address text, cut to fit
    int nPort;
    int nIPVer;   // 2 (AF_INET): IPv4; anything else: IPv6
    int hSocket;  // also the key in the endpoint table
    sockaddr_in st_BindAddr;
    sockaddr_in st_GroupAddr;  // destination of every IPv4 send
    sockaddr_in6 st_BindAddr6;
    sockaddr_in6 st_GroupAddr6;  // destination of every IPv6 send
};

class NETCORE_API CNetCore_GroupCast : public CNetCore_Socket {
public:
    bool NetCore_GroupCast_Create(int* phSocket, int nPort, const char* lpszGroupAddr, const char* lpszLocalAddr,
                                  int nTTL = 0, bool bLoop = false, int nIPVer = 2);
    bool NetCore_GroupCast_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen);
    bool NetCore_GroupCast_Recv(int hSocket, char* ptszMsgBuffer, int* pInt_Len, char* ptszAddr = nullptr,
                                int nTimeout = -1);
    bool NetCore_GroupCast_Close(int hSocket);

private:
    // Guards stl_MapGroupCast: shared across a Send's or Recv's wait and transfer, exclusive to
    // insert and to close. It is the only lock of the class.
    std::shared_mutex st_Locker;
    std::unordered_map<int, NETCORE_GROUPCAST> stl_MapGroupCast;
};
