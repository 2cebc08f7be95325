// The global objects, all in this one translation unit so that their construction order is the
// order written here: the library is usable as soon as it is loaded, and at unload the objects
// are destroyed in reverse, so a family's destructor (which stops its threads) still finds every
// object constructed before it. A family adds its object at its own place in this order:
//   m_Socket, m_PIPAnonymous, m_PIPMMap, m_PIPNamed, m_UnixDomain, m_SerialPort, m_TCPSelect,
//   m_UDPSelect, m_TCPXPoll, m_TCPXCore, m_UDPXCore, m_OptHeartBeat, m_BroadCast, m_GroupCast,
//   m_UDXSocket, m_PIPIpc.
#include "Globals.h"

CNetCore_Socket m_Socket;
CNetCore_PIPAnonymous m_PIPAnonymous;
CNetCore_PIPMMap m_PIPMMap;
CNetCore_PIPNamed m_PIPNamed;
CNetCore_UnixDomain m_UnixDomain;
CNetCore_SerialPort m_SerialPort;
CNetCore_TCPSelect m_TCPSelect;
CNetCore_UDPSelect m_UDPSelect;
CNetCore_TCPXPoll m_TCPXPoll;
CNetCore_TCPXCoreEx m_TCPXCore;
CNetCore_UDPXCoreEx m_UDPXCore;
CSocketOpt_HeartBeatEx m_OptHeartBeat;
CNetCore_BroadCast m_BroadCast;
CNetCore_GroupCast m_GroupCast;
CNetCore_UDXSocketEx m_UDXSocket;
CNetCore_PIPIpc m_PIPIpc;
