// A Unix-domain stream echo server: every message a peer sends comes back prefixed with "echo: ".
//
// Usage: unix_echo [socket path]        (default: a fresh path under /tmp)
// Without a path the program also forks a client that sends two lines, prints the answers, and
// the server stops once the client has gone. With a path it serves until Enter is pressed; try
// it with `socat - UNIX-CONNECT:<path>`.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "Ombrelt_NetCore.h"

namespace {

std::atomic<int> g_nLeft{0};

bool OnAccept(const char*, int hSocket, void*) {
    printf("server: peer %d connected\n", hSocket);
    return true;
}

void OnRecv(const char*, int hSocket, const char* lpszMsg, int nLen, void*) {
    std::string reply = "echo: " + std::string(lpszMsg, static_cast<size_t>(nLen));
    if (!NetCore_UnixDomain_Send(hSocket, reply.data(), static_cast<int>(reply.size()), nullptr)) {
        printf("server: send failed, code 0x%08llX\n", NetCore_GetLastError(nullptr));
    }
}

// Called only while a receive callback is set; it gets the receive callback's argument.
void OnLeave(const char*, int hSocket, void*) {
    printf("server: peer %d left\n", hSocket);
    g_nLeft++;
}

int RunClient(const char* lpszPath) {
    sockaddr_un st_Addr{};
    st_Addr.sun_family = AF_UNIX;
    snprintf(st_Addr.sun_path, sizeof(st_Addr.sun_path), "%s", lpszPath);
    int hSocket = -1;
    for (int i = 0; i < 500; i++) {  // the server may still be starting
        hSocket = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)) == 0) break;
        close(hSocket);
        hSocket = -1;
        usleep(10000);
    }
    if (hSocket < 0) return 1;
    for (const char* lpszLine : {"hello", "world"}) {
        if (write(hSocket, lpszLine, strlen(lpszLine)) < 0) return 2;
        char tszReply[128] = {};
        ssize_t nLen = read(hSocket, tszReply, sizeof(tszReply) - 1);
        if (nLen <= 0) return 3;
        printf("client: got \"%s\"\n", tszReply);
        fflush(stdout);
    }
    close(hSocket);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);  // lines from the server's threads and the client in order
    char tszPath[108];
    bool bDemo = argc < 2;
    if (bDemo) {
        snprintf(tszPath, sizeof(tszPath), "/tmp/unix_echo_%d.sock", static_cast<int>(getpid()));
    } else {
        snprintf(tszPath, sizeof(tszPath), "%s", argv[1]);
    }

    pid_t nChild = -1;
    if (bDemo) {
        fflush(stdout);
        nChild = fork();
        if (nChild == 0) _exit(RunClient(tszPath));
    }

    NetCore_UnixDomain_SetCallback(OnAccept, OnRecv, OnLeave, nullptr, nullptr, nullptr);
    if (!NetCore_UnixDomain_Start(tszPath, true)) {
        int nSysError = 0;
        unsigned long long nCode = NetCore_GetLastError(&nSysError);
        fprintf(stderr, "start on %s failed: code 0x%08llX, errno %d (%s)\n", tszPath, nCode, nSysError,
                strerror(nSysError));
        if (nChild > 0) waitpid(nChild, nullptr, 0);
        return 1;
    }
    printf("server: echoing on %s\n", tszPath);
    fflush(stdout);

    int nStatus = 0;
    if (bDemo) {
        waitpid(nChild, &nStatus, 0);
        for (int i = 0; i < 300 && g_nLeft.load() == 0; i++)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    } else {
        printf("press Enter to stop\n");
        for (int nChar = getchar(); nChar != '\n' && nChar != EOF; nChar = getchar()) {
        }
    }
    NetCore_UnixDomain_Stop();  // also unlinks the socket path
    printf("server: stopped\n");
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 1;
}
