// The library's global objects, one per family. They are defined in Globals.cpp, in the order
// in which they must be constructed.
#pragma once

#include "serial/NetCore_SerialPort.h"
#include "socket/NetCore_Socket.h"

extern CNetCore_Socket m_Socket;
extern CNetCore_SerialPort m_SerialPort;
