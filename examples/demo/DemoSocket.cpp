// Demo section: the socket utilities and the error convention.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "Demo.h"
#include "Ombrelt_NetCore.h"

namespace {

int BoundPort(int hSocket) {
    struct sockaddr_in st_Addr {};
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    return ntohs(st_Addr.sin_port);
}

}  // namespace

void DemoSocket() {
    printf("Socket utilities on 127.0.0.1\n");
    int hListen = -1;
    Report("create a TCP socket", NetCore_Socket_Create(&hListen, true, AF_INET, false));
    Report("allow address reuse", NetCore_Socket_SetReAddr(hListen));
    Report("bind to a free port and listen", NetCore_Socket_Bind(hListen, 0, true, AF_INET));
    int nPort = BoundPort(hListen);
    printf("  listening on port %d\n", nPort);

    int hClient = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in st_Addr {};
    st_Addr.sin_family = AF_INET;
    st_Addr.sin_port = htons(static_cast<uint16_t>(nPort));
    st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Report("connect a client", connect(hClient, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)) == 0);
    Report("wait until the listener is readable", NetCore_Socket_IOSelect(hListen, true, 500));
    int hServer = accept(hListen, nullptr, nullptr);

    Report("make the accepted socket non-blocking", NetCore_Socket_SetNoneBlock(hServer, true));
    int nRecvBuf = 0, nSendBuf = 0;
    NetCore_Socket_GetBufferSize(hServer, &nRecvBuf, &nSendBuf);
    printf("  buffers: receive %d bytes, send %d bytes\n", nRecvBuf, nSendBuf);

    const char* lpszHello = "hello from NetCore";
    Report("send a message to the peer",
           NetCore_Socket_Send(hClient, lpszHello, strlen(lpszHello), nullptr, 0, 3, AF_INET));
    Report("wait until it can be read", NetCore_Socket_IOSelect(hServer, true, 500));
    char tszBuffer[64] = {};
    int nLen = sizeof(tszBuffer) - 1;
    Report("receive it", NetCore_Socket_Recv(hServer, tszBuffer, &nLen));
    printf("  received \"%s\"\n", tszBuffer);

    printf("Error reporting\n");
    bool bOk = NetCore_Socket_Recv(hServer, tszBuffer, &nLen);
    printf("  receive on an empty socket: %s, flag %d, code 0x%08llX (nothing to read)\n", bOk ? "true" : "false",
           NetCore_IsErrorOccur, NetCore_GetLastError(nullptr));
    int hBusy = -1;
    NetCore_Socket_Create(&hBusy, true, AF_INET, false);
    printf("  binding the busy port prints: ");
    fflush(stdout);
    bOk = NetCore_Socket_Bind(hBusy, nPort, true, AF_INET);
    fflush(stdout);
    int nSysError = 0;
    unsigned long long nCode = NetCore_GetLastError(&nSysError);
    printf("  -> %s, code 0x%08llX, errno %d (%s)\n", bOk ? "true" : "false", nCode, nSysError, strerror(nSysError));
    Report("a later success clears the flag", NetCore_Socket_SetNoneBlock(hBusy, true) && !NetCore_IsErrorOccur);
    printf("  ...and the code stays 0x%08llX\n", NetCore_GetLastError(nullptr));

    for (int hSocket : {hBusy, hClient, hServer, hListen})
        NetCore_Socket_Close(hSocket);
}
