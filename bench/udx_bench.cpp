// UDX beside ENet's reliable channel, doing the same work in the same run on loopback:
//   - round-trip latency of one message at a time (median and 99th percentile),
//   - messages per second with 64 messages in flight, echoed back (both directions counted),
//   - the server's processor time (user + system) per message over the same window,
//   at 64 and 1024 bytes, and
//   - the time to deliver and echo 2000 messages through a lossy relay (1% loss, duplicates,
//     reordering, fixed seed) with 32 in flight.
// Each server runs in a child process forked for the round, so its processor time is its own:
// the UDX side is an endpoint whose application thread echoes what it fetches, the ENet side a
// server host echoing on its service thread. The clients (a peer of tools/udxpeer, an ENet
// client host) and the relay run in the parent.
// ENet is loaded at run time (Debian's libenet-dev), so the benchmark builds without it and then
// reports it as missing.
//
// Usage: udx_bench [rounds] [--sizes 64,1024] [--udx-only] [--no-relay]
//        (3 rounds by default; each figure is the median of the rounds)
#include <dlfcn.h>
#include <enet/enet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "../tools/udxpeer/LossyRelay.h"
#include "../tools/udxpeer/UDXPeer.h"
#include "Ombrelt_NetCore.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

int FreePort() {
    int hSocket = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in st_Addr{};
    st_Addr.sin_family = AF_INET;
    bind(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), sizeof(st_Addr));
    socklen_t nLen = sizeof(st_Addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&st_Addr), &nLen);
    close(hSocket);
    return ntohs(st_Addr.sin_port);
}

double Median(std::vector<double> stl_Values) {
    if (stl_Values.empty()) return 0;
    std::sort(stl_Values.begin(), stl_Values.end());
    return stl_Values[stl_Values.size() / 2];
}

double Percentile(std::vector<double> stl_Values, double dShare) {
    if (stl_Values.empty()) return 0;
    std::sort(stl_Values.begin(), stl_Values.end());
    return stl_Values[std::min(stl_Values.size() - 1, static_cast<size_t>(dShare * stl_Values.size()))];
}

bool ReadAll(int hFd, void* pData, size_t nLen) {
    char* p = static_cast<char*>(pData);
    while (nLen > 0) {
        ssize_t n = read(hFd, p, nLen);
        if (n <= 0) return false;
        p += n;
        nLen -= static_cast<size_t>(n);
    }
    return true;
}

bool WriteAll(int hFd, const void* pData, size_t nLen) {
    const char* p = static_cast<const char*>(pData);
    while (nLen > 0) {
        ssize_t n = write(hFd, p, nLen);
        if (n <= 0) return false;
        p += n;
        nLen -= static_cast<size_t>(n);
    }
    return true;
}

// What a server does in its child process: start on a port, learn the client's address text
// (the UDX application fetches by it), stop.
struct ServerBody {
    std::function<bool(int nPort)> fnStart;
    std::function<void(const std::string& strPeer)> fnPeer;
    std::function<void()> fnStop;
};

// A server in a forked child, driven through two pipes. The child's main thread only answers
// the parent; the server's own threads do the work.
class ServerProcess {
public:
    ~ServerProcess() { Stop(); }

    bool Start(const ServerBody& st_Body, int nPort) {
        int hDown[2], hUp[2];
        if (pipe(hDown) != 0) return false;
        if (pipe(hUp) != 0) {
            close(hDown[0]);
            close(hDown[1]);
            return false;
        }
        fflush(stdout);
        m_nPid = fork();
        if (m_nPid == 0) {
            close(hDown[1]);
            close(hUp[0]);
            Serve(st_Body, nPort, hDown[0], hUp[1]);
        }
        close(hDown[0]);
        close(hUp[1]);
        m_hDown = hDown[1];
        m_hUp = hUp[0];
        char cReady = 0;
        return m_nPid > 0 && ReadAll(m_hUp, &cReady, 1) && cReady == 1;
    }

    void SetPeer(const std::string& strPeer) { Command('P', strPeer); }

    // The child's user + system time so far, in seconds.
    double CpuSeconds() {
        double dSeconds = 0;
        if (!Command('C', std::string()) || !ReadAll(m_hUp, &dSeconds, sizeof(dSeconds))) return 0;
        return dSeconds;
    }

    void Stop() {
        if (m_nPid <= 0) return;
        close(m_hDown);  // end of file: the child stops its server and leaves
        close(m_hUp);
        waitpid(m_nPid, nullptr, 0);
        m_nPid = -1;
    }

private:
    struct Request {
        char cCommand;
        char tszText[63];
    };

    bool Command(char cCommand, const std::string& strText) {
        Request st_Request{};
        st_Request.cCommand = cCommand;
        snprintf(st_Request.tszText, sizeof(st_Request.tszText), "%s", strText.c_str());
        return m_nPid > 0 && WriteAll(m_hDown, &st_Request, sizeof(st_Request));
    }

    [[noreturn]] static void Serve(const ServerBody& st_Body, int nPort, int hDown, int hUp) {
        char cReady = st_Body.fnStart(nPort) ? 1 : 0;
        WriteAll(hUp, &cReady, 1);
        Request st_Request;
        while (cReady == 1 && ReadAll(hDown, &st_Request, sizeof(st_Request))) {
            if (st_Request.cCommand == 'P') {
                st_Request.tszText[sizeof(st_Request.tszText) - 1] = '\0';
                st_Body.fnPeer(st_Request.tszText);
            } else if (st_Request.cCommand == 'C') {
                struct rusage st_Usage {};
                getrusage(RUSAGE_SELF, &st_Usage);
                double dSeconds = static_cast<double>(st_Usage.ru_utime.tv_sec + st_Usage.ru_stime.tv_sec) +
                                  static_cast<double>(st_Usage.ru_utime.tv_usec + st_Usage.ru_stime.tv_usec) / 1e6;
                WriteAll(hUp, &dSeconds, sizeof(dSeconds));
            }
        }
        st_Body.fnStop();
        _exit(0);
    }

    pid_t m_nPid = -1;
    int m_hDown = -1;
    int m_hUp = -1;
};

// One echo server in a child process and a client in this one that talks to it, whatever the
// transport.
class Transport {
public:
    virtual ~Transport() = default;
    // Starts the server and the client; through the relay when asked.
    virtual bool Start(bool bThroughRelay) = 0;
    virtual void Send(const std::string& strMsg) = 0;
    virtual bool Recv(std::string* pStr_Msg, std::chrono::milliseconds timeout) = 0;
    virtual void Stop() = 0;
    double ServerCpuSeconds() { return m_Server.CpuSeconds(); }
    udxpeer::RelayStats RelayStats() const { return m_Relay.Stats(); }

protected:
    ServerProcess m_Server;
    udxpeer::LossyRelay m_Relay;
};

// ---------------------------------------------------------------------------------------------
// UDX: endpoint (child) + peer (parent)

// The endpoint's application: it fetches and echoes. UDX has no arrival callback, so the
// application polls; after a short spin it pauses between polls instead of burning a core.
class UDXEchoServer {
public:
    bool Start(int nPort) {
        tag_NetCore_UDXConfig st_Config{};
        st_Config.bOrder = true;
        st_Config.bReliable = true;
        m_xhUDX = NetCore_UDXSocket_InitEx(&st_Config, nPort, 1);
        return m_xhUDX != nullptr;
    }
    void Peer(const std::string& strPeer) {
        if (m_Echo.joinable()) return;
        m_strPeer = strPeer;
        m_bRun = true;
        m_Echo = std::thread([this] {
            char tszBuffer[2048];
            int nLen = 0;
            bool bIdle = false;
            Clock::time_point tIdle;
            while (m_bRun) {
                if (NetCore_UDXSocket_RecvEx(m_xhUDX, m_strPeer.c_str(), tszBuffer, &nLen)) {
                    NetCore_UDXSocket_SendEx(m_xhUDX, m_strPeer.c_str(), tszBuffer, nLen);
                    bIdle = false;
                    continue;
                }
                Clock::time_point tNow = Clock::now();
                if (!bIdle) {
                    bIdle = true;
                    tIdle = tNow;
                }
                if (tNow - tIdle < kSpin) {
                    std::this_thread::yield();
                } else {
                    std::this_thread::sleep_for(kPause);
                }
            }
        });
    }
    void Stop() {
        m_bRun = false;
        if (m_Echo.joinable()) m_Echo.join();
        if (m_xhUDX != nullptr) NetCore_UDXSocket_DestroyEx(m_xhUDX);
        m_xhUDX = nullptr;
    }

private:
    static constexpr std::chrono::microseconds kSpin{100};
    static constexpr std::chrono::microseconds kPause{50};

    void* m_xhUDX = nullptr;
    std::string m_strPeer;
    std::atomic<bool> m_bRun{false};
    std::thread m_Echo;
};

class UDXTransport : public Transport {
public:
    bool Start(bool bThroughRelay) override {
        const int nPort = FreePort();
        ServerBody st_Body;
        st_Body.fnStart = [this](int nServerPort) { return m_Echo.Start(nServerPort); };
        st_Body.fnPeer = [this](const std::string& strPeer) { m_Echo.Peer(strPeer); };
        st_Body.fnStop = [this] { m_Echo.Stop(); };
        if (!m_Server.Start(st_Body, nPort)) return false;
        int nTarget = nPort;
        if (bThroughRelay) {
            if (!m_Relay.Start(nPort)) return false;
            nTarget = m_Relay.Port();
        }
        // the client serves its socket on the calling thread, as ENet's client host does
        udxpeer::Options st_Options;
        st_Options.bOwnThread = false;
        if (!m_Peer.Open(nTarget, st_Options) || !m_Peer.Connect(10s)) return false;
        m_Server.SetPeer(bThroughRelay ? m_Relay.Addr() : m_Peer.LocalAddr());
        return true;
    }
    void Send(const std::string& strMsg) override { m_Peer.Send(strMsg); }
    bool Recv(std::string* pStr_Msg, std::chrono::milliseconds timeout) override {
        return m_Peer.Recv(pStr_Msg, timeout);
    }
    void Stop() override {
        m_Server.Stop();
        m_Peer.Stop();
        m_Relay.Stop();
    }

private:
    UDXEchoServer m_Echo;  // lives in the child
    udxpeer::Peer m_Peer;
};

// ---------------------------------------------------------------------------------------------
// ENet, loaded at run time

struct EnetApi {
    decltype(&enet_initialize) initialize = nullptr;
    decltype(&enet_host_create) host_create = nullptr;
    decltype(&enet_host_destroy) host_destroy = nullptr;
    decltype(&enet_host_connect) host_connect = nullptr;
    decltype(&enet_host_service) host_service = nullptr;
    decltype(&enet_host_flush) host_flush = nullptr;
    decltype(&enet_packet_create) packet_create = nullptr;
    decltype(&enet_packet_destroy) packet_destroy = nullptr;
    decltype(&enet_peer_send) peer_send = nullptr;
    decltype(&enet_address_set_host) address_set_host = nullptr;

    bool Load() {
        void* hLib = dlopen("libenet.so.7", RTLD_NOW);
        if (hLib == nullptr) hLib = dlopen("libenet.so", RTLD_NOW);
        if (hLib == nullptr) return false;
        auto Get = [hLib](auto& fnTarget, const char* lpszName) {
            fnTarget = reinterpret_cast<std::remove_reference_t<decltype(fnTarget)>>(dlsym(hLib, lpszName));
            return fnTarget != nullptr;
        };
        return Get(initialize, "enet_initialize") && Get(host_create, "enet_host_create") &&
               Get(host_destroy, "enet_host_destroy") && Get(host_connect, "enet_host_connect") &&
               Get(host_service, "enet_host_service") && Get(host_flush, "enet_host_flush") &&
               Get(packet_create, "enet_packet_create") && Get(packet_destroy, "enet_packet_destroy") &&
               Get(peer_send, "enet_peer_send") && Get(address_set_host, "enet_address_set_host") && initialize() == 0;
    }
};

EnetApi g_Enet;

// The ENet server: a host echoing on its service thread.
class EnetEchoServer {
public:
    bool Start(int nPort) {
        ENetAddress st_Addr{};
        st_Addr.host = ENET_HOST_ANY;
        st_Addr.port = static_cast<enet_uint16>(nPort);
        m_pServer = g_Enet.host_create(&st_Addr, 4, 1, 0, 0);
        if (m_pServer == nullptr) return false;
        m_bRun = true;
        m_Service = std::thread([this] {
            ENetEvent st_Event;
            while (m_bRun) {
                if (g_Enet.host_service(m_pServer, &st_Event, 1) <= 0) continue;
                if (st_Event.type == ENET_EVENT_TYPE_RECEIVE) {
                    ENetPacket* pEcho = g_Enet.packet_create(st_Event.packet->data, st_Event.packet->dataLength,
                                                             ENET_PACKET_FLAG_RELIABLE);
                    g_Enet.peer_send(st_Event.peer, 0, pEcho);
                    g_Enet.packet_destroy(st_Event.packet);
                    g_Enet.host_flush(m_pServer);
                }
            }
        });
        return true;
    }
    void Stop() {
        m_bRun = false;
        if (m_Service.joinable()) m_Service.join();
        if (m_pServer != nullptr) g_Enet.host_destroy(m_pServer);
        m_pServer = nullptr;
    }

private:
    ENetHost* m_pServer = nullptr;
    std::atomic<bool> m_bRun{false};
    std::thread m_Service;
};

class EnetTransport : public Transport {
public:
    bool Start(bool bThroughRelay) override {
        const int nPort = FreePort();
        ServerBody st_Body;
        st_Body.fnStart = [this](int nServerPort) { return m_Echo.Start(nServerPort); };
        st_Body.fnPeer = [](const std::string&) {};
        st_Body.fnStop = [this] { m_Echo.Stop(); };
        if (!m_Server.Start(st_Body, nPort)) return false;
        m_pClient = g_Enet.host_create(nullptr, 1, 1, 0, 0);
        if (m_pClient == nullptr) return false;
        int nTarget = nPort;
        if (bThroughRelay) {
            if (!m_Relay.Start(nPort)) return false;
            nTarget = m_Relay.Port();
        }
        ENetAddress st_Target{};
        g_Enet.address_set_host(&st_Target, "127.0.0.1");
        st_Target.port = static_cast<enet_uint16>(nTarget);
        m_pPeer = g_Enet.host_connect(m_pClient, &st_Target, 1, 0);
        ENetEvent st_Event;
        auto tEnd = Clock::now() + 10s;
        while (Clock::now() < tEnd) {
            if (g_Enet.host_service(m_pClient, &st_Event, 10) > 0 && st_Event.type == ENET_EVENT_TYPE_CONNECT) {
                return true;
            }
        }
        return false;
    }
    void Send(const std::string& strMsg) override {
        g_Enet.peer_send(m_pPeer, 0, g_Enet.packet_create(strMsg.data(), strMsg.size(), ENET_PACKET_FLAG_RELIABLE));
        g_Enet.host_flush(m_pClient);
    }
    bool Recv(std::string* pStr_Msg, std::chrono::milliseconds timeout) override {
        auto tEnd = Clock::now() + timeout;
        ENetEvent st_Event;
        do {
            if (g_Enet.host_service(m_pClient, &st_Event, 1) > 0 && st_Event.type == ENET_EVENT_TYPE_RECEIVE) {
                pStr_Msg->assign(reinterpret_cast<const char*>(st_Event.packet->data), st_Event.packet->dataLength);
                g_Enet.packet_destroy(st_Event.packet);
                return true;
            }
        } while (Clock::now() < tEnd);
        return false;
    }
    void Stop() override {
        m_Server.Stop();
        m_Relay.Stop();
        if (m_pClient != nullptr) g_Enet.host_destroy(m_pClient);
        m_pClient = nullptr;
    }

private:
    EnetEchoServer m_Echo;  // lives in the child
    ENetHost* m_pClient = nullptr;
    ENetPeer* m_pPeer = nullptr;
};

// ---------------------------------------------------------------------------------------------
// The work

std::string Payload(size_t nSize, int nIndex) {
    std::string strMsg = std::to_string(nIndex) + ":";
    strMsg.resize(std::max(nSize, strMsg.size()), 'x');
    return strMsg;
}

// Round trips one at a time; microseconds each.
std::vector<double> PingPong(Transport& st_Transport, size_t nSize, int nCount) {
    std::vector<double> stl_Us;
    std::string strEcho;
    for (int i = -100; i < nCount; ++i) {  // the first 100 warm up
        std::string strMsg = Payload(nSize, i);
        auto tStart = Clock::now();
        st_Transport.Send(strMsg);
        if (!st_Transport.Recv(&strEcho, 5s) || strEcho != strMsg) return {};
        if (i >= 0) stl_Us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - tStart).count());
    }
    return stl_Us;
}

// nCount messages echoed with nInFlight outstanding; seconds, or -1 on a loss or a mix-up.
double Stream(Transport& st_Transport, size_t nSize, int nCount, int nInFlight, std::chrono::seconds limit) {
    auto tStart = Clock::now();
    int nSent = 0, nEchoed = 0;
    std::string strEcho;
    while (nEchoed < nCount) {
        while (nSent < nCount && nSent - nEchoed < nInFlight)
            st_Transport.Send(Payload(nSize, nSent++));
        if (!st_Transport.Recv(&strEcho, 1s)) {
            if (Clock::now() - tStart > limit) return -1;
            continue;
        }
        if (strEcho != Payload(nSize, nEchoed)) return -1;
        ++nEchoed;
    }
    return std::chrono::duration<double>(Clock::now() - tStart).count();
}

struct Figures {
    double dLatencyMedianUs = 0, dLatencyP99Us = 0, dMessagesPerSecond = 0, dCpuUsPerMessage = 0;
    bool bOk = false;
};

constexpr int kStreamMessages = 20000;

Figures Measure(const std::function<std::unique_ptr<Transport>()>& fnMake, size_t nSize, int nRounds) {
    std::vector<double> stl_Median, stl_P99, stl_Rate, stl_Cpu;
    for (int r = 0; r < nRounds; ++r) {
        std::unique_ptr<Transport> pTransport = fnMake();
        if (!pTransport->Start(false)) {
            pTransport->Stop();
            return {};
        }
        std::vector<double> stl_Us = PingPong(*pTransport, nSize, 2000);
        double dCpuStart = pTransport->ServerCpuSeconds();
        double dSeconds = Stream(*pTransport, nSize, kStreamMessages, 64, 60s);
        double dCpu = pTransport->ServerCpuSeconds() - dCpuStart;
        pTransport->Stop();
        if (stl_Us.empty() || dSeconds <= 0) return {};
        stl_Median.push_back(Median(stl_Us));
        stl_P99.push_back(Percentile(stl_Us, 0.99));
        // each message counts once on the way out and once on the way back
        stl_Rate.push_back(2 * kStreamMessages / dSeconds);
        stl_Cpu.push_back(dCpu * 1e6 / (2 * kStreamMessages));
    }
    return {Median(stl_Median), Median(stl_P99), Median(stl_Rate), Median(stl_Cpu), true};
}

struct RelayFigures {
    double dSeconds = -1;
    udxpeer::RelayStats st_Stats;
};

RelayFigures ThroughRelay(const std::function<std::unique_ptr<Transport>()>& fnMake) {
    std::unique_ptr<Transport> pTransport = fnMake();
    RelayFigures st_Figures;
    if (pTransport->Start(true)) st_Figures.dSeconds = Stream(*pTransport, 256, 2000, 32, 300s);
    st_Figures.st_Stats = pTransport->RelayStats();
    pTransport->Stop();
    return st_Figures;
}

void PrintRow(size_t nSize, const char* lpszName, const Figures& st_Figures) {
    printf("%-6zu %-9s %12.1f %12.1f %14.0f %14.2f%s\n", nSize, lpszName, st_Figures.dLatencyMedianUs,
           st_Figures.dLatencyP99Us, st_Figures.dMessagesPerSecond, st_Figures.dCpuUsPerMessage,
           st_Figures.bOk ? "" : "  (failed)");
}

// Each figure of a server over the same figure of its peer: below 1 is better for latency and
// processor time, above 1 for messages/s.
void PrintRatio(size_t nSize, const char* lpszName, const Figures& st_Of, const Figures& st_To) {
    printf("%-6zu %-9s %12.2f %12.2f %14.2f %14.2f\n", nSize, lpszName, st_Of.dLatencyMedianUs / st_To.dLatencyMedianUs,
           st_Of.dLatencyP99Us / st_To.dLatencyP99Us, st_Of.dMessagesPerSecond / st_To.dMessagesPerSecond,
           st_Of.dCpuUsPerMessage / st_To.dCpuUsPerMessage);
}

std::vector<size_t> ParseSizes(const char* lpszList) {
    std::vector<size_t> stl_Sizes;
    for (const char* p = lpszList; *p != '\0';) {
        char* pEnd = nullptr;
        unsigned long nSize = strtoul(p, &pEnd, 10);
        if (pEnd == p) break;
        if (nSize > 0) stl_Sizes.push_back(nSize);
        p = *pEnd == ',' ? pEnd + 1 : pEnd;
    }
    return stl_Sizes;
}

}  // namespace

int main(int argc, char** argv) {
    int nRounds = 3;
    std::vector<size_t> stl_Sizes{64, 1024};
    bool bUdxOnly = false, bRelay = true;
    for (int i = 1; i < argc; ++i) {
        std::string strArg = argv[i];
        if (strArg == "--sizes" && i + 1 < argc) {
            stl_Sizes = ParseSizes(argv[++i]);
        } else if (strArg == "--udx-only") {
            bUdxOnly = true;
        } else if (strArg == "--no-relay") {
            bRelay = false;
        } else {
            nRounds = std::max(1, atoi(argv[i]));
        }
    }
    const bool bEnet = !bUdxOnly && g_Enet.Load();
    auto fnUDX = [] { return std::unique_ptr<Transport>(new UDXTransport()); };
    auto fnEnet = [] { return std::unique_ptr<Transport>(new EnetTransport()); };
    if (!bUdxOnly && !bEnet) printf("ENet (libenet.so.7) not found: install libenet-dev for the reference figures\n");

    printf(
        "loopback, median of %d rounds; latency over 2000 round trips, rate and server cpu over %d echoed messages\n",
        nRounds, kStreamMessages);
    printf("(64 in flight; a message counts once each way; cpu: the server process's user + system time)\n");
    printf("%-6s %-9s %12s %12s %14s %14s\n", "size", "", "p50 rtt us", "p99 rtt us", "messages/s", "cpu us/msg");
    for (size_t nSize : stl_Sizes) {
        Figures st_UDX = Measure(fnUDX, nSize, nRounds);
        Figures st_Enet = bEnet ? Measure(fnEnet, nSize, nRounds) : Figures();
        PrintRow(nSize, "UDX", st_UDX);
        if (bEnet) {
            PrintRow(nSize, "ENet", st_Enet);
            if (st_UDX.bOk && st_Enet.bOk) {
                PrintRatio(nSize, "UDX/ENet", st_UDX, st_Enet);
                PrintRatio(nSize, "ENet/UDX", st_Enet, st_UDX);
            }
        }
    }
    if (!bRelay) return 0;

    // Ordered delivery holds everything behind a lost packet until the endpoint asks for it again,
    // one second after the fetch that found the gap, so each loss may cost up to that second: the
    // figure is held against that allowance, not against ENet's faster retransmission timer.
    printf(
        "\nthrough the lossy relay (1%% loss, 1%% duplicated, 2%% reordered, fixed seed): 2000 messages of 256 "
        "bytes echoed, 32 in flight\n");
    RelayFigures st_UDX = ThroughRelay(fnUDX);
    const double dAllowed = static_cast<double>(st_UDX.st_Stats.nDropped) * 1.0;
    printf("  UDX   %8.2f s   %zu datagrams lost, allowance %zu x 1 s = %.0f s, share of it %.2f\n", st_UDX.dSeconds,
           st_UDX.st_Stats.nDropped, st_UDX.st_Stats.nDropped, dAllowed,
           dAllowed > 0 && st_UDX.dSeconds > 0 ? st_UDX.dSeconds / dAllowed : 0.0);
    if (bEnet) {
        RelayFigures st_Enet = ThroughRelay(fnEnet);
        printf("  ENet  %8.2f s   %zu datagrams lost (for reference: its own retransmission timer)\n", st_Enet.dSeconds,
               st_Enet.st_Stats.nDropped);
    }
    return 0;
}
