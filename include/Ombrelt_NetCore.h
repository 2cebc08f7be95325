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
 * SetStatusEx gives ERROR_NETCORE_TCPXCORE_SEND_STATUS. */
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

#ifdef __cplusplus
}
#endif

#endif /* OMBRELT_NETCORE_H */
