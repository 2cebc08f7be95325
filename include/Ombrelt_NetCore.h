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
 * NetCore_dwErrorCode keeps its previous value, so judge by the result. */
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
 * to its members (this endpoint included). Address texts longer than 127 characters are cut. */
NETCORE_API bool NetCore_GroupCast_Create(int* phSocket, int nPort, const char* lpszGroupAddr,
                                          const char* lpszLocalAddr, int nTTL, bool bLoop, int nIPVer);
/* Waits up to 100 ms until the socket can send, then sends to the group (0 bytes included). */
NETCORE_API bool NetCore_GroupCast_Send(int hSocket, const char* lpszMsgBuffer, int nMsgLen);
/* Like NetCore_BroadCast_Recv, with the usual flag convention. ptszAddr (room for 128
 * characters), when not null, is written even when the receive fails. */
NETCORE_API bool NetCore_GroupCast_Recv(int hSocket, char* ptszMsgBuffer, int* pInt_Len, char* ptszAddr, int nTimeout);
/* Leaves the group and closes the endpoint; waits for running Sends and Recvs. Always true. */
NETCORE_API bool NetCore_GroupCast_Close(int hSocket);

#ifdef __cplusplus
}
#endif

#endif /* OMBRELT_NETCORE_H */
