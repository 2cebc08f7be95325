// The library's global objects, one per family. They are defined in Globals.cpp, in the order
// in which they must be constructed.
#pragma once

#include "heartbeat/SocketOpt_HeartBeatEx.h"
#include "socket/NetCore_Socket.h"

extern CNetCore_Socket m_Socket;
extern CSocketOpt_HeartBeatEx m_OptHeartBeat;
