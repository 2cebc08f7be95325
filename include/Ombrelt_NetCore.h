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
 * Serial port (NetCore_SerialPort_*)
 *
 * Serial (tty) devices by path, several at once. A device opened with a receive callback gets a
 * read thread that hands every arrival (up to 2048 bytes at a time) to the callback; a device
 * opened without one is read by NetCore_SerialPort_RecvData. The read thread runs the same read
 * operation as RecvData and so also writes the error globals (a time-out every 100 ms while the
 * line is idle).
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

#ifdef __cplusplus
}
#endif

#endif /* OMBRELT_NETCORE_H */
