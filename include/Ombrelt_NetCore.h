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
 * Heartbeat supervision (SocketOpt_HeartBeat_*Ex)
 *
 * A supervisor keeps peers by address text (bIsAddr true) or by socket number and reports the
 * ones that stop refreshing: a peer is counted once per nTimeOut seconds of silence and leaves
 * at the first check after nTimeNumber counted intervals, about (nTimeNumber + 1) * nTimeOut
 * seconds after its last activity. The leave callback runs on the supervisor's own thread with
 * (address or null, socket or 0, leave code, lParam); without a callback, timed-out peers stay
 * marked in the table and are fetched with SocketOpt_HeartBeat_GetTimeOutEx.
 *
 * Kept as callers know them: InsertSocketEx needs a socket-mode supervisor while ActiveSocketEx
 * and DeleteSocketEx succeed only in address mode; GetLoadAttrEx looks the socket up when an
 * address is given and the address up when none is (pass any non-null address to reach a socket
 * peer); SetLoadAttrEx can store a spacing but never switches evaluation on.
 * --------------------------------------------------------------------------------------------- */

#define ERROR_NETCORE_HEARTBEAT_INIT_THREAD 0x020A6201
#define ERROR_NETCORE_HEARTBEAT_INSERTADDR_NOTRUN 0x020A6220
#define ERROR_NETCORE_HEARTBEAT_INSERTADDR_MODE 0x020A6221
#define ERROR_NETCORE_HEARTBEAT_INSERTADDR_PARAMENT 0x020A6222
#define ERROR_NETCORE_HEARTBEAT_INSERTSOCKET_NOTRUN 0x020A6230
#define ERROR_NETCORE_HEARTBEAT_INSERTSOCKET_MODE 0x020A6231
#define ERROR_NETCORE_HEARTBEAT_INSERTSOCKET_PARAMENT 0x020A6232
#define ERROR_NETCORE_HEARTBEAT_ACTIVEADDR_PARAMENT 0x020A6240
#define ERROR_NETCORE_HEARTBEAT_ACTIVEADDR_NOTRUN 0x020A6241
#define ERROR_NETCORE_HEARTBEAT_ACTIVEADDR_MODE 0x020A6242
#define ERROR_NETCORE_HEARTBEAT_ACTIVEADDR_NOTFOUND 0x020A6243
#define ERROR_NETCORE_HEARTBEAT_ACTIVESOCKET_NOTRUN 0x020A6250
#define ERROR_NETCORE_HEARTBEAT_ACTIVESOCKET_MODE 0x020A6251
#define ERROR_NETCORE_HEARTBEAT_ACTIVESOCKET_PARAMENT 0x020A6252
#define ERROR_NETCORE_HEARTBEAT_ACTIVESOCKET_NOTFOUND 0x020A6253
#define ERROR_NETCORE_HEARTBEAT_DELETEADDR_PARAMENT 0x020A6260
#define ERROR_NETCORE_HEARTBEAT_DELETEADDR_NOTFOUND 0x020A6261
#define ERROR_NETCORE_HEARTBEAT_DELETEADDR_NOTRUN 0x020A6262
#define ERROR_NETCORE_HEARTBEAT_DELETEADDR_MODE 0x020A6263
#define ERROR_NETCORE_HEARTBEAT_DELETESOCKET_NOTRUN 0x020A6270
#define ERROR_NETCORE_HEARTBEAT_DELETESOCKET_MODE 0x020A6271
#define ERROR_NETCORE_HEARTBEAT_DELETESOCKET_PARAMENT 0x020A6272
#define ERROR_NETCORE_HEARTBEAT_DELETESOCKET_NOTFOUND 0x020A6273
#define ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_PARAMENT 0x020A6280
#define ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_CALLBACK 0x020A6281
#define ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_EMPTY 0x020A6282
#define ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_NOTRUN 0x020A6283
#define ERROR_NETCORE_HEARTBEAT_FORCEOUT_PARAMENT 0x020A6290
#define ERROR_NETCORE_HEARTBEAT_FORCEOUT_NOTFOUND 0x020A6291
#define ERROR_NETCORE_HEARTBEAT_SETLOADATTR_PARAMENT 0x020A62A0
#define ERROR_NETCORE_HEARTBEAT_GETLOADATTR_PARAMENT 0x020A62A1
#define ERROR_NETCORE_HEARTBEAT_GETLOADATTR_NOTFOUND 0x020A62A2
#define ERROR_NETCORE_HEARTBEAT_GETADDR_PARAMENT 0x020A62B0
#define ERROR_NETCORE_HEARTBEAT_GETADDR_NOTFOUND 0x020A62B1
#define ERROR_NETCORE_HEARTBEAT_GETSOCKET_NOTFOUND 0x020A62C0
#define ERROR_NETCORE_HEARTBEAT_INITEX_MALLOC 0x020A62F0
#define ERROR_NETCORE_HEARTBEAT_EX_HANDLE 0x020A62F1

/* The heartbeat payload: 144 bytes the sender fills as it likes, then five load percentages.
 * 154 bytes, byte-packed, host byte order. */
#pragma pack(push, 1)
typedef struct tag_Obmrelt_Protocol_HeartBeat {
    unsigned char byHeader[144];
    unsigned short wLoadRate[5];
} tag_Obmrelt_Protocol_HeartBeat;
#pragma pack(pop)

/* raw load figures of the last evaluation */
typedef struct tag_NetCore_SockOpt_LoadRate {
    unsigned int nRate1;
    unsigned int nRate2;
    unsigned int nRate3;
    unsigned int nRate4;
    unsigned int nRate5;
} NETCORE_SOCKOPT_LOADRATE;

/* load levels, 1 (idle) to 5 (saturated), 0 while never evaluated */
typedef struct tag_NetCore_SockOpt_HBLoad {
    unsigned int nLevel1;
    unsigned int nLevel2;
    unsigned int nLevel3;
    unsigned int nLevel4;
    unsigned int nLevel5;
} NETCORE_SOCKOPT_HBLOAD;

/* leave callback: (address or null, socket or 0, leave code, lParam) */
typedef void (*CALLBACK_NETCORE_SOCKOPT_HEARTBEAT_EVENT)(const char* lpszClientAddr, int hSocket, int nLeaveCode,
                                                        void* lParam);

/* Creates and starts a supervisor; null on failure. nTimeOut seconds per interval (0: every pass
 * of the thread, about every millisecond, counts), nTimeNumber intervals tolerated. */
NETCORE_API void* SocketOpt_HeartBeat_InitEx(int nTimeOut, int nTimeNumber,
                                             CALLBACK_NETCORE_SOCKOPT_HEARTBEAT_EVENT fpCall_HeartBeatEvent,
                                             void* lParam, bool bIsAddr);
/* Stops the thread (a callback may call it for its own supervisor), empties the tables and frees
 * the supervisor. */
NETCORE_API bool SocketOpt_HeartBeat_DestoryEx(void* xhNet);
/* Expels a peer on the thread's next pass with nLeaveCode; bAdd also expels an unknown one. The
 * report reaches the callback whether or not one was installed at Init (none: nothing is called). */
NETCORE_API bool SocketOpt_HeartBeat_ForceOutAddrEx(void* xhNet, const char* lpszClientAddr, int nLeaveCode, bool bAdd);
/* In socket mode an expelled socket stays in the table and is reported again on every pass. */
NETCORE_API bool SocketOpt_HeartBeat_ForceOutSktEx(void* xhNet, int hSocket, int nLeaveCode, bool bAdd);
NETCORE_API bool SocketOpt_HeartBeat_InsertAddrEx(void* xhNet, const char* lpszClientAddr);
NETCORE_API bool SocketOpt_HeartBeat_InsertSocketEx(void* xhNet, int hSocket);
/* Refreshes a peer; a non-null pSt_ProtocolHeartBeat is stored as its latest payload. */
NETCORE_API bool SocketOpt_HeartBeat_ActiveAddrEx(void* xhNet, const char* lpszClientAddr,
                                                  tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat);
NETCORE_API bool SocketOpt_HeartBeat_ActiveSocketEx(void* xhNet, int hSocket,
                                                    tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat);
NETCORE_API bool SocketOpt_HeartBeat_DeleteAddrEx(void* xhNet, const char* lpszClientAddr);
NETCORE_API bool SocketOpt_HeartBeat_DeleteSocketEx(void* xhNet, int hSocket);
/* Seconds since the peer's last activity (or last counted interval) into *pInt_Timer if non-null. */
NETCORE_API bool SocketOpt_HeartBeat_GetAddrEx(void* xhNet, const char* lpszClientAddr, long long* pInt_Timer);
NETCORE_API bool SocketOpt_HeartBeat_GetSocketEx(void* xhNet, int hSocket, long long* pInt_Timer);
/* Polling without a callback: the first timed-out peer (address into ptszClientAddr, at least 64
 * characters, or socket into *phSocket, by mode). It stays in the table until deleted. */
NETCORE_API bool SocketOpt_HeartBeat_GetTimeOutEx(void* xhNet, char* ptszClientAddr, int* phSocket);
NETCORE_API bool SocketOpt_HeartBeat_SetLoadAttrEx(void* xhNet, int nTime, bool bLoad);
NETCORE_API bool SocketOpt_HeartBeat_GetLoadAttrEx(void* xhNet, const char* lpszClientAddr, int hSocket,
                                                   NETCORE_SOCKOPT_HBLOAD* pSt_HBLoad,
                                                   NETCORE_SOCKOPT_LOADRATE* pSt_LoadRate);

#ifdef __cplusplus
}
#endif

#endif /* OMBRELT_NETCORE_H */
