// The library's global objects, one per family. They are defined in Globals.cpp, in the order
// in which they must be constructed.
#pragma once

#include "socket/NetCore_Socket.h"
#include "tcpxcore/NetCore_TCPXCoreEx.h"

extern CNetCore_Socket m_Socket;
extern CNetCore_TCPXCoreEx m_TCPXCore;
