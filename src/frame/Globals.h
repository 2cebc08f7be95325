// The library's global objects, one per family. They are defined in Globals.cpp, in the order
// in which they must be constructed.
#pragma once

#include "socket/NetCore_Socket.h"

extern CNetCore_Socket m_Socket;

#include "tcpserver/NetCore_TCPSelect.h"
#include "tcpserver/NetCore_TCPXPoll.h"

extern CNetCore_TCPSelect m_TCPSelect;
extern CNetCore_TCPXPoll m_TCPXPoll;
