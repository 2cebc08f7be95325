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
 *
 * Android: the library needs API level 30 at load time (libc++'s timed waits import
 * pthread_cond_clockwait). Readiness waits of 1000 ms or more fail at once there, because bionic's
 * select refuses a microseconds field of a second or more (NetCore_Socket_IOSelect): keep every
 * wait given to the operations below under 1000 ms. Lines the library prints go to standard
 * output, which an app does not see.
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
 * failure writes ERROR_NETCORE_SOCKET_BIND_LISTEN but leaves NetCore_IsErrorOccur false.
 * An Android app does not see standard output: read errno with NetCore_GetLastError instead. */
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
 * (ERROR_NETCORE_SOCKET_SELECT_FAILED, errno EINVAL) at once, without waiting; a negative
 * time-out fails the same way everywhere. Descriptors at or above FD_SETSIZE are supported. */
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

/* ------------------------------------------------------------------------------------------------
 * Unix-domain socket server (NetCore_UnixDomain_*)
 *
 * One server per process on a socket bound to a file-system path, in stream mode (one receive
 * thread per accepted peer, peers named by their socket) or datagram mode (one receive loop,
 * peers named by their own socket paths). The path must be shorter than 108 bytes: a longer one
 * is refused (ERROR_NETCORE_UNIXDOMAIN_START_BIND, or ERROR_NETCORE_UNIXDOMAIN_SEND_FAILED as a
 * datagram destination) with errno ENAMETOOLONG.
 *
 * The address text handed to the callbacks is always the empty string: identify stream peers by
 * their socket and datagram peers by a reply path of your own protocol.
 * --------------------------------------------------------------------------------------------- */

#define ERROR_NETCORE_UNIXDOMAIN_START_PARAMENT 0x020A7001
#define ERROR_NETCORE_UNIXDOMAIN_START_SOCKET 0x020A7002
#define ERROR_NETCORE_UNIXDOMAIN_START_BIND 0x020A7003
#define ERROR_NETCORE_UNIXDOMAIN_START_LISTEN 0x020A7004
#define ERROR_NETCORE_UNIXDOMAIN_START_THREAD 0x020A7005
#define ERROR_NETCORE_UNIXDOMAIN_SEND_PARAMENT 0x020A7010
#define ERROR_NETCORE_UNIXDOMAIN_SEND_NOTFOUND 0x020A7011
#define ERROR_NETCORE_UNIXDOMAIN_SEND_FAILED 0x020A7012
#define ERROR_NETCORE_UNIXDOMAIN_SEND_LEN 0x020A7013

/* A stream peer was accepted (address text, peer socket, user argument). The result is not
 * used: returning false does not refuse the peer. */
typedef bool (*CALLBACK_NETCORE_UNIXDOMAIN_ACCEPT)(const char* lpszClientAddr, int hSocket, void* lParam);
/* Data arrived: from a stream peer (its socket), or as one datagram of up to 2048 bytes (the
 * server's own socket; longer datagrams are cut). */
typedef void (*CALLBACK_NETCORE_UNIXDOMAIN_RECV)(const char* lpszClientAddr, int hSocket, const char* lpszRecvMsg,
                                                 int nMsgLen, void* lParam);
/* A stream peer closed its end. Called only while a receive callback is set, and given the
 * receive callback's user argument. */
typedef void (*CALLBACK_NETCORE_UNIXDOMAIN_LEAVE)(const char* lpszClientAddr, int hSocket, void* lParam);

/* Binds lpszUnixName (an existing file there makes bind fail) and starts the accept (or datagram
 * receive) thread and the close thread. Set the callbacks first: a stream peer accepted while no
 * accept callback is set gets a receive thread but is never entered in the peer table, so Send
 * and Remove do not find it. */
NETCORE_API bool NetCore_UnixDomain_Start(const char* lpszUnixName, bool bStream);
/* Any callback may be null. Always true. */
NETCORE_API bool NetCore_UnixDomain_SetCallback(CALLBACK_NETCORE_UNIXDOMAIN_ACCEPT fpCallAccept,
                                                CALLBACK_NETCORE_UNIXDOMAIN_RECV fpCallRecv,
                                                CALLBACK_NETCORE_UNIXDOMAIN_LEAVE fpCallLeave, void* lPAccept,
                                                void* lPRecv, void* lPLeave);
/* Stream mode: sends to the peer hSocket (lpszClientAddr ignored) once it is writable within
 * 100 ms; if it is not, the call fails with the readiness wait's code and keeps its shared hold
 * on the peer table, so that every later Remove, Stop and accepted peer waits for good. Datagram
 * mode: sends from the server's socket to the path lpszClientAddr (hSocket ignored). No retry of
 * a partial send. */
NETCORE_API bool NetCore_UnixDomain_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen,
                                         const char* lpszClientAddr);
/* Closes a stream peer and frees it; true also for an unknown socket. A peer that closes its end
 * is removed by the close thread within about a second. */
NETCORE_API bool NetCore_UnixDomain_Remove(int hSocket);
/* Stops the threads, closes every peer and unlinks the socket path. Safe without a Start and
 * from inside a callback. Always true. */
NETCORE_API bool NetCore_UnixDomain_Stop(void);

/* ------------------------------------------------------------------------------------------------
 * Pipes (NetCore_PIPAnonymous_*, NetCore_PIPNamed_*)
 *
 * Byte channels known by a name: anonymous pipes (a pipe() pair named inside the process, shared
 * with children forked after Create) and named pipes (FIFOs in the file system, created or
 * opened by path, read-write and non-blocking). The mailslot registry is a class only
 * (CNetCore_PIPMailSlot, its codes below): its operations move no data on this platform.
 * --------------------------------------------------------------------------------------------- */

#define ERROR_NETCORE_PIPE_ANONYMOUS_PARAMENT 0x020A1200
#define ERROR_NETCORE_PIPE_ANONYMOUS_READEND 0x020A1201
#define ERROR_NETCORE_PIPE_ANONYMOUS_WRITEEND 0x020A1202
#define ERROR_NETCORE_PIPE_ANONYMOUS_RESERVED 0x020A1203
#define ERROR_NETCORE_PIPE_ANONYMOUS_CREATE 0x020A1204
#define ERROR_NETCORE_PIPE_ANONYMOUS_READ_PARAMENT 0x020A1210
#define ERROR_NETCORE_PIPE_ANONYMOUS_READ_NOTFOUND 0x020A1211
#define ERROR_NETCORE_PIPE_ANONYMOUS_READ_FAILED 0x020A1212
#define ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_PARAMENT 0x020A1220
#define ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_NOTFOUND 0x020A1221
#define ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_FAILED 0x020A1222
#define ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_LEN 0x020A1223
#define ERROR_NETCORE_PIPE_NAMED_PARAMENT 0x020A1300
#define ERROR_NETCORE_PIPE_NAMED_MKFIFO 0x020A1301
#define ERROR_NETCORE_PIPE_NAMED_OPEN 0x020A1302
#define ERROR_NETCORE_PIPE_NAMED_READ_PARAMENT 0x020A1310
#define ERROR_NETCORE_PIPE_NAMED_READ_NOTFOUND 0x020A1311
#define ERROR_NETCORE_PIPE_NAMED_READ_FAILED 0x020A1313
#define ERROR_NETCORE_PIPE_NAMED_WRITE_PARAMENT 0x020A1320
#define ERROR_NETCORE_PIPE_NAMED_WRITE_NOTFOUND 0x020A1321
#define ERROR_NETCORE_PIPE_NAMED_WRITE_FAILED 0x020A1323
#define ERROR_NETCORE_PIPE_NAMED_WRITE_LEN 0x020A1324
#define ERROR_NETCORE_PIPE_NAMED_OPEN_PARAMENT 0x020A1330
#define ERROR_NETCORE_PIPE_NAMED_OPEN_FAILED 0x020A1332
#define ERROR_NETCORE_PIPE_NAMED_WAIT_PARAMENT 0x020A1340
#define ERROR_NETCORE_PIPE_MAILSLOT_PARAMENT 0x020A1401
#define ERROR_NETCORE_PIPE_MAILSLOT_READ_PARAMENT 0x020A1410
#define ERROR_NETCORE_PIPE_MAILSLOT_READ_NOTFOUND 0x020A1411
#define ERROR_NETCORE_PIPE_MAILSLOT_WRITE_PARAMENT 0x020A1420
#define ERROR_NETCORE_PIPE_MAILSLOT_WRITE_NOTFOUND 0x020A1421
#define ERROR_NETCORE_PIPE_MAILSLOT_OPEN_PARAMENT 0x020A1430
#define ERROR_NETCORE_PIPE_MAILSLOT_SETATTR_PARAMENT 0x020A1440
#define ERROR_NETCORE_PIPE_MAILSLOT_GETATTR_PARAMENT 0x020A1450

/* Creates a blocking pipe() pair under lpszPipeName; an existing name keeps its pipe (and the
 * call still returns true). pulReserved is not used. */
NETCORE_API bool NetCore_PIPAnonymous_Create(const char* lpszPipeName, unsigned long* pulReserved);
/* One read of at most *pInt_Len bytes; *pInt_Len receives the count. It blocks until data
 * arrive and holds the family's lock meanwhile: a Write from another thread of this process
 * waits for it, so feed the pipe from another process (a child) or write before reading. */
NETCORE_API bool NetCore_PIPAnonymous_Read(const char* lpszPipeName, char* ptszMsgBuffer, int* pInt_Len);
/* One write of nMsgLen bytes; a short write fails with ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_LEN. */
NETCORE_API bool NetCore_PIPAnonymous_Write(const char* lpszPipeName, const char* lpszMsgBuffer, int nMsgLen);
/* Closes both ends and forgets the name. Always true. */
NETCORE_API bool NetCore_PIPAnonymous_Close(const char* lpszPipeName);

/* mkfifo(lpszPipeName, 0777) (an existing path fails) and opens it read-write, non-blocking.
 * This call sets NetCore_IsErrorOccur on entry and leaves it set even when it succeeds: judge
 * it by its result. */
NETCORE_API bool NetCore_PIPNamed_Create(const char* lpszPipeName);
/* Opens an existing FIFO read-write, non-blocking. */
NETCORE_API bool NetCore_PIPNamed_OPen(const char* lpszPipeName);
/* A FIFO opened read-write needs no connection wait: true at once for any non-null path. */
NETCORE_API bool NetCore_PIPNamed_WaitConnect(const char* lpszPipeName);
/* One non-blocking read: with nothing in the FIFO it fails at once with
 * ERROR_NETCORE_PIPE_NAMED_READ_FAILED (errno EAGAIN). */
NETCORE_API bool NetCore_PIPNamed_Read(const char* lpszPipeName, char* ptszMsgBuffer, int* pInt_Len);
NETCORE_API bool NetCore_PIPNamed_Write(const char* lpszPipeName, const char* lpszMsgBuffer, int nMsgLen);
/* Closes the FIRST stored FIFO, whatever path is passed (unlinking it if this process created
 * it). Always true. */
NETCORE_API bool NetCore_PIPNamed_Close(const char* lpszPipeName);

/* ------------------------------------------------------------------------------------------------
 * Shared memory (NetCore_PIPMMap_*, NetCore_PIPIpc_*)
 *
 * PIPMMap: shared anonymous mappings known by a name inside the process, reachable from children
 * forked after Create. A file named at Create is only created and held open: the region is never
 * backed by it. Offsets are not checked against the region's size, and a Write or Read reaching
 * past the region is not refused; the bytes beyond it are not stored and read back as zero.
 *
 * PIPIpc: a thin layer over System V shared memory segments (shmget with IPC_PRIVATE, shmat,
 * shmdt, shmctl). Android does not give applications System V shared memory: there Create fails
 * with ERROR_NETCORE_PIPE_IPC_SHMGET and OPen with ERROR_NETCORE_PIPE_IPC_OPEN (errno ENOSYS),
 * Get returns (void*)-1, and Free and Close do nothing.
 *
 * Note: the six PIPMMap codes from READ_PARAMENT on have one hexadecimal digit fewer than the
 * others (0x0020A1x0); use the names.
 * --------------------------------------------------------------------------------------------- */

#define ERROR_NETCORE_PIPE_IPC_PARAMENT 0x020A1001
#define ERROR_NETCORE_PIPE_IPC_SIZE 0x020A1002
#define ERROR_NETCORE_PIPE_IPC_SHMGET 0x020A1003
#define ERROR_NETCORE_PIPE_IPC_OPEN 0x020A1010
#define ERROR_NETCORE_PIPE_MMAP_PARAMENT 0x020A1101
#define ERROR_NETCORE_PIPE_MMAP_OPENFILE 0x020A1102
#define ERROR_NETCORE_PIPE_MMAP_MAP 0x020A1103
#define ERROR_NETCORE_PIPE_MMAP_WRITE_PARAMENT 0x020A1110
#define ERROR_NETCORE_PIPE_MMAP_WRITE_NOTFOUND 0x020A1111
#define ERROR_NETCORE_PIPE_MMAP_READ_PARAMENT 0x0020A120
#define ERROR_NETCORE_PIPE_MMAP_READ_NOTFOUND 0x0020A121
#define ERROR_NETCORE_PIPE_MMAP_OPEN_PARAMENT 0x0020A130
#define ERROR_NETCORE_PIPE_MMAP_GETPTR_PARAMENT 0x0020A140
#define ERROR_NETCORE_PIPE_MMAP_GETPTR_NOTFOUND 0x0020A141
#define ERROR_NETCORE_PIPE_MMAP_GETPTR_NULL 0x0020A142
#define ERROR_NETCORE_PIPE_MMAP_FREEPTR_PARAMENT 0x0020A150

/* Maps nSize bytes (shared, anonymous) under lpszName; lpszFile, if not null, is opened (created
 * with mode 0777 before the umask) and held until Close. An existing name keeps its region.
 * The region is mapped executable where the system allows it, and without execution where a
 * policy refuses executable memory (an Android app's SELinux domain may). */
NETCORE_API bool NetCore_PIPMMap_Create(const char* lpszName, const char* lpszFile, int nSize);
/* Copies nLen bytes to the region at offset nPos. This call sets NetCore_IsErrorOccur on entry
 * and leaves it set even when it succeeds: judge it by its result. */
NETCORE_API bool NetCore_PIPMMap_Write(const char* lpszName, void* lPBuffer, int nLen, int nPos);
/* Copies nLen bytes from the region at offset nPos. */
NETCORE_API bool NetCore_PIPMMap_Read(const char* lpszName, void* lPBuffer, int nLen, int nPos);
/* The region's base address, valid until Close; null on failure. */
NETCORE_API void* NetCore_PIPMMap_GetPointer(const char* lpszName);
/* Checks the name only; nothing to free. */
NETCORE_API bool NetCore_PIPMMap_FreePointer(const char* lpszName);
/* Checks the name only; a region is reached by its name in this process or a forked child. */
NETCORE_API bool NetCore_PIPMMap_OPen(const char* lpszName);
/* Unmaps the region, closes its file and forgets the name. Always true. */
NETCORE_API bool NetCore_PIPMMap_Close(const char* lpszName);

/* Creates a private segment of nSize bytes, a whole multiple of the page size (0 passes that
 * test and then fails in shmget), and stores its identifier in *phShm. Another process learns
 * the identifier from its creator (a forked child inherits it). */
NETCORE_API bool NetCore_PIPIpc_Create(int* phShm, int nSize);
/* Tells whether a segment exists under the KEY hShm (shmget(hShm, 0, 0)); the identifier found
 * is not returned. Segments made by Create have no key. */
NETCORE_API bool NetCore_PIPIpc_OPen(int hShm);
/* Attaches the segment; returns what shmat returns, (void*)-1 on failure, with no code set. */
NETCORE_API void* NetCore_PIPIpc_Get(int hShm);
/* Detaches an address from Get. Always true. */
NETCORE_API bool NetCore_PIPIpc_Free(void* lPBase);
/* Marks the segment for removal (once the last process detaches). Always true. */
NETCORE_API bool NetCore_PIPIpc_Close(int hShm);

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
 * types 0x01 (client arrived), 0x100 (data received) and 0x10 (client left).
 * Android: with nTimeOut 1000 or more every wait fails at once, so Start succeeds but the accept
 * thread never admits a client; give less than 1000. */
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

/* ------------------------------------------------------------------------------------------------
 * UDP epoll server (NetCore_UDPXCore_*Ex)
 *
 * One bound UDP socket served by a number of receive threads, each with its own epoll instance.
 * Every datagram reaches the receive callback, on a receive thread, with the sender's address as
 * "%s:%d" text (IPv6 addresses unbracketed); replies go out by such a text. Datagrams longer than
 * 2048 bytes are cut to 2048. Several servers may run at once: StartEx hands out a handle that
 * every other call takes first; only a null handle is detected.
 *
 * Some codes share their values with the socket utilities: a caller tells them apart by the
 * function it just called.
 * --------------------------------------------------------------------------------------------- */

#define ERROR_NETCORE_UDPXCORE_CREATE_MALLOC 0x020A4501
#define ERROR_NETCORE_UDPXCORE_CREATE_EPOLL 0x020A4502
#define ERROR_NETCORE_UDPXCORE_CREATE_CTLSOCKET 0x020A4503
#define ERROR_NETCORE_UDPXCORE_CREATE_PIPE 0x020A4506
#define ERROR_NETCORE_UDPXCORE_CREATE_CTLPIPE 0x020A4507
#define ERROR_NETCORE_UDPXCORE_SENDMSG_PARAMENT 0x020A4510
#define ERROR_NETCORE_UDPXCORE_GETFLOW_PARAMENT 0x020A4520
#define ERROR_NETCORE_UDPXCORE_CBSET_PARAMENT 0x020A4530
#define ERROR_NETCORE_UDPXCORE_GETTIME_PARAMENT 0x020A4550
#define ERROR_NETCORE_UDPXCORE_AVERAGE_PARAMENT 0x020A4660
#define ERROR_NETCORE_UDPXCORE_STARTEX_MALLOC 0x020A45A0
#define ERROR_NETCORE_UDPXCORE_HANDLE_NULL 0x020A45A1

/* Receive callback: sender address text, the server's bound socket, the datagram and its length,
 * and the registered context. A null datagram with length -1 reports a receive error. */
typedef void (*CALLBACK_NETCORE_UDPXCORE_RECV)(const char* lpszClientAddr, int hSocket, const char* lpszMsgBuffer,
                                               int nMsgLen, void* lParam);

/* Binds a UDP socket to nPort on every address (nIPVer 2: IPv4, else IPv6, which also takes IPv4
 * peers as "::ffff:a.b.c.d") and starts nThread receive threads (0 or less: one per hardware
 * thread). nTimeFlow is the flow interval in seconds. Null on failure; the code of the failing
 * step stands (a busy port gives ERROR_NETCORE_SOCKET_BIND_BIND). Register the callback before
 * traffic arrives: datagrams received without one are counted and dropped. */
NETCORE_API void* NetCore_UDPXCore_StartEx(int nPort, int nThread, int nTimeFlow, int nIPVer);
/* Stops the threads and closes the socket; bClearFlow also zeroes every total and time. The handle
 * is invalid afterwards. May be called from the server's own receive callback. */
NETCORE_API bool NetCore_UDPXCore_DestroyEx(void* xhToken, bool bClearFlow);
/* The bound socket. */
NETCORE_API bool NetCore_UDPXCore_GetSocketEx(void* xhToken, int* phSocket);
/* Sends one datagram to an "address:port" text (IPv4, or unbracketed IPv6 split at its last
 * colon), retrying up to 3 seconds while the socket would block. Counted only when sent. The
 * socket utilities' send codes stand on failure. On an IPv6 server the datagram leaves with an
 * IPv4 family field, which Linux delivers over IPv4 to the port on the local host: a peer on this
 * host receives it on a dual-stack (IPv6 wildcard) or IPv4 socket. */
NETCORE_API bool NetCore_UDPXCore_SendEx(void* xhToken, const char* lpszClientAddr, const char* lpszMsgBuffer,
                                         int nMsgLen);
/* Totals since start; the packet outputs may be null. */
NETCORE_API bool NetCore_UDPXCore_GetFlowEx(void* xhToken, unsigned long long* pInt_SendBytes,
                                            unsigned long long* pInt_RecvBytes, unsigned long long* pInt_SendPackets,
                                            unsigned long long* pInt_RecvPackets);
/* Millisecond ticks of the last received datagram and the last successful send. */
NETCORE_API bool NetCore_UDPXCore_GetTimeEx(void* xhToken, unsigned long long* pInt_TimeRecv,
                                            unsigned long long* pInt_TimeSend);
/* bWhole: each total divided by (milliseconds since start x 1000). Otherwise each total minus
 * (its snapshot at the last interval close / nTimeFlow), in the order send bytes, receive bytes,
 * send packets, receive packets; the third output starts from the receive packet total. */
NETCORE_API bool NetCore_UDPXCore_GetAverageFlowEx(void* xhToken, unsigned long long* pInt_SendBytes,
                                                   unsigned long long* pInt_RecvBytes,
                                                   unsigned long long* pInt_SendPackets,
                                                   unsigned long long* pInt_RecvPackets, bool bWhole);
NETCORE_API bool NetCore_UDPXCore_RegisterCallBackEx(void* xhToken, CALLBACK_NETCORE_UDPXCORE_RECV fpCall_Recv,
                                                     void* lParam);

/* ------------------------------------------------------------------------------------------------
 * TCP epoll server (NetCore_TCPXCore_*Ex)
 *
 * A many-client TCP server: several event threads, each with its own listening socket on the
 * same port (port reuse), its own edge-triggered epoll instance and its own wake-up pipe. Every
 * connection is served for its whole life by the thread that accepted it, so all callbacks of
 * one client come from one thread; callbacks of different clients may run at the same time.
 *
 * Servers are reached through handles: StartEx creates and starts one and returns it, every
 * other call takes it first, DestroyEx stops and frees it. Only a null handle is detected.
 *
 * Clients are named by their address text "%s:%d" (the address as inet_ntop gives it, IPv6 not
 * bracketed, and the port), at most 127 characters. nIPVer 2 means IPv4, any other value IPv6.
 *
 * Register the callbacks right after StartEx: a client accepted before that is kept without a
 * login callback, and its data is dropped until callbacks exist.
 *   login (address, socket, context): false closes the client. When the client limit is
 *     exceeded it is called with socket 0, its result is ignored and the client is closed.
 *   receive (address, socket, data, length, context): one call per read, or per framed message
 *     (SetLimitEx). The data is followed by a zero byte. A client disabled with SetStatusEx gets
 *     one call with null data and length -1 on its next data, and is then closed.
 *   leave (address, socket, context): the peer closed, failed or reported an error; the client
 *     is closed after the call. CloseForClientEx and DestroyEx call no leave callback.
 *   writable (address, socket, context): registered per client with CBSendEx; called when the
 *     socket becomes writable, and again after every successful SendEx to that client.
 * Calling DestroyEx from inside one of the server's own callbacks is allowed: the stop then
 * finishes on a helper thread shortly after the callback returns.
 * --------------------------------------------------------------------------------------------- */

#define ERROR_NETCORE_TCPXCORE_START_SIGSET 0x020A4301
#define ERROR_NETCORE_TCPXCORE_START_SIGNAL 0x020A4302
#define ERROR_NETCORE_TCPXCORE_CREATE_MALLOC 0x020A4304
#define ERROR_NETCORE_TCPXCORE_CREATE_EPOLL 0x020A4305
#define ERROR_NETCORE_TCPXCORE_CREATE_EPOLLCTL 0x020A4306
#define ERROR_NETCORE_TCPXCORE_CREATE_PIPE 0x020A4308
#define ERROR_NETCORE_TCPXCORE_PARAMENT 0x020A4309
#define ERROR_NETCORE_TCPXCORE_NOTFOUND 0x020A4310
#define ERROR_NETCORE_TCPXCORE_SOCKET_INVALID 0x020A4315
#define ERROR_NETCORE_TCPXCORE_SEND_STATUS 0x020A4316
#define ERROR_NETCORE_TCPXCORE_EMPTY 0x020A4317
#define ERROR_NETCORE_TCPXCORE_PAUSE_EPOLLCTL 0x020A4318
#define ERROR_NETCORE_TCPXCORE_SEND_EPOLLCTL 0x020A4319
#define ERROR_NETCORE_TCPXCORE_EX_START 0x020A43A0
#define ERROR_NETCORE_TCPXCORE_EX_HANDLE 0x020A43A1

typedef bool (*CALLBACK_NETCORE_TCPXCORE_LOGIN)(const char* lpszClientAddr, int hSocket, void* lParam);
typedef void (*CALLBACK_NETCORE_TCPXCORE_RECV)(const char* lpszClientAddr, int hSocket, const char* lpszRecvMsg,
                                               int nMsgLen, void* lParam);
typedef void (*CALLBACK_NETCORE_TCPXCORE_LEAVE)(const char* lpszClientAddr, int hSocket, void* lParam);
typedef void (*CALLBACK_NETCORE_TCPXCORE_SEND)(const char* lpszClientAddr, int hSocket, void* lParam);

/* Starts a server on nPort (all addresses) with nThreads event threads (0 or below: one per
 * hardware thread) and returns its handle. nMaxClient: most clients at once. bKeepAlive: TCP
 * keep-alive on the listening sockets. bReuseAddr: address reuse for the probe that first proves
 * the port can be taken (the listening sockets always reuse address and port). nFlowPeriod:
 * averaging period in seconds of GetAverageFlowEx. Also makes the process ignore SIGPIPE.
 * With bKeepAlive the listening sockets go through NetCore_Socket_KeepAlive, whose refused count
 * option leaves NetCore_IsErrorOccur set (ERROR_NETCORE_SOCKET_KEEPALIVE_COUNT) on Linux even
 * though the server starts: judge StartEx by its result.
 * Null on failure: a busy port gives ERROR_NETCORE_SOCKET_BIND_BIND (an IPv4 one also prints
 * "NetCore_Socket_Bind:<errno>"); a failing thread pool leaves the pool library's own code. */
NETCORE_API void* NetCore_TCPXCore_StartEx(int nPort, int nMaxClient, int nThreads, bool bKeepAlive, bool bReuseAddr,
                                           int nFlowPeriod, int nIPVer);
/* Stops the threads, closes every client (no leave callback) and frees the server; bClearFlow
 * is accepted for the server's flow counters, which go with it. The handle is invalid after. */
NETCORE_API bool NetCore_TCPXCore_DestroyEx(void* xhNet, bool bClearFlow);
/* Contexts are stored only when non-null (a null one keeps the previous context). All three
 * callbacks are required (ERROR_NETCORE_TCPXCORE_PARAMENT). */
NETCORE_API bool NetCore_TCPXCore_RegisterCallBackEx(void* xhNet, CALLBACK_NETCORE_TCPXCORE_LOGIN fpCallePoll_Login,
                                                     CALLBACK_NETCORE_TCPXCORE_RECV fpCallePoll_Recv,
                                                     CALLBACK_NETCORE_TCPXCORE_LEAVE fpCallePoll_Leave,
                                                     void* lPLogin, void* lPRecv, void* lPLeave);
/* Sends the whole message to a client. nIOSelect 0 or more first waits that many milliseconds
 * for the socket to be writable (NetCore_Socket_IOSelect; a negative value skips the wait);
 * then the send retries every 10 ms while the socket would block, for up to nTimeOut seconds
 * (NetCore_Socket_Send's codes). Sends to one client are serialised; a client disabled with
 * SetStatusEx gives ERROR_NETCORE_TCPXCORE_SEND_STATUS.
 * Android: an nIOSelect of 1000 or more fails at once with ERROR_NETCORE_SOCKET_SELECT_FAILED. */
NETCORE_API bool NetCore_TCPXCore_SendEx(void* xhNet, const char* lpszClientAddr, const char* lpszMsgBuffer,
                                         int nMsgLen, int nTimeOut, int nIOSelect);
/* Registers (non-null) or removes (null) the client's writable callback. Unlike every other
 * operation this one sets NetCore_IsErrorOccur on entry and leaves it set on success: rely on
 * its result only. */
NETCORE_API bool NetCore_TCPXCore_CBSendEx(void* xhNet, const char* lpszClientAddr,
                                           CALLBACK_NETCORE_TCPXCORE_SEND fpCallSend, void* lParam);
/* Hands out every client's address: *pInt_ListCount rows of 128 characters allocated with
 * BaseLib_OperatorMemory_Malloc; release them with BaseLib_OperatorMemory_Free(pppszListAddr,
 * count). An empty server gives ERROR_NETCORE_TCPXCORE_EMPTY and allocates nothing. */
NETCORE_API bool NetCore_TCPXCore_GetAllEx(void* xhNet, char*** pppszListAddr, int* pInt_ListCount);
/* Closes the client at once, without a leave callback. */
NETCORE_API bool NetCore_TCPXCore_CloseForClientEx(void* xhNet, const char* lpszClientAddr);
/* true disables the client: sends are refused and its next data closes it (see receive). */
NETCORE_API bool NetCore_TCPXCore_SetStatusEx(void* xhNet, const char* lpszClientAddr, bool bStatus);
/* hSocket 0 gives ERROR_NETCORE_TCPXCORE_PARAMENT; ptszClientAddr must hold 128 bytes. */
NETCORE_API bool NetCore_TCPXCore_GetAddrForSocketEx(void* xhNet, int hSocket, char* ptszClientAddr);
NETCORE_API bool NetCore_TCPXCore_GetSocketForAddrEx(void* xhNet, const char* lpszClientAddr, int* phSocket);
/* Bytes sent, bytes received, packets sent, packets received: of one client, or of the whole
 * server when lpszClientAddr is null. The two byte pointers are required, the others optional. */
NETCORE_API bool NetCore_TCPXCore_GetFlowEx(void* xhNet, unsigned long long* pInt_SendBytes,
                                            unsigned long long* pInt_RecvBytes, unsigned long long* pInt_SendPackets,
                                            unsigned long long* pInt_RecvPackets, const char* lpszClientAddr);
/* Milliseconds since the client's latest send and receive (0 when there was none) and, when
 * pInt_OnlineTime is not null, since it connected. */
NETCORE_API bool NetCore_TCPXCore_GetTimeEx(void* xhNet, const char* lpszClientAddr, unsigned long long* pInt_SendTime,
                                            unsigned long long* pInt_RecvTime, unsigned long long* pInt_OnlineTime);
/* Averages, in unsigned integer arithmetic:
 *   server (null address) or client with bAll: counter / (elapsed milliseconds * 1000), 0 while
 *     no millisecond has passed;
 *   client without bAll: counter - snapshot / nFlowPeriod, the snapshot being the counter's
 *     value when the current period of its direction began (0 when nFlowPeriod is 0).
 * All four pointers are required. */
NETCORE_API bool NetCore_TCPXCore_GetAverageFlowEx(void* xhNet, unsigned long long* pInt_SendBytes,
                                                   unsigned long long* pInt_RecvBytes,
                                                   unsigned long long* pInt_SendPackets,
                                                   unsigned long long* pInt_RecvPackets, const char* lpszClientAddr,
                                                   bool bAll);
/* Frames the client's incoming data. nPktLen above 0: messages of nPktLen bytes, at most one
 * delivered per read (the rest stays buffered for the next read). While less than nPktLen bytes
 * are buffered and lpszEndMark is not empty, everything buffered is delivered as soon as it
 * contains the terminator (a text search). nPktLen 0 or below: no framing, one call per read.
 * Bounds: the terminator keeps at most its first 255 characters; a packet length above 8192 is
 * stored as given (GetLimitEx returns it) but framing uses 8192, the size of the buffer; and a
 * buffered remainder that would exceed 8192 bytes is delivered in further whole messages at
 * once instead of overflowing. The buffer is only allocated for a client once a limit is set. */
NETCORE_API bool NetCore_TCPXCore_SetLimitEx(void* xhNet, const char* lpszClientAddr, int nPktLen,
                                             const char* lpszEndMark);
/* Either pointer may be null; ptszEndMark must hold 256 bytes. */
NETCORE_API bool NetCore_TCPXCore_GetLimitEx(void* xhNet, const char* lpszClientAddr, int* pInt_PktLen,
                                             char* ptszEndMark);
/* bRecv false stops reading the client (its socket leaves the epoll set); true resumes it. */
NETCORE_API bool NetCore_TCPXCore_PasueRecvEx(void* xhNet, const char* lpszClientAddr, bool bRecv);

/* ------------------------------------------------------------------------------------------------
 * Serial port (NetCore_SerialPort_*)
 *
 * Serial (tty) devices by path, several at once. A device opened with a receive callback gets a
 * read thread that hands every arrival (up to 2048 bytes at a time) to the callback; a device
 * opened without one is read by NetCore_SerialPort_RecvData. The read thread runs the same read
 * operation as RecvData and so also writes the error globals (a time-out every 100 ms while the
 * line is idle).
 * Android: SELinux lets only privileged (system or vendor) builds open serial devices; an app's
 * OpenDev fails as for a path that cannot be opened.
 * --------------------------------------------------------------------------------------------- */

#define ERROR_NETCORE_SERIALPORT_OPEN_MALLOC 0x020A3001
#define ERROR_NETCORE_SERIALPORT_OPEN_DEVICE 0x020A3002
#define ERROR_NETCORE_SERIALPORT_OPEN_THREAD 0x020A3005
#define ERROR_NETCORE_SERIALPORT_SEND_NOTFOUND 0x020A3010 /* written with NetCore_IsErrorOccur left false */
#define ERROR_NETCORE_SERIALPORT_SEND_TIMEOUT 0x020A3011
#define ERROR_NETCORE_SERIALPORT_SEND_FAILED 0x020A3012
#define ERROR_NETCORE_SERIALPORT_SEND_LEN 0x020A3017
#define ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND 0x020A3021 /* RecvData still returns true */
#define ERROR_NETCORE_SERIALPORT_RECV_CALLMODE 0x020A3022 /* RecvData still returns true */
#define ERROR_NETCORE_SERIALPORT_READ_TIMEOUT 0x020A3030
#define ERROR_NETCORE_SERIALPORT_READ_NODATA 0x020A3031
#define ERROR_NETCORE_SERIALPORT_SPEED_GETATTR 0x020A3101 /* written with NetCore_IsErrorOccur left false */
#define ERROR_NETCORE_SERIALPORT_SPEED_SETATTR 0x020A3102
#define ERROR_NETCORE_SERIALPORT_SPEED_FLUSH 0x020A3103 /* written with NetCore_IsErrorOccur left false */
#define ERROR_NETCORE_SERIALPORT_PARITY_GETATTR 0x020A3110
#define ERROR_NETCORE_SERIALPORT_PARITY_DATABITS 0x020A3111
#define ERROR_NETCORE_SERIALPORT_PARITY_PARITY 0x020A3112
#define ERROR_NETCORE_SERIALPORT_PARITY_STOPBITS 0x020A3113
#define ERROR_NETCORE_SERIALPORT_PARITY_SETATTR 0x020A3114

/* the cParity argument of NetCore_SerialPort_OpenDev */
#define NETCORE_SERIALPORT_PARITY_NONE 0xA1
#define NETCORE_SERIALPORT_PARITY_ODD 0xA2
#define NETCORE_SERIALPORT_PARITY_EVEN 0xA3

/* Called on the device's read thread with the device path, its descriptor, the bytes read and
 * their count. The count is what read() returned, so it is -1 when the line fails (a device
 * that went away); the bytes are only valid during the call. The callback must not close its
 * own device. */
typedef void (*CALLBACK_NETCORE_SERIALPORT_RECV)(const char* lpszDevice, int hDevice, const char* lpszMsg, int nLen,
                                                 void* lParam);

/* Opens lpszDevice non-blocking and in raw mode: nSpeed in bits per second (standard rates from
 * 50 to 230400; any other rate is accepted and leaves the line's speed as it was), parity code
 * cParity, nStopBits 1 or 2, nDataBits 5 to 8; reads return at once (VMIN 0). With fpCall_Recv
 * a read thread delivers the data; without, read it with RecvData.
 * A path that cannot be opened fails with ERROR_NETCORE_SERIALPORT_SPEED_GETATTR and
 * NetCore_IsErrorOccur left false. Opening a path that is already open configures the line
 * again with the new settings and returns true; the first opening (its descriptor, mode and
 * callback) stays in use. */
NETCORE_API bool NetCore_SerialPort_OpenDev(const char* lpszDevice, unsigned int nSpeed, unsigned char cParity,
                                            unsigned int nStopBits, unsigned int nDataBits,
                                            CALLBACK_NETCORE_SERIALPORT_RECV fpCall_Recv, void* lParam);
/* Stops the read thread, closes the device and forgets it; always true (also for an unknown path) */
NETCORE_API bool NetCore_SerialPort_CloseDev(const char* lpszDevice);
/* Writes nMsgLen bytes, waiting up to 100 ms for the line to accept them. ALWAYS returns false:
 * the write succeeded when NetCore_IsErrorOccur is false and no new code was written. An unknown
 * path writes ERROR_NETCORE_SERIALPORT_SEND_NOTFOUND with the flag left false. */
NETCORE_API bool NetCore_SerialPort_SendData(const char* lpszDevice, unsigned char* puszMsgBuffer, int nMsgLen);
/* Reads at most *pInt_Len bytes of a device opened without callback, waiting up to 100 ms, and
 * stores what read() returned in *pInt_Len (-1 when the line failed, still with true). Nothing
 * within 100 ms: ERROR_NETCORE_SERIALPORT_READ_TIMEOUT. An unknown path or a device with a read
 * thread returns TRUE with NetCore_IsErrorOccur set (ERROR_NETCORE_SERIALPORT_RECV_NOTFOUND /
 * _CALLMODE) and reads nothing. */
NETCORE_API bool NetCore_SerialPort_RecvData(const char* lpszDevice, unsigned char* puszMsgBuffer, int* pInt_Len);
/* Whether the path can be opened for reading and writing now (not whether this library holds it) */
NETCORE_API bool NetCore_SerialPort_IsOpenDev(const char* lpszDevice);

/* ------------------------------------------------------------------------------------------------
 * UDP select endpoints (NetCore_UDPSelect_*)
 *
 * One UDP socket per endpoint, handed out as an opaque handle. nIPVer 2 (AF_INET) means IPv4,
 * any other value IPv6. An endpoint is read by the caller (pull mode, NetCore_UDPSelect_Recv) or,
 * after NetCore_UDPSelect_RegisterCallBack, by its own receive thread that calls the callback
 * (callback mode). NetCore_UDPSelect_SetMode switches between the two. Only a null handle is
 * detected; every other handle must come from NetCore_UDPSelect_Start and not be stopped yet.
 * --------------------------------------------------------------------------------------------- */

#define ERROR_NETCORE_UDPSELECT_START_MALLOC 0x020A4402
#define ERROR_NETCORE_UDPSELECT_CBSET_THREAD 0x020A4405
#define ERROR_NETCORE_UDPSELECT_SEND_PARAMENT 0x020A4421
#define ERROR_NETCORE_UDPSELECT_HANDLE_NOTFOUND 0x020A4422
#define ERROR_NETCORE_UDPSELECT_RECV_PARAMENT 0x020A4430
#define ERROR_NETCORE_UDPSELECT_RECV_CALLMODE 0x020A4431
#define ERROR_NETCORE_UDPSELECT_RECV_NOTFOUND 0x020A4432
#define ERROR_NETCORE_UDPSELECT_RECV_FAILED 0x020A4433
#define ERROR_NETCORE_UDPSELECT_RECV_NOTBIND 0x020A4434
#define ERROR_NETCORE_UDPSELECT_SETMODE_PARAMENT 0x020A4440
#define ERROR_NETCORE_UDPSELECT_CBSET_PARAMENT 0x020A4450

/* Receive callback: sender as "address:port", the endpoint's socket, the datagram (at most 2048
 * bytes; longer ones are cut), its length and the registered lParam. Runs on the endpoint's
 * receive thread. */
typedef void (*CALLBACK_NETCORE_UDPSELECT_RECV)(const char* lpszAddr, int hSocket, const char* lpszMsg, int nLen,
                                                void* lParam);

/* Opens a UDP socket, bound to nPort on the wildcard address when nPort is above 0 (otherwise it
 * can only send). Returns the handle, or null with the socket utilities' code. */
NETCORE_API void* NetCore_UDPSelect_Start(int nPort, int nIPVer);
NETCORE_API bool NetCore_UDPSelect_GetSocket(void* lPClass, int* phSocket);
/* Sends to lpszAddr:nPort, retrying for up to 3 seconds while the socket would block. */
NETCORE_API bool NetCore_UDPSelect_Send(void* lPClass, const char* lpszMsgBuffer, int nMsgLen, const char* lpszAddr,
                                        int nPort);
/* Pull mode only. Receives one datagram of at most *pInt_Len bytes, stores its length in
 * *pInt_Len and the sender as "address:port" in ptszAddr (room for 64 characters). With bSelect
 * it first waits 100 ms for one and fails with the readiness wait's code if none came; without,
 * it blocks. Fails on an endpoint without a local port and in callback mode. */
NETCORE_API bool NetCore_UDPSelect_Recv(void* lPClass, char* ptszAddr, char* ptszMsgBuffer, int* pInt_Len,
                                        bool bSelect);
/* Closes the socket, ends the receive thread and frees the handle; a null handle is accepted.
 * Called from the endpoint's own callback it returns at once, and the endpoint is released as
 * soon as the callback has returned. Always true. */
NETCORE_API bool NetCore_UDPSelect_Stop(void* lPClass);
/* true: callback mode (Recv refused); false: the receive thread idles and Recv may be used. A
 * receive thread already waiting for a datagram hands that one to the callback before it idles. */
NETCORE_API bool NetCore_UDPSelect_SetMode(void* lPClass, bool bCallMode);
/* Stores the callback and starts the receive thread in callback mode. The thread ends for good
 * when it receives an empty datagram. */
NETCORE_API bool NetCore_UDPSelect_RegisterCallBack(void* lPClass, CALLBACK_NETCORE_UDPSELECT_RECV fpCall_Recv,
                                                    void* lParam);

/* ------------------------------------------------------------------------------------------------
 * Broadcast endpoints (NetCore_BroadCast_*), IPv4
 *
 * Every datagram goes to 255.255.255.255 on the endpoint's port; the endpoint receives what is
 * sent to that port. Endpoints are named by their socket.
 * --------------------------------------------------------------------------------------------- */

#define ERROR_NETCORE_BROADCAST_PARAMENT 0x020A6100
#define ERROR_NETCORE_BROADCAST_CREATE_SOCKET 0x020A6101
#define ERROR_NETCORE_BROADCAST_CREATE_SETOPT 0x020A6102
#define ERROR_NETCORE_BROADCAST_CREATE_BIND 0x020A6103
#define ERROR_NETCORE_BROADCAST_NOTFOUND 0x020A6105
#define ERROR_NETCORE_BROADCAST_SEND_FAILED 0x020A6106
#define ERROR_NETCORE_BROADCAST_RECV_FAILED 0x020A6107

/* A broadcast socket with address reuse, bound to lpszAddr:nPort (null lpszAddr: any address).
 * Several endpoints may share a port. */
NETCORE_API bool NetCore_BroadCast_Create(int* phSocket, int nPort, const char* lpszAddr);
/* Waits up to 100 ms until the socket can send, then sends to 255.255.255.255 on its port. */
NETCORE_API bool NetCore_BroadCast_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen);
/* Waits up to nTimeout ms for a datagram (a negative nTimeout blocks in the receive), receives at
 * most *pInt_Len bytes, stores the length in *pInt_Len and, when ptszAddr is not null, the sender
 * as "address:port" (room for 128 characters).
 * NetCore_IsErrorOccur reads true after this call even when it succeeded; on success
 * NetCore_dwErrorCode keeps its previous value, so judge by the result.
 * Android: an nTimeout of 1000 or more fails at once with ERROR_NETCORE_SOCKET_SELECT_FAILED. */
NETCORE_API bool NetCore_BroadCast_Recv(int hSocket, char* ptszMsgBuffer, int* pInt_Len, char* ptszAddr, int nTimeout);
/* Closes the endpoint; waits for Sends and Recvs running on any endpoint. Always true. */
NETCORE_API bool NetCore_BroadCast_Close(int hSocket);

/* ------------------------------------------------------------------------------------------------
 * Multicast endpoints (NetCore_GroupCast_*)
 *
 * A socket bound to nPort on any address and joined to one group through one local interface
 * address; every datagram goes to the group on nPort. Only IPv4 (nIPVer 2) endpoints can be made:
 * any other nIPVer fails with ERROR_NETCORE_GROUPCAST_CREATE_BIND. Endpoints are named by their
 * socket.
 * --------------------------------------------------------------------------------------------- */

#define ERROR_NETCORE_GROUPCAST_PARAMENT 0x020A6001
#define ERROR_NETCORE_GROUPCAST_CREATE_SOCKET 0x020A6002
#define ERROR_NETCORE_GROUPCAST_CREATE_LOOP 0x020A6003
#define ERROR_NETCORE_GROUPCAST_CREATE_TTL 0x020A6004
#define ERROR_NETCORE_GROUPCAST_CREATE_BIND 0x020A6006 /* also: the outgoing interface was refused */
#define ERROR_NETCORE_GROUPCAST_CREATE_JOIN 0x020A6007
#define ERROR_NETCORE_GROUPCAST_NOTFOUND 0x020A6008
#define ERROR_NETCORE_GROUPCAST_SEND_FAILED 0x020A6009
#define ERROR_NETCORE_GROUPCAST_RECV_FAILED 0x020A6010

/* nTTL 0 or less keeps the system's multicast time-to-live; bLoop delivers the host's own sends
 * to its members (this endpoint included). Address texts longer than 127 characters are cut.
 * Android: on Wi-Fi the device drops multicast datagrams unless the app holds a multicast lock
 * (WifiManager.MulticastLock, permission CHANGE_WIFI_MULTICAST_STATE) while it receives. */
NETCORE_API bool NetCore_GroupCast_Create(int* phSocket, int nPort, const char* lpszGroupAddr,
                                          const char* lpszLocalAddr, int nTTL, bool bLoop, int nIPVer);
/* Waits up to 100 ms until the socket can send, then sends to the group (0 bytes included). */
NETCORE_API bool NetCore_GroupCast_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen);
/* Like NetCore_BroadCast_Recv, with the usual flag convention. ptszAddr (room for 128
 * characters), when not null, is written even when the receive fails.
 * Android: an nTimeout of 1000 or more fails at once with ERROR_NETCORE_SOCKET_SELECT_FAILED. */
NETCORE_API bool NetCore_GroupCast_Recv(int hSocket, char* ptszMsgBuffer, int* pInt_Len, char* ptszAddr, int nTimeout);
/* Leaves the group and closes the endpoint; waits for running Sends and Recvs. Always true. */
NETCORE_API bool NetCore_GroupCast_Close(int hSocket);

/* ------------------------------------------------------------------------------------------------
 * UDX reliable transport over UDP (NetCore_UDXSocket_*Ex)
 *
 * An endpoint runs its own UDP epoll server and answers CONNECT from peers; each peer gets a
 * session named by its address text "a.b.c.d:port". Messages of 1400 bytes or more are cut
 * into 1400-byte pieces and each piece is fetched by NetCore_UDXSocket_RecvEx on its own; the
 * receive buffer must hold 2048 bytes.
 * --------------------------------------------------------------------------------------------- */

#define ERROR_NETCORE_UDX_ACCEPT_PARAMENT 0x020A8000
#define ERROR_NETCORE_UDX_ACCEPT_MALLOC 0x020A8001
#define ERROR_NETCORE_UDX_PARSE_PARAMENT 0x020A8010
#define ERROR_NETCORE_UDX_PARSE_NOTFOUND 0x020A8011
#define ERROR_NETCORE_UDX_PARSE_PROTOCOL 0x020A8013
#define ERROR_NETCORE_UDX_PARSE_REPEAT 0x020A8014
#define ERROR_NETCORE_UDX_PARSE_NOTCONNECT 0x020A8016
#define ERROR_NETCORE_UDX_PARSE_EXPIRED 0x020A8017
#define ERROR_NETCORE_UDX_SEND_PARAMENT 0x020A8020
#define ERROR_NETCORE_UDX_SEND_NOTFOUND 0x020A8021
#define ERROR_NETCORE_UDX_SEND_WINDOW 0x020A8022
#define ERROR_NETCORE_UDX_RECV_PARAMENT 0x020A8030
#define ERROR_NETCORE_UDX_RECV_NOTFOUND 0x020A8031
#define ERROR_NETCORE_UDX_RECV_EMPTY 0x020A8032
#define ERROR_NETCORE_UDX_RECV_NODATA 0x020A8033
#define ERROR_NETCORE_UDX_INIT_PARAMENT 0x020A8040
#define ERROR_NETCORE_UDX_INIT_THREAD 0x020A8041
#define ERROR_NETCORE_UDX_CBSET_PARAMENT 0x020A8050
#define ERROR_NETCORE_UDX_INITEX_MALLOC 0x020A80A0
#define ERROR_NETCORE_UDX_HANDLE_NULL 0x020A80A1

/* Configuration of an endpoint; every field must be set by the caller. */
typedef struct tag_NetCore_UDXConfig {
    bool bHeartBeat;    /* supervise peers (5 s interval, 3 misses), call login/leave, carry out closes */
    bool bOrder;        /* hand messages out in serial order */
    bool bReliable;     /* keep sent DATA until acknowledged and resend it */
    bool bStrictResend; /* a RESEND_GONE closes the session instead of skipping the serial */
    bool bMtap;         /* merging thread for DATA payloads below 700 bytes */
    int nWindowSize;    /* receive window granted to each peer in bytes; 0 or less: no accounting */
} tag_NetCore_UDXConfig;

/* login: (address, 0, lParamLogin), its result is not used; leave: (address, 0, lParamLeave) */
typedef bool (*CALLBACK_NETCORE_UDXSOCKET_LOGIN)(char const* lpszClientAddr, int hSocket, void* lParam);
typedef void (*CALLBACK_NETCORE_UDXSOCKET_LEAVE)(char const* lpszClientAddr, int hSocket, void* lParam);

/* Starts an endpoint on UDP port nPort (IPv4, 4 receive threads); nTimeFlow is the UDP server's
 * flow interval in seconds. Null on failure; a failed init leaves its endpoint behind. */
NETCORE_API void* NetCore_UDXSocket_InitEx(tag_NetCore_UDXConfig* pSt_UDXConfig, int nPort, int nTimeFlow);
/* Both callbacks are required; set them before the first peer connects when bHeartBeat is on. */
NETCORE_API bool NetCore_UDXSocket_CBSetEx(void* xhToken, bool (*fpCall_Login)(char const*, int, void*),
                                           void (*fpCall_Leave)(char const*, int, void*), void* lParamLogin,
                                           void* lParamLeave);
/* Queues one message to a connected peer; fails with ERROR_NETCORE_UDX_SEND_WINDOW when it is
 * longer than the send credit the peer granted. Failures of the UDP send itself are not reported. */
NETCORE_API bool NetCore_UDXSocket_SendEx(void* xhToken, char const* lpszClientAddr, char const* lpszMsgBuffer,
                                          int nMsgLen);
/* Fetches the next message of a peer into a buffer of at least 2048 bytes; *pInt_MsgLen is output
 * only. ERROR_NETCORE_UDX_RECV_EMPTY: nothing queued; ERROR_NETCORE_UDX_RECV_NODATA: ordered
 * mode is waiting for a missing serial (a resend request is then queued). */
NETCORE_API bool NetCore_UDXSocket_RecvEx(void* xhToken, char const* lpszClientAddr, char* ptszMsgBuffer,
                                          int* pInt_MsgLen);
/* Queues a peer for closing; carried out (CLOSE sent, leave callback) only with bHeartBeat on. */
NETCORE_API bool NetCore_UDXSocket_CloseEx(void* xhToken, char const* lpszClientAddr);
/* Stops the endpoint and frees it; no CLOSE is sent and no leave callback is called. */
NETCORE_API bool NetCore_UDXSocket_DestroyEx(void* xhToken);

#ifdef __cplusplus
}
#endif

#endif /* OMBRELT_NETCORE_H */
