// The library's global objects, one per family. They are defined in Globals.cpp, in the order
// in which they must be constructed.
#pragma once

#include "datagram/NetCore_BroadCast.h"
#include "datagram/NetCore_GroupCast.h"
#include "datagram/NetCore_UDPSelect.h"
#include "socket/NetCore_Socket.h"

extern CNetCore_Socket m_Socket;
extern CNetCore_UDPSelect m_UDPSelect;
extern CNetCore_BroadCast m_BroadCast;
extern CNetCore_GroupCast m_GroupCast;
