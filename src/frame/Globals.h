// The library's global objects, one per family. They are defined in Globals.cpp, in the order
// in which they must be constructed.
#pragma once

#include "datagram/NetCore_BroadCast.h"
#include "datagram/NetCore_GroupCast.h"
#include "datagram/NetCore_UDPSelect.h"
#include "heartbeat/SocketOpt_HeartBeatEx.h"
#include "local/NetCore_PIPAnonymous.h"
#include "local/NetCore_PIPIpc.h"
#include "local/NetCore_PIPMMap.h"
#include "local/NetCore_PIPNamed.h"
#include "local/NetCore_UnixDomain.h"
#include "serial/NetCore_SerialPort.h"
#include "socket/NetCore_Socket.h"
#include "tcpserver/NetCore_TCPSelect.h"
#include "tcpserver/NetCore_TCPXPoll.h"
#include "tcpxcore/NetCore_TCPXCoreEx.h"
#include "udpxcore/NetCore_UDPXCoreEx.h"
#include "udx/NetCore_UDXSocketEx.h"

extern CNetCore_Socket m_Socket;
extern CNetCore_PIPAnonymous m_PIPAnonymous;
extern CNetCore_PIPMMap m_PIPMMap;
extern CNetCore_PIPNamed m_PIPNamed;
extern CNetCore_UnixDomain m_UnixDomain;
extern CNetCore_SerialPort m_SerialPort;
extern CNetCore_TCPSelect m_TCPSelect;
extern CNetCore_UDPSelect m_UDPSelect;
extern CNetCore_TCPXPoll m_TCPXPoll;
extern CNetCore_TCPXCoreEx m_TCPXCore;
extern CNetCore_UDPXCoreEx m_UDPXCore;
extern CSocketOpt_HeartBeatEx m_OptHeartBeat;
extern CNetCore_BroadCast m_BroadCast;
extern CNetCore_GroupCast m_GroupCast;
extern CNetCore_UDXSocketEx m_UDXSocket;
extern CNetCore_PIPIpc m_PIPIpc;
