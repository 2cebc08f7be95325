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
