// Echo benchmark of the TCP epoll server against its peers, all driven by the same loopback load
// generator in the same run:
//   - a minimal echo server written directly on epoll (one SO_REUSEPORT listener, epoll instance
//     and thread per server thread, edge-triggered clients drained to EAGAIN): the reference,
//   - a libuv echo server when libuv was found at configure time (one loop, SO_REUSEPORT listener
//     and thread per server thread, the listener opened by hand as libuv has no option for it),
//   - an Asio echo server when the standalone Asio headers were found (one io_context, acceptor
//     and thread per server thread, SO_REUSEPORT listeners, like the minimal server).
//
// The load generator lives in a child process forked before any server or thread is started, so
// each process holds one end of every connection (10,000 connections fit a 20,000-descriptor hard
// limit), and the heap and CPU figures are the server process's alone. The parent sends it
// commands (connect, drive, close) through one pipe and reads the results from another; while
// driving, the child marks the start and the end of the measured window on the reply pipe, and
// the parent reads its own process CPU clock (user + system time of the server threads; its main
// thread only waits on the pipe) at each mark.
//
// Usage: tcpxcore_echo [--seconds S] [--repeat R] [--inflight a,b] [--threads T] [--conns a,b,c]
//                      [--sizes x,y] [--servers minimal,netcore,libuv,asio]
//   defaults: 1 s per measurement after a 0.3 s warm-up, 3 repeats (median taken, the servers
//   interleaved), 1 and 8 messages in flight per connection (8: a pipelined load), 2 server
//   threads and 2 client threads, 64, 1000 and 10000 connections, 64-byte and 4096-byte messages.
// Prints per cell messages/s, MB/s (each way), p50 and p99 round-trip latency and the server's CPU
// time per echoed message; throughput and latency as ratios to the minimal server, CPU as a ratio
// to the best peer (the leanest other server in the run, the minimal reference aside); then the
// heap bytes each idle connection costs.
#include <arpa/inet.h>
#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Ombrelt_NetCore.h"

#ifdef NETCORE_BENCH_HAVE_LIBUV
#include <uv.h>
#endif
#ifdef NETCORE_BENCH_HAVE_ASIO
#include <asio.hpp>
#endif

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    double dSeconds = 1.0;
    int nRepeat = 3;
    std::vector<int> stl_Inflight{1, 8};
    int nThreads = 2;
    std::vector<std::string> stl_Servers{"minimal", "netcore", "libuv", "asio"};
    std::vector<int> stl_Conns{64, 1000, 10000};
    std::vector<int> stl_Sizes{64, 4096};
};

std::vector<int> ParseList(const char* lpszText) {
    std::vector<int> stl_Values;
    std::stringstream st_Stream(lpszText);
    std::string strItem;
    while (std::getline(st_Stream, strItem, ','))
        stl_Values.push_back(atoi(strItem.c_str()));
    return stl_Values;
}

std::vector<std::string> ParseNames(const char* lpszText) {
    std::vector<std::string> stl_Names;
    std::stringstream st_Stream(lpszText);
    std::string strItem;
    while (std::getline(st_Stream, strItem, ','))
        stl_Names.push_back(strItem);
    return stl_Names;
}

int FreePort() {
    int hSocket = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in st_Addr{};
    st_Addr.sin_family = AF_INET;
    socklen_t nLen = sizeof(st_Addr);
    bind(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), nLen);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    close(hSocket);
    return ntohs(st_Addr.sin_port);
}

// A non-blocking IPv4 listener on the port that other listeners share through SO_REUSEPORT, so
// that each server thread accepts its own connections; -1 when it cannot listen.
int ReusePortListener(int nPort) {
    int hListen = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    if (hListen < 0) return -1;
    int nOne = 1;
    setsockopt(hListen, SOL_SOCKET, SO_REUSEADDR, &nOne, sizeof(nOne));
    setsockopt(hListen, SOL_SOCKET, SO_REUSEPORT, &nOne, sizeof(nOne));
    sockaddr_in st_Addr{};
    st_Addr.sin_family = AF_INET;
    st_Addr.sin_port = htons(static_cast<uint16_t>(nPort));
    if (bind(hListen, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)) != 0 || listen(hListen, 128) != 0) {
        close(hListen);
        return -1;
    }
    return hListen;
}

// ----- the servers -------------------------------------------------------------------------------

class EchoServer {
public:
    virtual ~EchoServer() = default;
    virtual const char* Name() const = 0;
    virtual const char* Key() const = 0;  // the name --servers takes
    virtual bool Start(int nPort, int nThreads) = 0;
    virtual void Stop() = 0;
    virtual int Clients() = 0;
};

// This library's server: the receive callback sends the data straight back.
class NetCoreEcho : public EchoServer {
public:
    const char* Name() const override { return "NetCore TCPXCore"; }
    const char* Key() const override { return "netcore"; }
    bool Start(int nPort, int nThreads) override {
        m_xhNet = NetCore_TCPXCore_StartEx(nPort, 100000, nThreads, false, true, 1, AF_INET);
        if (m_xhNet == nullptr) return false;
        NetCore_TCPXCore_RegisterCallBackEx(m_xhNet, OnLogin, OnRecv, OnLeave, this, m_xhNet, this);
        return true;
    }
    void Stop() override {
        if (m_xhNet != nullptr) NetCore_TCPXCore_DestroyEx(m_xhNet, true);
        m_xhNet = nullptr;
        m_nClients = 0;
    }
    int Clients() override { return m_nClients.load(); }

private:
    static bool OnLogin(const char*, int, void* lParam) {
        static_cast<NetCoreEcho*>(lParam)->m_nClients++;
        return true;
    }
    static void OnRecv(const char* lpszAddr, int, const char* lpszMsg, int nLen, void* lParam) {
        NetCore_TCPXCore_SendEx(lParam, lpszAddr, lpszMsg, nLen, 3, -1);
    }
    static void OnLeave(const char*, int, void* lParam) { static_cast<NetCoreEcho*>(lParam)->m_nClients--; }

    void* m_xhNet = nullptr;
    std::atomic<int> m_nClients{0};
};

// The reference: per thread a SO_REUSEPORT listener and an epoll instance, edge-triggered
// clients drained to EAGAIN and written straight back; nothing else.
class MinimalEcho : public EchoServer {
public:
    const char* Name() const override { return "minimal epoll"; }
    const char* Key() const override { return "minimal"; }
    bool Start(int nPort, int nThreads) override {
        m_bRun = true;
        for (int i = 0; i < nThreads; i++) {
            int hListen = ReusePortListener(nPort);
            if (hListen < 0) {
                Stop();
                return false;
            }
            m_stl_Threads.emplace_back(&MinimalEcho::Loop, this, hListen);
        }
        return true;
    }
    void Stop() override {
        m_bRun = false;
        for (auto& st_Thread : m_stl_Threads)
            st_Thread.join();
        m_stl_Threads.clear();
    }
    int Clients() override { return m_nClients.load(); }

private:
    void Loop(int hListen) {
        int hEpoll = epoll_create1(0);
        epoll_event st_Event{};
        st_Event.events = EPOLLIN;
        st_Event.data.fd = hListen;
        epoll_ctl(hEpoll, EPOLL_CTL_ADD, hListen, &st_Event);
        std::vector<epoll_event> stl_Events(1024);
        char tszBuffer[8192];
        while (m_bRun) {
            int nCount = epoll_wait(hEpoll, stl_Events.data(), static_cast<int>(stl_Events.size()), 20);
            for (int i = 0; i < nCount; i++) {
                int hFd = stl_Events[i].data.fd;
                if (hFd == hListen) {
                    int hClient = accept4(hListen, nullptr, nullptr, SOCK_NONBLOCK);
                    if (hClient < 0) continue;
                    st_Event.events = EPOLLIN | EPOLLET;
                    st_Event.data.fd = hClient;
                    epoll_ctl(hEpoll, EPOLL_CTL_ADD, hClient, &st_Event);
                    m_nClients++;
                    continue;
                }
                for (;;) {
                    ssize_t nRet = recv(hFd, tszBuffer, sizeof(tszBuffer), 0);
                    if (nRet > 0) {
                        WriteAll(hFd, tszBuffer, static_cast<size_t>(nRet));
                        continue;
                    }
                    if (nRet < 0 && errno == EAGAIN) break;
                    epoll_ctl(hEpoll, EPOLL_CTL_DEL, hFd, nullptr);
                    close(hFd);
                    m_nClients--;
                    break;
                }
            }
        }
        close(hEpoll);
        close(hListen);
    }
    static void WriteAll(int hFd, const char* lpszData, size_t nLen) {
        while (nLen > 0) {
            ssize_t nRet = send(hFd, lpszData, nLen, MSG_NOSIGNAL);
            if (nRet > 0) {
                lpszData += nRet;
                nLen -= static_cast<size_t>(nRet);
            } else if (nRet < 0 && errno == EAGAIN) {
                pollfd st_Poll{hFd, POLLOUT, 0};
                poll(&st_Poll, 1, 10);
            } else {
                return;
            }
        }
    }
    std::atomic<bool> m_bRun{false};
    std::atomic<int> m_nClients{0};
    std::vector<std::thread> m_stl_Threads;
};

#ifdef NETCORE_BENCH_HAVE_LIBUV
// libuv's own echo: one loop per server thread, each with its own SO_REUSEPORT listener like the
// minimal server (libuv has no option for it, so the socket is made here and handed over with
// uv_tcp_open), every read written straight back. uv_try_write sends what the socket takes at
// once; only a remainder is copied into a queued uv_write. Stop wakes each loop with a uv_async
// that closes every handle, so uv_run returns by itself.
class LibuvEcho : public EchoServer {
public:
    const char* Name() const override { return "libuv"; }
    const char* Key() const override { return "libuv"; }
    bool Start(int nPort, int nThreads) override {
        for (int i = 0; i < nThreads; i++) {
            m_stl_Loops.push_back(std::make_unique<Loop>());
            Loop& st_Loop = *m_stl_Loops.back();
            st_Loop.pSt_Owner = this;
            if (uv_loop_init(&st_Loop.st_Loop) != 0) {
                m_stl_Loops.pop_back();
                Stop();
                return false;
            }
            st_Loop.st_Loop.data = &st_Loop;
            uv_tcp_init(&st_Loop.st_Loop, &st_Loop.st_Listen);
            uv_async_init(&st_Loop.st_Loop, &st_Loop.st_Wake, OnWake);
            int hListen = ReusePortListener(nPort);
            const bool bOpened = hListen >= 0 && uv_tcp_open(&st_Loop.st_Listen, hListen) == 0;
            if (!bOpened && hListen >= 0) close(hListen);  // once opened, closing the handle closes it
            if (!bOpened || uv_listen(reinterpret_cast<uv_stream_t*>(&st_Loop.st_Listen), 128, OnConnection) != 0) {
                // nothing runs on this loop yet: close its handles here and let it finish them
                uv_walk(&st_Loop.st_Loop, CloseHandle, nullptr);
                uv_run(&st_Loop.st_Loop, UV_RUN_DEFAULT);
                uv_loop_close(&st_Loop.st_Loop);
                m_stl_Loops.pop_back();
                Stop();
                return false;
            }
            st_Loop.st_Thread = std::thread([&st_Loop] { uv_run(&st_Loop.st_Loop, UV_RUN_DEFAULT); });
        }
        return true;
    }
    void Stop() override {
        for (auto& pSt_Loop : m_stl_Loops) {
            uv_async_send(&pSt_Loop->st_Wake);
            pSt_Loop->st_Thread.join();
            if (uv_loop_close(&pSt_Loop->st_Loop) != 0) fprintf(stderr, "libuv: loop closed with handles left open\n");
        }
        m_stl_Loops.clear();
        m_nClients = 0;
    }
    int Clients() override { return m_nClients.load(); }

private:
    struct Loop {
        LibuvEcho* pSt_Owner = nullptr;
        uv_loop_t st_Loop{};
        uv_tcp_t st_Listen{};
        uv_async_t st_Wake{};
        std::thread st_Thread;
        char tszBuffer[65536];  // each read is consumed before the loop's next allocation
    };
    struct PendingWrite {
        uv_write_t st_Request;
        char tszData[1];  // the remainder, allocated past the end of the struct
    };

    static Loop* Self(uv_handle_t* pSt_Handle) { return static_cast<Loop*>(pSt_Handle->loop->data); }

    static void OnWake(uv_async_t* pSt_Async) { uv_walk(pSt_Async->loop, CloseHandle, nullptr); }
    static void CloseHandle(uv_handle_t* pSt_Handle, void*) {
        if (uv_is_closing(pSt_Handle)) return;
        Loop* pSt_Loop = Self(pSt_Handle);
        bool bOwned = pSt_Handle == reinterpret_cast<uv_handle_t*>(&pSt_Loop->st_Listen) ||
                      pSt_Handle == reinterpret_cast<uv_handle_t*>(&pSt_Loop->st_Wake);
        uv_close(pSt_Handle, bOwned ? nullptr : OnClientClosed);
    }
    static void OnClientClosed(uv_handle_t* pSt_Handle) {
        Self(pSt_Handle)->pSt_Owner->m_nClients--;
        delete reinterpret_cast<uv_tcp_t*>(pSt_Handle);
    }
    static void OnConnection(uv_stream_t* pSt_Listen, int nStatus) {
        if (nStatus < 0) return;
        auto* pSt_Client = new uv_tcp_t;
        uv_tcp_init(pSt_Listen->loop, pSt_Client);
        Self(reinterpret_cast<uv_handle_t*>(pSt_Listen))->pSt_Owner->m_nClients++;
        auto* pSt_Stream = reinterpret_cast<uv_stream_t*>(pSt_Client);
        if (uv_accept(pSt_Listen, pSt_Stream) != 0 || uv_read_start(pSt_Stream, OnAlloc, OnRead) != 0)
            uv_close(reinterpret_cast<uv_handle_t*>(pSt_Client), OnClientClosed);
    }
    static void OnAlloc(uv_handle_t* pSt_Handle, size_t, uv_buf_t* pSt_Buf) {
        Loop* pSt_Loop = Self(pSt_Handle);
        *pSt_Buf = uv_buf_init(pSt_Loop->tszBuffer, sizeof(pSt_Loop->tszBuffer));
    }
    static void OnRead(uv_stream_t* pSt_Stream, ssize_t nRead, const uv_buf_t* pSt_Buf) {
        if (nRead < 0) {
            uv_close(reinterpret_cast<uv_handle_t*>(pSt_Stream), OnClientClosed);
            return;
        }
        if (nRead == 0) return;
        uv_buf_t st_Buf = uv_buf_init(pSt_Buf->base, static_cast<unsigned int>(nRead));
        int nSent = uv_try_write(pSt_Stream, &st_Buf, 1);
        if (nSent == nRead) return;
        if (nSent < 0 && nSent != UV_EAGAIN) {
            uv_close(reinterpret_cast<uv_handle_t*>(pSt_Stream), OnClientClosed);
            return;
        }
        size_t nDone = nSent > 0 ? static_cast<size_t>(nSent) : 0;
        size_t nLeft = static_cast<size_t>(nRead) - nDone;
        auto* pSt_Write = static_cast<PendingWrite*>(malloc(sizeof(PendingWrite) + nLeft));
        memcpy(pSt_Write->tszData, pSt_Buf->base + nDone, nLeft);
        uv_buf_t st_Left = uv_buf_init(pSt_Write->tszData, static_cast<unsigned int>(nLeft));
        if (uv_write(&pSt_Write->st_Request, pSt_Stream, &st_Left, 1, OnWritten) != 0) free(pSt_Write);
    }
    // a failed write needs nothing here: the read side sees the error and closes the client
    static void OnWritten(uv_write_t* pSt_Request, int) { free(pSt_Request); }

    std::vector<std::unique_ptr<Loop>> m_stl_Loops;
    std::atomic<int> m_nClients{0};
};
#endif

#ifdef NETCORE_BENCH_HAVE_ASIO
// Asio's echo as its examples write it: each session reads some bytes and writes them back whole
// before it reads again. Per server thread an io_context run by that thread alone (concurrency
// hint 1, so Asio leaves out its locking) with its own SO_REUSEPORT acceptor, like the minimal
// server. Stop ends the loops; destroying an io_context frees the sessions its handlers hold.
class AsioEcho : public EchoServer {
public:
    const char* Name() const override { return "Asio"; }
    const char* Key() const override { return "asio"; }
    bool Start(int nPort, int nThreads) override {
        try {
            for (int i = 0; i < nThreads; i++) {
                auto pSt_Loop = std::make_unique<Loop>();
                asio::ip::tcp::endpoint st_Endpoint(asio::ip::tcp::v4(), static_cast<unsigned short>(nPort));
                pSt_Loop->st_Acceptor.open(st_Endpoint.protocol());
                pSt_Loop->st_Acceptor.set_option(asio::socket_base::reuse_address(true));
                pSt_Loop->st_Acceptor.set_option(asio::detail::socket_option::boolean<SOL_SOCKET, SO_REUSEPORT>(true));
                pSt_Loop->st_Acceptor.bind(st_Endpoint);
                pSt_Loop->st_Acceptor.listen(128);
                m_stl_Loops.push_back(std::move(pSt_Loop));
            }
        } catch (const std::exception&) {
            m_stl_Loops.clear();
            return false;
        }
        for (auto& pSt_Loop : m_stl_Loops) {
            Accept(*pSt_Loop);
            pSt_Loop->st_Thread = std::thread([pSt_Run = pSt_Loop.get()] { pSt_Run->st_Context.run(); });
        }
        return true;
    }
    void Stop() override {
        for (auto& pSt_Loop : m_stl_Loops)
            pSt_Loop->st_Context.stop();
        for (auto& pSt_Loop : m_stl_Loops)
            pSt_Loop->st_Thread.join();
        m_stl_Loops.clear();
        m_nClients = 0;
    }
    int Clients() override { return m_nClients.load(); }

private:
    struct Loop {
        asio::io_context st_Context{1};  // declared first: outlives the acceptor and the sessions
        asio::ip::tcp::acceptor st_Acceptor{st_Context};
        std::thread st_Thread;
    };
    class Session : public std::enable_shared_from_this<Session> {
    public:
        Session(asio::ip::tcp::socket st_Socket, std::atomic<int>* pInt_Clients)
            : m_st_Socket(std::move(st_Socket)), m_pInt_Clients(pInt_Clients) {
            (*m_pInt_Clients)++;
        }
        ~Session() { (*m_pInt_Clients)--; }
        void Read() {
            auto pSt_Self = shared_from_this();
            m_st_Socket.async_read_some(asio::buffer(m_tszData),
                                        [this, pSt_Self](std::error_code st_Error, size_t nRead) {
                                            if (st_Error) return;
                                            asio::async_write(m_st_Socket, asio::buffer(m_tszData, nRead),
                                                              [this, pSt_Self](std::error_code st_WriteError, size_t) {
                                                                  if (!st_WriteError) Read();
                                                              });
                                        });
        }

    private:
        asio::ip::tcp::socket m_st_Socket;
        std::atomic<int>* m_pInt_Clients;
        char m_tszData[8192];
    };
    void Accept(Loop& st_Loop) {
        st_Loop.st_Acceptor.async_accept([this, &st_Loop](std::error_code st_Error, asio::ip::tcp::socket st_Socket) {
            if (!st_Error) std::make_shared<Session>(std::move(st_Socket), &m_nClients)->Read();
            if (st_Error != asio::error::operation_aborted) Accept(st_Loop);
        });
    }

    std::vector<std::unique_ptr<Loop>> m_stl_Loops;
    std::atomic<int> m_nClients{0};
};
#endif

// ----- the load generator ------------------------------------------------------------------------

struct Connection {
    int hSocket = -1;
    long long nPending = 0;                   // bytes of echoes still owed
    std::vector<Clock::time_point> stl_Sent;  // send time of each message in flight, oldest first
    size_t nHead = 0;
};

struct Result {
    double dMessages = 0;       // per second
    double dMBytes = 0;         // per second, each way
    double dP50 = 0, dP99 = 0;  // microseconds
    double dCpu = 0;            // server CPU microseconds per echoed message (filled by the parent)
    long long nMessages = 0;    // echoed in the measured window
    bool bOk = false;
};

// Connects nConns clients (blocking connects, then non-blocking use). Closes with a reset so that
// no TIME_WAIT state eats the ephemeral ports between runs.
bool ConnectAll(int nPort, int nConns, std::vector<Connection>* pStl_Conns) {
    sockaddr_in st_Addr{};
    st_Addr.sin_family = AF_INET;
    st_Addr.sin_port = htons(static_cast<uint16_t>(nPort));
    st_Addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    pStl_Conns->resize(nConns);
    for (int i = 0; i < nConns; i++) {
        int hSocket = socket(AF_INET, SOCK_STREAM, 0);
        if (hSocket < 0 || connect(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr)) != 0) {
            fprintf(stderr, "connect %d failed: %s\n", i, strerror(errno));
            if (hSocket >= 0) close(hSocket);
            pStl_Conns->resize(i);
            return false;
        }
        int nOne = 1;
        setsockopt(hSocket, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
        linger st_Linger{1, 0};
        setsockopt(hSocket, SOL_SOCKET, SO_LINGER, &st_Linger, sizeof(st_Linger));
        fcntl(hSocket, F_SETFL, fcntl(hSocket, F_GETFL) | O_NONBLOCK);
        (*pStl_Conns)[i].hSocket = hSocket;
    }
    return true;
}

void CloseAll(std::vector<Connection>* pStl_Conns) {
    for (Connection& st_Conn : *pStl_Conns)
        close(st_Conn.hSocket);
    pStl_Conns->clear();
}

bool SendMessage(Connection& st_Conn, const std::string& strMessage) {
    size_t nDone = 0;
    while (nDone < strMessage.size()) {
        ssize_t nRet = send(st_Conn.hSocket, strMessage.data() + nDone, strMessage.size() - nDone, MSG_NOSIGNAL);
        if (nRet > 0) {
            nDone += static_cast<size_t>(nRet);
        } else if (nRet < 0 && errno == EAGAIN) {
            pollfd st_Poll{st_Conn.hSocket, POLLOUT, 0};
            poll(&st_Poll, 1, 10);
        } else {
            return false;
        }
    }
    st_Conn.stl_Sent.push_back(Clock::now());
    st_Conn.nPending += static_cast<long long>(strMessage.size());
    return true;
}

void MarkWindow(int hMarks);

// Drives the connections with nInflight messages each: warm-up, then the measured window of
// dSeconds, whose start and end are marked with one byte each on hMarks.
Result Drive(std::vector<Connection>& stl_Conns, int nSize, int nInflight, double dSeconds, int hMarks) {
    std::string strMessage(static_cast<size_t>(nSize), 'b');
    std::atomic<bool> bMeasure{false}, bStop{false};
    int nClientThreads = 2;
    std::vector<long long> stl_Counts(nClientThreads, 0);
    std::vector<std::vector<uint32_t>> stl_Latencies(nClientThreads);
    std::atomic<bool> bFailed{false};

    auto fnClient = [&](int nIndex) {
        int hEpoll = epoll_create1(0);
        for (size_t i = nIndex; i < stl_Conns.size(); i += nClientThreads) {
            epoll_event st_Event{};
            st_Event.events = EPOLLIN | EPOLLET;
            st_Event.data.u64 = i;
            epoll_ctl(hEpoll, EPOLL_CTL_ADD, stl_Conns[i].hSocket, &st_Event);
            for (int j = 0; j < nInflight; j++)
                SendMessage(stl_Conns[i], strMessage);
        }
        std::vector<epoll_event> stl_Events(1024);
        char tszBuffer[65536];
        while (!bStop) {
            int nCount = epoll_wait(hEpoll, stl_Events.data(), static_cast<int>(stl_Events.size()), 10);
            for (int k = 0; k < nCount; k++) {
                Connection& st_Conn = stl_Conns[stl_Events[k].data.u64];
                ssize_t nRet;
                long long nGot = 0;
                while ((nRet = recv(st_Conn.hSocket, tszBuffer, sizeof(tszBuffer), 0)) > 0)
                    nGot += nRet;
                if (nRet == 0 || (nRet < 0 && errno != EAGAIN)) {
                    bFailed = true;
                    continue;
                }
                // bytes echoed so far, minus what is owed for messages sent before
                long long nDoneBefore = (st_Conn.nHead * nSize);
                st_Conn.nPending -= nGot;
                long long nEchoed = static_cast<long long>(st_Conn.stl_Sent.size()) * nSize - st_Conn.nPending;
                size_t nComplete = static_cast<size_t>((nEchoed - nDoneBefore) / nSize);
                auto nNow = Clock::now();
                for (size_t m = 0; m < nComplete; m++) {
                    if (bMeasure) {
                        stl_Counts[nIndex]++;
                        auto nMicros = std::chrono::duration_cast<std::chrono::microseconds>(
                            nNow - st_Conn.stl_Sent[st_Conn.nHead]);
                        stl_Latencies[nIndex].push_back(static_cast<uint32_t>(nMicros.count()));
                    }
                    st_Conn.nHead++;
                    if (!bStop) SendMessage(st_Conn, strMessage);
                }
                // keep the timestamp list short
                if (st_Conn.nHead > 1024) {
                    st_Conn.stl_Sent.erase(st_Conn.stl_Sent.begin(), st_Conn.stl_Sent.begin() + st_Conn.nHead);
                    st_Conn.nHead = 0;
                }
            }
        }
        close(hEpoll);
    };

    std::vector<std::thread> stl_Threads;
    for (int i = 0; i < nClientThreads; i++)
        stl_Threads.emplace_back(fnClient, i);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    auto nStart = Clock::now();
    bMeasure = true;
    MarkWindow(hMarks);
    std::this_thread::sleep_for(std::chrono::duration<double>(dSeconds));
    bMeasure = false;
    MarkWindow(hMarks);
    double dElapsed = std::chrono::duration<double>(Clock::now() - nStart).count();
    bStop = true;
    for (auto& st_Thread : stl_Threads)
        st_Thread.join();

    Result st_Result;
    long long nTotal = 0;
    std::vector<uint32_t> stl_All;
    for (int i = 0; i < nClientThreads; i++) {
        nTotal += stl_Counts[i];
        stl_All.insert(stl_All.end(), stl_Latencies[i].begin(), stl_Latencies[i].end());
    }
    st_Result.nMessages = nTotal;
    st_Result.dMessages = nTotal / dElapsed;
    st_Result.dMBytes = nTotal * static_cast<double>(nSize) / dElapsed / 1e6;
    if (!stl_All.empty()) {
        std::sort(stl_All.begin(), stl_All.end());
        st_Result.dP50 = stl_All[stl_All.size() / 2];
        st_Result.dP99 = stl_All[std::min(stl_All.size() - 1, stl_All.size() * 99 / 100)];
    }
    st_Result.bOk = !bFailed && nTotal > 0;
    return st_Result;
}

// ----- the load generator's process ---------------------------------------------------------------

enum class Op : int { Connect, Drive, Close, Quit };

struct Command {
    Op eOp = Op::Quit;
    int nPort = 0;
    int nConns = 0;
    int nSize = 0;
    int nInflight = 1;
    double dSeconds = 1;
};

bool WriteFull(int hFd, const void* lpData, size_t nLen) {
    const char* lpszData = static_cast<const char*>(lpData);
    while (nLen > 0) {
        ssize_t nRet = write(hFd, lpszData, nLen);
        if (nRet < 0 && errno == EINTR) continue;
        if (nRet <= 0) return false;
        lpszData += nRet;
        nLen -= static_cast<size_t>(nRet);
    }
    return true;
}

// Marks a window edge for the parent; see LoadGenerator::Drive.
void MarkWindow(int hMarks) {
    char chMark = 'm';
    WriteFull(hMarks, &chMark, 1);
}

// User + system time of every thread of this process, the ended ones included.
double ProcessCpuSeconds() {
    timespec st_Time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &st_Time);
    return static_cast<double>(st_Time.tv_sec) + static_cast<double>(st_Time.tv_nsec) / 1e9;
}

bool ReadFull(int hFd, void* lpData, size_t nLen) {
    char* lpszData = static_cast<char*>(lpData);
    while (nLen > 0) {
        ssize_t nRet = read(hFd, lpszData, nLen);
        if (nRet < 0 && errno == EINTR) continue;
        if (nRet <= 0) return false;
        lpszData += nRet;
        nLen -= static_cast<size_t>(nRet);
    }
    return true;
}

// The child's side: holds the client sockets between commands and answers each with a Result
// (Connect and Close only fill bOk). Ends on Quit or when the parent goes away.
[[noreturn]] void LoadGeneratorMain(int hCommands, int hReplies) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    // its own name, so that a profile or top tells it from the servers' process
    prctl(PR_SET_NAME, "echo-loadgen");
    std::vector<Connection> stl_Conns;
    Command st_Command;
    while (ReadFull(hCommands, &st_Command, sizeof(st_Command)) && st_Command.eOp != Op::Quit) {
        Result st_Result;
        switch (st_Command.eOp) {
            case Op::Connect:
                stl_Conns.reserve(static_cast<size_t>(st_Command.nConns));
                st_Result.bOk = ConnectAll(st_Command.nPort, st_Command.nConns, &stl_Conns);
                break;
            case Op::Drive:
                st_Result = Drive(stl_Conns, st_Command.nSize, st_Command.nInflight, st_Command.dSeconds, hReplies);
                break;
            case Op::Close:
                CloseAll(&stl_Conns);
                st_Result.bOk = true;
                break;
            case Op::Quit:
                break;
        }
        if (!WriteFull(hReplies, &st_Result, sizeof(st_Result))) break;
    }
    CloseAll(&stl_Conns);
    _exit(0);
}

// The parent's handle on the child. A child that stops answering ends the benchmark: every figure
// after it would be meaningless.
class LoadGenerator {
public:
    // Call before any server or thread exists: the child then starts from a single thread.
    bool Spawn() {
        int thCommands[2], thReplies[2];
        if (pipe2(thCommands, O_CLOEXEC) != 0 || pipe2(thReplies, O_CLOEXEC) != 0) return false;
        fflush(nullptr);
        m_nPid = fork();
        if (m_nPid < 0) return false;
        if (m_nPid == 0) {
            close(thCommands[1]);
            close(thReplies[0]);
            LoadGeneratorMain(thCommands[0], thReplies[1]);
        }
        close(thCommands[0]);
        close(thReplies[1]);
        m_hCommands = thCommands[1];
        m_hReplies = thReplies[0];
        return true;
    }
    bool Connect(int nPort, int nConns) { return Ask({Op::Connect, nPort, nConns, 0}).bOk; }
    // The server's CPU time is read at the child's two window marks.
    Result Drive(int nSize, int nInflight, double dSeconds) {
        Command st_Command{Op::Drive, 0, 0, nSize, nInflight, dSeconds};
        char chMark[2];
        if (!WriteFull(m_hCommands, &st_Command, sizeof(st_Command)) || !ReadFull(m_hReplies, &chMark[0], 1)) Lost();
        double dCpuStart = ProcessCpuSeconds();
        if (!ReadFull(m_hReplies, &chMark[1], 1)) Lost();
        double dCpu = ProcessCpuSeconds() - dCpuStart;
        Result st_Result;
        if (!ReadFull(m_hReplies, &st_Result, sizeof(st_Result))) Lost();
        if (st_Result.nMessages > 0) st_Result.dCpu = dCpu * 1e6 / static_cast<double>(st_Result.nMessages);
        return st_Result;
    }
    void CloseAll() { Ask({Op::Close, 0, 0, 0}); }
    void Quit() {
        if (m_nPid <= 0) return;
        Command st_Command;
        WriteFull(m_hCommands, &st_Command, sizeof(st_Command));
        close(m_hCommands);
        close(m_hReplies);
        waitpid(m_nPid, nullptr, 0);
        m_nPid = -1;
    }

private:
    Result Ask(const Command& st_Command) {
        Result st_Result;
        if (!WriteFull(m_hCommands, &st_Command, sizeof(st_Command)) ||
            !ReadFull(m_hReplies, &st_Result, sizeof(st_Result))) {
            Lost();
        }
        return st_Result;
    }
    [[noreturn]] void Lost() {
        int nStatus = 0;
        waitpid(m_nPid, &nStatus, 0);
        fprintf(stderr, "the load generator process ended (status 0x%x); stopping\n", nStatus);
        exit(1);
    }
    pid_t m_nPid = -1;
    int m_hCommands = -1;
    int m_hReplies = -1;
};

// ----- the runs ----------------------------------------------------------------------------------

bool WaitClients(EchoServer& st_Server, int nCount) {
    auto nDeadline = Clock::now() + std::chrono::seconds(20);
    while (st_Server.Clients() != nCount) {
        if (Clock::now() > nDeadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

bool StartOnFreePort(EchoServer& st_Server, const Options& st_Options, int* pInt_Port) {
    for (int i = 0; i < 5; i++) {
        if (st_Server.Start(*pInt_Port = FreePort(), st_Options.nThreads)) return true;
    }
    return false;
}

Result RunOnce(LoadGenerator& st_Load, EchoServer& st_Server, int nConns, int nSize, int nInflight,
               const Options& st_Options) {
    Result st_Result;
    int nPort = 0;
    if (!StartOnFreePort(st_Server, st_Options, &nPort)) return st_Result;
    if (st_Load.Connect(nPort, nConns) && WaitClients(st_Server, nConns)) {
        st_Result = st_Load.Drive(nSize, nInflight, st_Options.dSeconds);
    }
    st_Load.CloseAll();
    WaitClients(st_Server, 0);
    st_Server.Stop();
    return st_Result;
}

Result Median(std::vector<Result> stl_Results) {
    auto fnMedian = [&](double Result::*pField) {
        std::vector<double> stl_Values;
        for (const Result& st_Result : stl_Results)
            stl_Values.push_back(st_Result.*pField);
        std::sort(stl_Values.begin(), stl_Values.end());
        return stl_Values[stl_Values.size() / 2];
    };
    Result st_Median;
    st_Median.dMessages = fnMedian(&Result::dMessages);
    st_Median.dMBytes = fnMedian(&Result::dMBytes);
    st_Median.dP50 = fnMedian(&Result::dP50);
    st_Median.dP99 = fnMedian(&Result::dP99);
    st_Median.dCpu = fnMedian(&Result::dCpu);
    st_Median.bOk = std::all_of(stl_Results.begin(), stl_Results.end(), [](const Result& r) { return r.bOk; });
    return st_Median;
}

size_t HeapInUse() {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 33))
    return mallinfo2().uordblks;
#else
    return 0;
#endif
}

// Heap bytes per idle connection held by the server. The client ends live in the other process,
// so everything this process's heap gained while they connected is the server's.
void MeasureIdleMemory(LoadGenerator& st_Load, EchoServer& st_Server, int nConns, const Options& st_Options) {
    int nPort = 0;
    if (!StartOnFreePort(st_Server, st_Options, &nPort)) return;
    size_t nBefore = HeapInUse();
    if (st_Load.Connect(nPort, nConns) && WaitClients(st_Server, nConns)) {
        size_t nAfter = HeapInUse();
        double dPerConn = (static_cast<double>(nAfter) - static_cast<double>(nBefore)) / nConns;
        printf("  %-18s %6d idle connections: %7.0f heap bytes each\n", st_Server.Name(), nConns, dPerConn);
    } else {
        printf("  %-18s %6d idle connections: failed to connect them all\n", st_Server.Name(), nConns);
    }
    st_Load.CloseAll();
    WaitClients(st_Server, 0);
    st_Server.Stop();
}

}  // namespace

int main(int argc, char** argv) {
    Options st_Options;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string strFlag = argv[i];
        if (strFlag == "--seconds") st_Options.dSeconds = atof(argv[i + 1]);
        if (strFlag == "--repeat") st_Options.nRepeat = std::max(1, atoi(argv[i + 1]));
        if (strFlag == "--inflight") st_Options.stl_Inflight = ParseList(argv[i + 1]);
        if (strFlag == "--threads") st_Options.nThreads = std::max(1, atoi(argv[i + 1]));
        if (strFlag == "--conns") st_Options.stl_Conns = ParseList(argv[i + 1]);
        if (strFlag == "--sizes") st_Options.stl_Sizes = ParseList(argv[i + 1]);
        if (strFlag == "--servers") st_Options.stl_Servers = ParseNames(argv[i + 1]);
    }
    for (int& nInflight : st_Options.stl_Inflight)
        nInflight = std::max(1, nInflight);
    // a write to a client the load generator has reset must not kill the server process
    signal(SIGPIPE, SIG_IGN);
    // Each process holds one end of every connection. A privileged run may raise the hard limit
    // too; otherwise take what the hard limit allows. The child inherits the limit.
    rlimit st_Limit{};
    getrlimit(RLIMIT_NOFILE, &st_Limit);
    rlimit st_Wanted{65536, std::max<rlim_t>(65536, st_Limit.rlim_max)};
    if (setrlimit(RLIMIT_NOFILE, &st_Wanted) != 0) {
        st_Limit.rlim_cur = st_Limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &st_Limit);
    }
    getrlimit(RLIMIT_NOFILE, &st_Limit);
    int nMaxConns = static_cast<int>(std::min<rlim_t>(st_Limit.rlim_cur, 1 << 20)) - 64;

    LoadGenerator st_Load;
    if (!st_Load.Spawn()) {
        fprintf(stderr, "cannot start the load generator process: %s\n", strerror(errno));
        return 1;
    }

    MinimalEcho st_Minimal;
    NetCoreEcho st_NetCore;
    std::vector<EchoServer*> stl_Available{&st_Minimal, &st_NetCore};
#ifdef NETCORE_BENCH_HAVE_LIBUV
    LibuvEcho st_Libuv;
    stl_Available.push_back(&st_Libuv);
#endif
#ifdef NETCORE_BENCH_HAVE_ASIO
    AsioEcho st_Asio;
    stl_Available.push_back(&st_Asio);
#endif
    // in the order given above, the minimal reference first
    std::vector<EchoServer*> stl_Servers;
    for (EchoServer* pSt_Server : stl_Available) {
        if (std::find(st_Options.stl_Servers.begin(), st_Options.stl_Servers.end(), pSt_Server->Key()) !=
            st_Options.stl_Servers.end()) {
            stl_Servers.push_back(pSt_Server);
        }
    }
    const bool bHaveMinimal = !stl_Servers.empty() && stl_Servers[0] == &st_Minimal;
    printf(
        "echo benchmark on 127.0.0.1: %d server threads, 2 client threads in a separate process, %.1f s x %d "
        "(median)\n",
        st_Options.nThreads, st_Options.dSeconds, st_Options.nRepeat);
#ifdef NETCORE_BENCH_HAVE_LIBUV
    printf("libuv %s: one loop per server thread\n", uv_version_string());
#else
    printf("libuv server not built: libuv was not found when the benchmark was configured\n");
#endif
#ifdef NETCORE_BENCH_HAVE_ASIO
    printf("Asio %d.%d.%d: one io_context per server thread\n", ASIO_VERSION / 100000, ASIO_VERSION / 100 % 1000,
           ASIO_VERSION % 100);
#else
    printf("Asio server not built: the Asio headers were not found when the benchmark was configured\n");
#endif
    printf("cpu = server process user+system time in the measured window per echoed message\n");
    printf("%-6s %-5s %-5s %-17s %10s %8s %7s %7s %8s | %-17s | %s\n", "conns", "size", "infl", "server", "msgs/s",
           "MB/s", "p50 us", "p99 us", "cpu us", "/minimal msgs p50 p99", "cpu/best peer");
    for (int nConns : st_Options.stl_Conns) {
        if (nConns > nMaxConns) {
            printf("%-6d skipped: needs %d descriptors per process, the limit allows %d connections\n", nConns,
                   nConns + 64, nMaxConns);
            continue;
        }
        for (int nSize : st_Options.stl_Sizes) {
            for (int nInflight : st_Options.stl_Inflight) {
                std::vector<std::vector<Result>> stl_Results(stl_Servers.size());
                for (int r = 0; r < st_Options.nRepeat; r++) {
                    for (size_t s = 0; s < stl_Servers.size(); s++) {
                        stl_Results[s].push_back(
                            RunOnce(st_Load, *stl_Servers[s], nConns, nSize, nInflight, st_Options));
                    }
                }
                std::vector<Result> stl_Medians;
                for (const std::vector<Result>& stl_Runs : stl_Results)
                    stl_Medians.push_back(Median(stl_Runs));
                for (size_t s = 0; s < stl_Servers.size(); s++) {
                    const Result& st_Median = stl_Medians[s];
                    printf("%-6d %-5d %-5d %-17s %10.0f %8.2f %7.0f %7.0f %8.2f |", nConns, nSize, nInflight,
                           stl_Servers[s]->Name(), st_Median.dMessages, st_Median.dMBytes, st_Median.dP50,
                           st_Median.dP99, st_Median.dCpu);
                    const Result& st_Ref = stl_Medians[0];
                    if (bHaveMinimal && s > 0 && st_Ref.dMessages > 0 && st_Ref.dP50 > 0 && st_Ref.dP99 > 0) {
                        printf(" %5.3f %5.3f %5.3f |", st_Median.dMessages / st_Ref.dMessages,
                               st_Median.dP50 / st_Ref.dP50, st_Median.dP99 / st_Ref.dP99);
                    } else {
                        printf(" %17s |", "");
                    }
                    // the best peer: the leanest other server, the minimal reference aside
                    double dBest = 0;
                    const char* lpszBest = nullptr;
                    for (size_t p = bHaveMinimal ? 1 : 0; p < stl_Servers.size(); p++) {
                        if (p == s || stl_Medians[p].dCpu <= 0) continue;
                        if (lpszBest == nullptr || stl_Medians[p].dCpu < dBest) {
                            dBest = stl_Medians[p].dCpu;
                            lpszBest = stl_Servers[p]->Name();
                        }
                    }
                    if (lpszBest != nullptr && st_Median.dCpu > 0)
                        printf(" %5.3f (%s)", st_Median.dCpu / dBest, lpszBest);
                    printf("%s\n", st_Median.bOk ? "" : "   (errors)");
                    fflush(stdout);
                }
            }
        }
    }
    printf("memory per idle connection (server process heap in use, user space only)\n");
    for (int nConns : {1000, 10000}) {
        if (nConns > nMaxConns) continue;
        for (EchoServer* pSt_Server : stl_Servers)
            MeasureIdleMemory(st_Load, *pSt_Server, nConns, st_Options);
    }
    st_Load.Quit();
    return 0;
}
