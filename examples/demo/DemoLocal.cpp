// Demo section: local channels between this process and a forked child.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "Demo.h"
#include "Ombrelt_NetCore.h"

namespace {

// Only peers accepted while an accept callback is set are entered in the table that Send uses.
bool OnAccept(const char*, int, void*) {
    return true;
}

void OnRecv(const char*, int hSocket, const char* lpszMsg, int nLen, void*) {
    printf("  server got %d bytes \"%.*s\" from peer %d\n", nLen, nLen, lpszMsg, hSocket);
    NetCore_UnixDomain_Send(hSocket, "ok", 2, nullptr);
}

bool WaitChild(pid_t nChild) {
    int nStatus = 0;
    return waitpid(nChild, &nStatus, 0) == nChild && WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0;
}

}  // namespace

void DemoLocal() {
    printf("Local channels\n");
    char tszPath[64];
    snprintf(tszPath, sizeof(tszPath), "/tmp/netcore_demo_%d.sock", static_cast<int>(getpid()));
    fflush(stdout);
    pid_t nChild = fork();
    if (nChild == 0) {
        sockaddr_un st_Addr{};
        st_Addr.sun_family = AF_UNIX;
        strcpy(st_Addr.sun_path, tszPath);
        for (int i = 0; i < 500; i++) {
            int hSocket = socket(AF_UNIX, SOCK_STREAM, 0);
            if (connect(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)) == 0) {
                char tszReply[4] = {};
                bool bOk = write(hSocket, "ping", 4) == 4 && read(hSocket, tszReply, 2) == 2;
                close(hSocket);
                _exit(bOk && strcmp(tszReply, "ok") == 0 ? 0 : 1);
            }
            close(hSocket);
            usleep(10000);
        }
        _exit(2);
    }
    NetCore_UnixDomain_SetCallback(OnAccept, OnRecv, nullptr, nullptr, nullptr, nullptr);
    Report("start a Unix-domain stream server", NetCore_UnixDomain_Start(tszPath, true));
    Report("a child connects, sends and gets the answer", WaitChild(nChild));
    Report("stop the server (unlinks the path)", NetCore_UnixDomain_Stop() && access(tszPath, F_OK) != 0);

    Report("create an anonymous pipe", NetCore_PIPAnonymous_Create("demo", nullptr));
    fflush(stdout);
    nChild = fork();
    if (nChild == 0) _exit(NetCore_PIPAnonymous_Write("demo", "via pipe", 8) ? 0 : 1);
    char tszBuffer[32] = {};
    int nLen = sizeof(tszBuffer) - 1;
    Report("read what a child wrote into it", NetCore_PIPAnonymous_Read("demo", tszBuffer, &nLen));
    printf("  read %d bytes \"%s\"\n", nLen, tszBuffer);
    WaitChild(nChild);
    NetCore_PIPAnonymous_Close("demo");

    Report("create a mapped region of one page", NetCore_PIPMMap_Create("demo", nullptr, 4096));
    char tszText[] = "shared bytes";
    NetCore_PIPMMap_Write("demo", tszText, sizeof(tszText), 10);
    printf("  after Write, NetCore_IsErrorOccur reads %d (this call leaves it set)\n", NetCore_IsErrorOccur);
    memset(tszBuffer, 0, sizeof(tszBuffer));
    Report("read it back at the same offset",
           NetCore_PIPMMap_Read("demo", tszBuffer, sizeof(tszText), 10) && strcmp(tszBuffer, tszText) == 0);
    NetCore_PIPMMap_Close("demo");

    int hShm = -1;
    if (NetCore_PIPIpc_Create(&hShm, getpagesize())) {
        void* lPBase = NetCore_PIPIpc_Get(hShm);
        Report("create and attach a System V segment", lPBase != reinterpret_cast<void*>(-1));
        if (lPBase != reinterpret_cast<void*>(-1)) NetCore_PIPIpc_Free(lPBase);
        NetCore_PIPIpc_Close(hShm);
    } else {
        printf("  no System V shared memory here (code 0x%08llX)\n", NetCore_GetLastError(nullptr));
    }
}
