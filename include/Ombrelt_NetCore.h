/*
 * Ombrelt NetCore: network and inter-process communication services behind one flat C interface.
 *
 * Every operation returns a bool (true = success) or a handle (null = failure). On failure the
 * library sets NetCore_IsErrorOccur and stores a code of the form 0x020A_FFOC in
 * NetCore_dwErrorCode; read it with NetCore_GetLastError, which can also hand back errno.
 * The code is written only on failure: after a later success it still holds the old code, and
 * only NetCore_IsErrorOccur tells whether the latest call failed.
 *
 * Both globals are process-wide and shared by all threads (the library's own threads included):
 * concurrent callers see the last writer's values.
 *
 * Callbacks run on the library's own threads, never on the caller's.
 */
#ifndef OMBRELT_NETCORE_H
#define OMBRELT_NETCORE_H

#include <stdbool.h>

#if defined(_WIN32)
#define NETCORE_API
#else
#define NETCORE_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------------------------------
 * Last-error state
 * --------------------------------------------------------------------------------------------- */

/* true when the latest operation failed; cleared on entry to every operation that can fail */
extern NETCORE_API bool NetCore_IsErrorOccur;
/* code of the most recent failure; never reset by a success */
extern NETCORE_API unsigned long long NetCore_dwErrorCode;

/* Returns NetCore_dwErrorCode. A non-null pInt_SysError receives the calling thread's errno,
 * which is only meaningful right after the failing call. */
NETCORE_API unsigned long long NetCore_GetLastError(int* pInt_SysError);

/* ------------------------------------------------------------------------------------------------
 * Socket utilities (NetCore_Socket_*)
 *
 * Thin synchronous helpers over the socket calls. nIPVer 2 (AF_INET) means IPv4, any other
 * value IPv6. Sockets are plain descriptors owned by the caller.
 * --------------------------------------------------------------------------------------------- */

#define ERROR_NETCORE_SOCKET_CREATE_PARAMENT 0x020A4501
#define ERROR_NETCORE_SOCKET_CREATE_SOCKET 0x020A4502
#define ERROR_NETCORE_SOCKET_BIND_LISTEN 0x020A4510 /* written with NetCore_IsErrorOccur left false */
#define ERROR_NETCORE_SOCKET_BIND_BIND 0x020A4511
#define ERROR_NETCORE_SOCKET_SEND_CLOSED 0x020A4521
#define ERROR_NETCORE_SOCKET_SEND_FAILED 0x020A4522
#define ERROR_NETCORE_SOCKET_SEND_TIMEOUT 0x020A4523
#define ERROR_NETCORE_SOCKET_SEND_PARAMENT 0x020A4526
#define ERROR_NETCORE_SOCKET_RECV_EMPTY 0x020A4531
#define ERROR_NETCORE_SOCKET_RECV_FAILED 0x020A4532
#define ERROR_NETCORE_SOCKET_RECV_CLOSED 0x020A4533
#define ERROR_NETCORE_SOCKET_NONBLOCK_GETFLAG 0x020A4540
#define ERROR_NETCORE_SOCKET_NONBLOCK_SET 0x020A4541
#define ERROR_NETCORE_SOCKET_NONBLOCK_CLEAR 0x020A4542
#define ERROR_NETCORE_SOCKET_REUSEADDR 0x020A4560
#define ERROR_NETCORE_SOCKET_REUSEPORT 0x020A40C0
#define ERROR_NETCORE_SOCKET_TIMEOUT_SEND 0x020A4570
#define ERROR_NETCORE_SOCKET_TIMEOUT_RECV 0x020A4571
#define ERROR_NETCORE_SOCKET_KEEPALIVE_ENABLE 0x020A4580
#define ERROR_NETCORE_SOCKET_KEEPALIVE_IDLE 0x020A4581
#define ERROR_NETCORE_SOCKET_KEEPALIVE_INTERVAL 0x020A4582
#define ERROR_NETCORE_SOCKET_KEEPALIVE_COUNT 0x020A4583
#define ERROR_NETCORE_SOCKET_FASTSTART_FIRST 0x020A45A0
#define ERROR_NETCORE_SOCKET_FASTSTART_SECOND 0x020A45A1
#define ERROR_NETCORE_SOCKET_SELECT_PARAMENT 0x020A40B0
#define ERROR_NETCORE_SOCKET_SELECT_TIMEOUT 0x020A40B1
#define ERROR_NETCORE_SOCKET_SELECT_NOTSET 0x020A40B2
#define ERROR_NETCORE_SOCKET_SELECT_FAILED 0x020A40B3

/* socket(2) for TCP (bTcp) or UDP; the descriptor is stored in *phSocket even when it is -1.
 * bReserved has no effect. */
NETCORE_API bool NetCore_Socket_Create(int* phSocket, bool bTcp, int nIPVer, bool bReserved);
/* Binds to the wildcard address; listens with a backlog of 128 if bListen. An IPv4 bind failure
 * prints "NetCore_Socket_Bind:<errno>" to standard output; an IPv6 one prints nothing. A listen
 * failure writes ERROR_NETCORE_SOCKET_BIND_LISTEN but leaves NetCore_IsErrorOccur false. */
NETCORE_API bool NetCore_Socket_Bind(int hSocket, int nPort, bool bListen, int nIPVer);
/* Sends the whole message: to the connected peer when lpszAddr is null, else with sendto to
 * lpszAddr:nPort. Retries every 10 ms while the socket would block, failing with
 * ERROR_NETCORE_SOCKET_SEND_TIMEOUT once more than nTimeOut whole seconds have passed. */
NETCORE_API bool NetCore_Socket_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen, const char* lpszAddr,
                                     int nPort, int nTimeOut, int nIPVer);
/* One recv of at most *pInt_MsgLen bytes. The received count is NOT written back. */
NETCORE_API bool NetCore_Socket_Recv(int hSocket, char* lpszMsgBuffer, int* pInt_MsgLen);
/* shutdown(SHUT_RDWR) and close; always true */
NETCORE_API bool NetCore_Socket_Close(int hSocket);
NETCORE_API bool NetCore_Socket_SetNoneBlock(int hSocket, bool bNoneBlock);
NETCORE_API bool NetCore_Socket_SetReAddr(int hSocket);
/* SO_SNDTIMEO then SO_RCVTIMEO, nTimeOut seconds */
NETCORE_API bool NetCore_Socket_SetTimedOut(int hSocket, int nTimeOut);
/* SO_KEEPALIVE = bKeepAlive, then idle 10 s, count 3, interval 5 s (set whatever bKeepAlive says).
 * The count option is issued with an option length of 3, which Linux refuses: on Linux the call
 * ends with ERROR_NETCORE_SOCKET_KEEPALIVE_COUNT after keep-alive and the idle time are set. */
NETCORE_API bool NetCore_Socket_KeepAlive(int hSocket, bool bKeepAlive);
/* SO_DEBUG then SO_DONTROUTE, each given bEnable as a single byte. Linux refuses one-byte values
 * for these options, so there the call fails with ERROR_NETCORE_SOCKET_FASTSTART_FIRST. */
NETCORE_API bool NetCore_Socket_FastStart(int hSocket, bool bEnable);
/* Note the order: receive size first. Either pointer may be null. Always true. */
NETCORE_API bool NetCore_Socket_GetBufferSize(int hSocket, int* pInt_RecvBuf, int* pInt_SendBuf);
/* Note the order: send size first. A size below 1 leaves that size alone. Always true. */
NETCORE_API bool NetCore_Socket_SetBufferSize(int hSocket, int nSendBuf, int nRecvBuf);
/* Waits until hSocket is readable (bRead) or writable, for nTimeOut milliseconds. The whole
 * time-out goes into the microseconds field of select's timeval: from 1000 ms up, glibc
 * normalises it and waits that long, while Android's C library refuses it
 * (ERROR_NETCORE_SOCKET_SELECT_FAILED, errno EINVAL); a negative time-out fails the same way.
 * Descriptors at or above FD_SETSIZE are supported. */
NETCORE_API bool NetCore_Socket_IOSelect(int hSocket, bool bRead, int nTimeOut);

/* ------------------------------------------------------------------------------------------------
 * TCP servers on poll() and select() (NetCore_TCPXPoll_*, NetCore_TCPSelect_*)
 *
 * Two single-instance TCP servers. Clients are named by their address text "%s:%d" (the address
 * as inet_ntop gives it, IPv6 not bracketed, and the port). nIPVer 2 means IPv4, any other value
 * IPv6. The callbacks run on the servers' own threads:
 *   login (address, socket, context): its result is ignored;
 *   receive (address, socket, data, length, context);
 *   leave (address, socket, context).
 * The client lists of GetList are nCount rows of 128 characters allocated through
 * BaseLib_OperatorMemory_Malloc; the caller releases them with BaseLib_OperatorMemory_Free and
 * the same count.
 * --------------------------------------------------------------------------------------------- */

typedef bool (*CALLBACK_NETCORE_TCPSERVER_LOGIN)(const char* lpszClientAddr, int hSocket, void* lParam);
typedef void (*CALLBACK_NETCORE_TCPSERVER_RECV)(const char* lpszClientAddr, int hSocket, const char* lpszMsgBuffer,
                                                int nMsgLen, void* lParam);
typedef void (*CALLBACK_NETCORE_TCPSERVER_LEAVE)(const char* lpszClientAddr, int hSocket, void* lParam);

/* select() server; the two GetList codes are also those of the poll() server's GetList */
#define ERROR_NETCORE_TCPSELECT_START_ISRUN 0x020A4101
#define ERROR_NETCORE_TCPSELECT_START_MAINTHREAD 0x020A4107
#define ERROR_NETCORE_TCPSELECT_START_CLOSETHREAD 0x020A4108
#define ERROR_NETCORE_TCPSELECT_SEND_NOTFOUND 0x020A4110
#define ERROR_NETCORE_TCPSELECT_GETLIST_PARAMENT 0x020A4120
#define ERROR_NETCORE_TCPSELECT_GETLIST_EMPTY 0x020A4121
#define ERROR_NETCORE_TCPSELECT_GETFLOW_PARAMENT 0x020A4160
#define ERROR_NETCORE_TCPSELECT_READIOEVENT_PARAMENT 0x020A4170
#define ERROR_NETCORE_TCPSELECT_READIOEVENT_EMPTY 0x020A4171
#define ERROR_NETCORE_TCPSELECT_READIOEVENT_CALLBACK 0x020A4172
#define ERROR_NETCORE_TCPSELECT_READIOEVENT_NOTFOUND 0x020A4173

/* poll() server */
#define ERROR_NETCORE_TCPXPOLL_START_ISRUN 0x020A4201
#define ERROR_NETCORE_TCPXPOLL_START_THREAD 0x020A4202 /* written with NetCore_IsErrorOccur left false */
#define ERROR_NETCORE_TCPXPOLL_IO_TIMEOUT 0x020A4210
#define ERROR_NETCORE_TCPXPOLL_IO_POLL 0x020A4211
#define ERROR_NETCORE_TCPXPOLL_IO_MALLOC 0x020A4212
#define ERROR_NETCORE_TCPXPOLL_SELECT_MALLOC 0x020A4220
#define ERROR_NETCORE_TCPXPOLL_SELECT_THREAD 0x020A4221
#define ERROR_NETCORE_TCPXPOLL_SEND_NOTFOUND 0x020A4230
#define ERROR_NETCORE_TCPXPOLL_SEND_SOCKET 0x020A4231
#define ERROR_NETCORE_TCPXPOLL_REGISTERCALLBACK_PARAMENT 0x020A4240

/* One accept thread; clients are served in groups of up to 64 (65 at most), one receive thread
 * and one poll() per group. Admission: a client is refused (login callback with socket 0, then
 * closed) when more than nMaxClient clients are already connected, so nMaxClient + 1 are
 * admitted. A client of a group is treated as departed (leave callback, then closed) when an
 * event of a later client of its group wakes the group while it has none of its own. */
NETCORE_API bool NetCore_TCPXPoll_Start(int nPort, int nMaxClient, int nIPVer);
/* All three callbacks are required; a null context keeps the one stored before. */
NETCORE_API bool NetCore_TCPXPoll_RegisterCallBack(CALLBACK_NETCORE_TCPSERVER_LOGIN fpCall_Login,
                                                   CALLBACK_NETCORE_TCPSERVER_RECV fpCall_Recv,
                                                   CALLBACK_NETCORE_TCPSERVER_LEAVE fpCall_Leave, void* lPLogin,
                                                   void* lPRecv, void* lPLeave);
/* Sends with a 3 s time-out. The bytes sent are counted into the second counter of GetNetFlow,
 * together with the bytes received; the first counter stays 0. */
NETCORE_API bool NetCore_TCPXPoll_Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen);
/* Closes a client without a leave callback; always true (also for an unknown address). */
NETCORE_API bool NetCore_TCPXPoll_Close(const char* lpszClientAddr);
/* Stops accepting; connected clients stay and are served until their next event. Always true. */
NETCORE_API bool NetCore_TCPXPoll_Stop(bool bClearFlow);
/* Writes (up, down); no null test. Always true. */
NETCORE_API bool NetCore_TCPXPoll_GetNetFlow(unsigned long long* pInt_FlowUp, unsigned long long* pInt_FlowDown);
/* Stores the client count; with a non-null pppszList also hands out the addresses. */
NETCORE_API bool NetCore_TCPXPoll_GetList(char*** pppszList, int* pInt_ListCount);

/* One accept thread, one close thread, one thread per client waiting with select() for nTimeOut
 * milliseconds. Without callbacks, events queue up for NetCore_TCPSelect_ReadIOEvent with the
 * types 0x01 (client arrived), 0x100 (data received) and 0x10 (client left). */
NETCORE_API bool NetCore_TCPSelect_Start(int nPort, int nTimeOut, bool bKeepAlive, int nIPVer);
/* Stores all six values as given, nulls included; always true. */
NETCORE_API bool NetCore_TCPSelect_RegisterCallBack(CALLBACK_NETCORE_TCPSERVER_LOGIN fpCall_Login,
                                                    CALLBACK_NETCORE_TCPSERVER_RECV fpCall_Recv,
                                                    CALLBACK_NETCORE_TCPSERVER_LEAVE fpCall_Leave, void* lPLogin,
                                                    void* lPRecv, void* lPLeave);
/* Waits up to 100 ms for the socket to be writable, then sends with a 3 s time-out. A failure
 * leaves the code of the socket utility that failed. */
NETCORE_API bool NetCore_TCPSelect_Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen);
/* Ends a client without a departure report; always true. Takes up to one select time-out. */
NETCORE_API bool NetCore_TCPSelect_RemoveClient(const char* lpszClientAddr);
/* Ends every client (no departure reports) and the server's threads; always true. */
NETCORE_API bool NetCore_TCPSelect_Stop(bool bClearFlow);
/* (sent, received) */
NETCORE_API bool NetCore_TCPSelect_GetFlow(unsigned long long* pInt_FlowUp, unsigned long long* pInt_FlowDown);
NETCORE_API bool NetCore_TCPSelect_GetList(char*** pppszList, int* pInt_ListCount);
/* Takes the first queued event whose address begins with lpszClientAddr (an empty string matches
 * every address) and whose type shares a bit with *pdwType (0 takes any type). The address is
 * copied back into lpszClientAddr (at least 64 characters) and the type into *pdwType; for a data
 * event the length goes to *pInt_Len, but the data itself is not copied into lpszMsgBuffer. */
NETCORE_API bool NetCore_TCPSelect_ReadIOEvent(char* lpszClientAddr, char* lpszMsgBuffer, int* pInt_Len,
                                               unsigned long* pdwType);

#ifdef __cplusplus
}
#endif

#endif /* OMBRELT_NETCORE_H */
