// UDX beside ENet's reliable channel, doing the same work in the same run on loopback:
//   - round-trip latency of one message at a time (median and 99th percentile),
//   - messages per second with 64 messages in flight, echoed back (both directions counted),
//   at 64 and 1024 bytes, and
//   - the time to deliver and echo 2000 messages through a lossy relay (1% loss, duplicates,
//     reordering, fixed seed) with 32 in flight.
// The UDX side is an endpoint whose application thread echoes what it fetches, and a peer of
// tools/udxpeer; the ENet side is a server host echoing on its service thread and a client host.
// ENet is loaded at run time (Debian's libenet-dev), so the benchmark builds without it and then
// reports it as missing.
//
// Usage: udx_bench [rounds]     (default 3; each figure is the median of the rounds)
#include <dlfcn.h>
#include <enet/enet.h>
#include <netinet/in.h>
#include <sys/socket.h>
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

// One echo service and a client that talks to it, whatever the transport.
class Transport {
public:
    virtual ~Transport() = default;
    // Starts the service; with a relay port the client goes through it.
    virtual bool Start(bool bThroughRelay) = 0;
    virtual void Send(const std::string& strMsg) = 0;
    virtual bool Recv(std::string* pStr_Msg, std::chrono::milliseconds timeout) = 0;
    virtual void Stop() = 0;
};

// ---------------------------------------------------------------------------------------------
// UDX: endpoint + peer

class UDXTransport : public Transport {
public:
    bool Start(bool bThroughRelay) override {
        tag_NetCore_UDXConfig st_Config{};
        st_Config.bOrder = true;
        st_Config.bReliable = true;
        const int nPort = FreePort();
        m_xhUDX = NetCore_UDXSocket_InitEx(&st_Config, nPort, 1);
        if (m_xhUDX == nullptr) return false;
        int nTarget = nPort;
        if (bThroughRelay) {
            if (!m_Relay.Start(nPort)) return false;
            nTarget = m_Relay.Port();
        }
        if (!m_Peer.Open(nTarget) || !m_Peer.Connect(10s)) return false;
        m_strPeer = bThroughRelay ? m_Relay.Addr() : m_Peer.LocalAddr();
        m_bRun = true;
        m_Echo = std::thread([this] {
            char tszBuffer[2048];
            int nLen = 0;
            while (m_bRun) {
                if (NetCore_UDXSocket_RecvEx(m_xhUDX, m_strPeer.c_str(), tszBuffer, &nLen)) {
                    NetCore_UDXSocket_SendEx(m_xhUDX, m_strPeer.c_str(), tszBuffer, nLen);
                } else {
                    std::this_thread::yield();
                }
            }
        });
        return true;
    }
    void Send(const std::string& strMsg) override { m_Peer.Send(strMsg); }
    bool Recv(std::string* pStr_Msg, std::chrono::milliseconds timeout) override {
        return m_Peer.Recv(pStr_Msg, timeout);
    }
    void Stop() override {
        m_bRun = false;
        if (m_Echo.joinable()) m_Echo.join();
        m_Peer.Stop();
        m_Relay.Stop();
        if (m_xhUDX != nullptr) NetCore_UDXSocket_DestroyEx(m_xhUDX);
        m_xhUDX = nullptr;
    }

private:
    void* m_xhUDX = nullptr;
    udxpeer::Peer m_Peer;
    udxpeer::LossyRelay m_Relay;
    std::string m_strPeer;
    std::atomic<bool> m_bRun{false};
    std::thread m_Echo;
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

class EnetTransport : public Transport {
public:
    bool Start(bool bThroughRelay) override {
        const int nPort = FreePort();
        ENetAddress st_Addr{};
        st_Addr.host = ENET_HOST_ANY;
        st_Addr.port = static_cast<enet_uint16>(nPort);
        m_pServer = g_Enet.host_create(&st_Addr, 4, 1, 0, 0);
        m_pClient = g_Enet.host_create(nullptr, 1, 1, 0, 0);
        if (m_pServer == nullptr || m_pClient == nullptr) return false;
        int nTarget = nPort;
        if (bThroughRelay) {
            if (!m_Relay.Start(nPort)) return false;
            nTarget = m_Relay.Port();
        }
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
        m_bRun = false;
        if (m_Service.joinable()) m_Service.join();
        m_Relay.Stop();
        if (m_pClient != nullptr) g_Enet.host_destroy(m_pClient);
        if (m_pServer != nullptr) g_Enet.host_destroy(m_pServer);
        m_pClient = m_pServer = nullptr;
    }

private:
    ENetHost* m_pServer = nullptr;
    ENetHost* m_pClient = nullptr;
    ENetPeer* m_pPeer = nullptr;
    udxpeer::LossyRelay m_Relay;
    std::atomic<bool> m_bRun{false};
    std::thread m_Service;
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
    double dLatencyMedianUs = 0, dLatencyP99Us = 0, dMessagesPerSecond = 0;
    bool bOk = false;
};

Figures Measure(const std::function<std::unique_ptr<Transport>()>& fnMake, size_t nSize, int nRounds) {
    std::vector<double> stl_Median, stl_P99, stl_Rate;
    for (int r = 0; r < nRounds; ++r) {
        std::unique_ptr<Transport> pTransport = fnMake();
        if (!pTransport->Start(false)) {
            pTransport->Stop();
            return {};
        }
        std::vector<double> stl_Us = PingPong(*pTransport, nSize, 2000);
        double dSeconds = Stream(*pTransport, nSize, 20000, 64, 60s);
        pTransport->Stop();
        if (stl_Us.empty() || dSeconds <= 0) return {};
        stl_Median.push_back(Median(stl_Us));
        stl_P99.push_back(Percentile(stl_Us, 0.99));
        stl_Rate.push_back(2 * 20000 / dSeconds);
    }
    return {Median(stl_Median), Median(stl_P99), Median(stl_Rate), true};
}

double ThroughRelay(const std::function<std::unique_ptr<Transport>()>& fnMake) {
    std::unique_ptr<Transport> pTransport = fnMake();
    double dSeconds = pTransport->Start(true) ? Stream(*pTransport, 256, 2000, 32, 300s) : -1;
    pTransport->Stop();
    return dSeconds;
}

}  // namespace

int main(int argc, char** argv) {
    const int nRounds = argc > 1 ? std::max(1, atoi(argv[1])) : 3;
    const bool bEnet = g_Enet.Load();
    auto fnUDX = [] { return std::unique_ptr<Transport>(new UDXTransport()); };
    auto fnEnet = [] { return std::unique_ptr<Transport>(new EnetTransport()); };
    if (!bEnet) printf("ENet (libenet.so.7) not found: install libenet-dev for the reference figures\n");

    printf("loopback, median of %d rounds; latency over 2000 round trips, rate over 20000 echoed messages\n", nRounds);
    printf("%-6s %-5s %14s %14s %16s\n", "size", "", "median rtt us", "p99 rtt us", "messages/s");
    for (size_t nSize : {64u, 1024u}) {
        Figures st_UDX = Measure(fnUDX, nSize, nRounds);
        Figures st_Enet = bEnet ? Measure(fnEnet, nSize, nRounds) : Figures();
        printf("%-6zu %-5s %14.1f %14.1f %16.0f%s\n", nSize, "UDX", st_UDX.dLatencyMedianUs, st_UDX.dLatencyP99Us,
               st_UDX.dMessagesPerSecond, st_UDX.bOk ? "" : "  (failed)");
        if (bEnet) {
            printf("%-6zu %-5s %14.1f %14.1f %16.0f%s\n", nSize, "ENet", st_Enet.dLatencyMedianUs,
                   st_Enet.dLatencyP99Us, st_Enet.dMessagesPerSecond, st_Enet.bOk ? "" : "  (failed)");
            if (st_UDX.bOk && st_Enet.bOk) {
                printf("%-6zu %-5s %14.2f %14.2f %16.2f\n", nSize, "ratio",
                       st_UDX.dLatencyMedianUs / st_Enet.dLatencyMedianUs, st_UDX.dLatencyP99Us / st_Enet.dLatencyP99Us,
                       st_UDX.dMessagesPerSecond / st_Enet.dMessagesPerSecond);
            }
        }
    }

    printf(
        "\nthrough the lossy relay (1%% loss, 1%% duplicated, 2%% reordered, fixed seed): 2000 messages of 256 "
        "bytes echoed, 32 in flight\n");
    double dUDX = ThroughRelay(fnUDX);
    printf("  UDX   %8.2f s\n", dUDX);
    if (bEnet) {
        double dEnet = ThroughRelay(fnEnet);
        printf("  ENet  %8.2f s\n", dEnet);
        if (dUDX > 0 && dEnet > 0) printf("  ratio %8.2f\n", dUDX / dEnet);
    }
    return 0;
}
