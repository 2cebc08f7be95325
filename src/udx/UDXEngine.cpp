#include "UDXEngine.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "../base/Error.h"

namespace netcore::udx {

namespace {

constexpr unsigned long long UDX_RESEND_AGE_MS = 2000;   // kept DATA older than this goes out again on ACK
constexpr unsigned long long UDX_REQUEST_AGE_MS = 1000;  // a resend request waits this long
constexpr unsigned long long UDX_MTAP_AGE_MS = 20;       // merging delay
constexpr long long UDX_ACK_SECONDS = 2;
constexpr long long UDX_WINDOW_SECONDS = 3;

// A 30-byte control packet kept in a session list (a resend request, or RESEND_GONE).
tag_NetCore_UDXData MakeControl(uint32_t unPacketType, uint16_t wSerial, unsigned long long nTick) {
    tag_NetCore_UDXData st_Data;
    st_Data.nMsgLen = UDX_HEADER_SIZE;
    st_Data.wSerial = wSerial;
    st_Data.nTimeSend = nTick;
    st_Data.tszMsgBuffer.resize(UDX_HEADER_SIZE);
    UDX_BuildHeader(0, st_Data.tszMsgBuffer.data(), &wSerial, unPacketType);
    return st_Data;
}

void CopyAddr(char* ptszTarget, size_t nSize, const char* lpszAddr) {
    strncpy(ptszTarget, lpszAddr, nSize - 1);
    ptszTarget[nSize - 1] = '\0';
}

}  // namespace

UDXEngine::UDXEngine(const tag_NetCore_UDXConfig& st_Config, Hooks st_Hooks)
    : m_st_Config(st_Config), m_st_Hooks(std::move(st_Hooks)) {}

UDXEngine::~UDXEngine() {
    Clear();
}

void UDXEngine::FreeClient(tag_NetCore_UDXClient* pSt_Client) {
    delete pSt_Client;
}

void UDXEngine::SendRaw(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen) {
    // flushing an empty merging buffer puts nothing on the wire
    if (nMsgLen > 0 && m_st_Hooks.fnSend) m_st_Hooks.fnSend(lpszClientAddr, lpszMsgBuffer, nMsgLen);
}

void UDXEngine::SendControl(const char* lpszClientAddr, uint32_t unPacketType, uint32_t unPayloadLen,
                            uint16_t wSerial) {
    char tszHeader[UDX_HEADER_SIZE];
    UDX_BuildHeader(unPayloadLen, tszHeader, &wSerial, unPacketType);
    SendRaw(lpszClientAddr, tszHeader, UDX_HEADER_SIZE);
}

bool UDXEngine::Accept(const char* lpszClientAddr, unsigned int nWindow) {
    ClearError();
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_UDX_ACCEPT_PARAMENT);

    // Accepts run one at a time, so a peer's session is made once. The table lock is not held
    // here: the login callback may send, and the session threads go on serving other peers.
    std::lock_guard<std::mutex> st_LockAccept(st_LockerAccept);
    {
        std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
        if (stl_MapClient.count(lpszClientAddr) != 0) return true;
    }

    tag_NetCore_UDXClient* pSt_Client = new (std::nothrow) tag_NetCore_UDXClient();
    if (pSt_Client == nullptr) return Fail(ERROR_NETCORE_UDX_ACCEPT_MALLOC);
    pSt_Client->bConnect = true;
    pSt_Client->nWindowSelf = static_cast<unsigned int>(m_st_Config.nWindowSize);
    pSt_Client->nWindowPeer = nWindow;
    CopyAddr(pSt_Client->tszClientAddr, sizeof(pSt_Client->tszClientAddr), lpszClientAddr);
    if (m_st_Config.bHeartBeat) {
        // The session enters the table only after the login callback has returned, so nothing
        // reaches the peer for it before. Its result is not used: the session is kept either way.
        if (m_st_Hooks.fnLogin) m_st_Hooks.fnLogin(lpszClientAddr);
        if (m_st_Hooks.fnAccepted) m_st_Hooks.fnAccepted(lpszClientAddr);
    }
    std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
    try {
        stl_MapClient.emplace(lpszClientAddr, pSt_Client);
    } catch (const std::bad_alloc&) {
        FreeClient(pSt_Client);
        return Fail(ERROR_NETCORE_UDX_ACCEPT_MALLOC);
    }
    return true;
}

// Queues one received DATA packet for the application. False with the error set when ordered
// mode rejects it.
bool UDXEngine::QueueData(tag_NetCore_UDXClient* pSt_Client, uint16_t wSerial, const char* lpszPayload, int nLen,
                          unsigned long long nTick) {
    {
        std::lock_guard<std::mutex> st_Lock(pSt_Client->st_LockRecv);
        auto& stl_List = pSt_Client->stl_ListRecv;
        auto stl_It = stl_List.end();
        bool bQueued = true;
        if (m_st_Config.bOrder && wSerial < pSt_Client->wRecvCount.load(std::memory_order_relaxed)) {
            const unsigned short wRecvNext = pSt_Client->wRecvNext.load(std::memory_order_relaxed);
            for (stl_It = stl_List.begin(); stl_It != stl_List.end(); ++stl_It) {
                if (stl_It->wSerial == wSerial) return Fail(ERROR_NETCORE_UDX_PARSE_REPEAT);
                if (wSerial < wRecvNext) return Fail(ERROR_NETCORE_UDX_PARSE_EXPIRED);
                if (stl_It->wSerial > wSerial) break;
            }
            // A serial above everything queued goes to the end. Dropping it instead would lose it
            // for good once duplicates have carried wRecvCount past the sender's serials: every
            // later copy of it would be dropped the same way while nothing higher is queued.
            bQueued = stl_It != stl_List.end() || wSerial >= wRecvNext;
        }
        if (bQueued) {
            // the record comes from the spare ones when there is one, and is filled before it
            // joins the queue
            std::list<tag_NetCore_UDXData> stl_Node;
            auto& stl_Spare = pSt_Client->stl_ListSpare;
            if (stl_Spare.empty()) {
                stl_Node.emplace_back();
            } else {
                stl_Node.splice(stl_Node.begin(), stl_Spare, stl_Spare.begin());
            }
            tag_NetCore_UDXData& st_Data = stl_Node.front();
            st_Data.nTimeSend = nTick;
            st_Data.wSerial = wSerial;
            st_Data.nMsgLen = nLen;
            st_Data.tszMsgBuffer.assign(lpszPayload, lpszPayload + nLen);
            stl_List.splice(stl_It, stl_Node);
            pSt_Client->nRecvQueued.store(stl_List.size(), std::memory_order_release);
            pSt_Client->wRecvCount.fetch_add(1, std::memory_order_relaxed);
        }
    }
    if (!m_st_Config.bOrder) return true;
    std::lock_guard<std::mutex> st_Lock(pSt_Client->st_LockResend);
    auto& stl_Resend = pSt_Client->stl_ListResend;
    if (!stl_Resend.empty()) {
        stl_Resend.remove_if([wSerial](const tag_NetCore_UDXData& st_Req) { return st_Req.wSerial == wSerial; });
    }
    return true;
}

bool UDXEngine::Parse(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen, unsigned long long nTick) {
    ClearError();
    if (lpszMsgBuffer == nullptr || lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_UDX_PARSE_PARAMENT);
    // too short to hold a header: nothing to check it against
    if (nMsgLen < UDX_HEADER_SIZE) return Fail(ERROR_NETCORE_UDX_PARSE_PROTOCOL);

    UDXHeader st_Header;
    UDX_ReadHeader(lpszMsgBuffer, &st_Header);
    if (!UDX_HeaderValid(st_Header)) return Fail(ERROR_NETCORE_UDX_PARSE_PROTOCOL);

    if (st_Header.unPacketType == UDX_PACKET_CONNECT) {
        bool bAccepted = Accept(lpszClientAddr, st_Header.unPayloadLen);
        SendControl(lpszClientAddr, bAccepted ? UDX_PACKET_CONNECT_OK : UDX_PACKET_CONNECT_REFUSED,
                    static_cast<uint32_t>(m_st_Config.nWindowSize), 0);
        ClearError();
        return true;
    }

    // Closing takes st_LockerClose, which comes before the table lock: it is done after release.
    bool bClose = false;
    {
        std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
        auto stl_MapIt = stl_MapClient.find(lpszClientAddr);
        if (stl_MapIt == stl_MapClient.end()) return Fail(ERROR_NETCORE_UDX_PARSE_NOTFOUND);
        tag_NetCore_UDXClient* pSt_Client = stl_MapIt->second;
        if (!pSt_Client->bConnect.load(std::memory_order_relaxed)) return Fail(ERROR_NETCORE_UDX_PARSE_NOTCONNECT);

        switch (st_Header.unPacketType) {
            case UDX_PACKET_WINDOW:
                pSt_Client->nWindowPeer.store(st_Header.unPayloadLen, std::memory_order_relaxed);
                break;
            case UDX_PACKET_CLOSE:
                bClose = true;
                break;
            case UDX_PACKET_RESEND_REQUEST: {
                std::lock_guard<std::mutex> st_LockSent(pSt_Client->st_LockSent);
                auto& stl_Sent = pSt_Client->stl_ListSent;
                auto stl_It = std::find_if(stl_Sent.begin(), stl_Sent.end(), [&](const tag_NetCore_UDXData& st_Data) {
                    return st_Data.wSerial == st_Header.wHdrSerial;
                });
                std::lock_guard<std::mutex> st_LockSend(pSt_Client->st_LockSend);
                if (stl_It != stl_Sent.end()) {
                    pSt_Client->stl_ListSend.push_back(*stl_It);
                } else {
                    pSt_Client->stl_ListSend.push_back(
                        MakeControl(UDX_PACKET_RESEND_GONE, st_Header.wHdrSerial, nTick));
                }
                break;
            }
            case UDX_PACKET_RESEND_GONE: {
                if (m_st_Config.bStrictResend) {
                    bClose = true;
                    break;
                }
                // the lost packet is skipped
                unsigned short wExpected = st_Header.wHdrSerial;
                pSt_Client->wRecvNext.compare_exchange_strong(wExpected, static_cast<unsigned short>(wExpected + 1));
                std::lock_guard<std::mutex> st_LockResend(pSt_Client->st_LockResend);
                pSt_Client->stl_ListResend.remove_if(
                    [&](const tag_NetCore_UDXData& st_Req) { return st_Req.wSerial == st_Header.wHdrSerial; });
                break;
            }
            case UDX_PACKET_ACK: {
                std::lock_guard<std::mutex> st_LockSent(pSt_Client->st_LockSent);
                auto& stl_Sent = pSt_Client->stl_ListSent;
                stl_Sent.remove_if(
                    [&](const tag_NetCore_UDXData& st_Data) { return st_Data.wSerial < st_Header.wHdrSerial; });
                if (!stl_Sent.empty()) {
                    std::lock_guard<std::mutex> st_LockSend(pSt_Client->st_LockSend);
                    for (const tag_NetCore_UDXData& st_Data : stl_Sent) {
                        if (nTick - st_Data.nTimeSend > UDX_RESEND_AGE_MS) pSt_Client->stl_ListSend.push_back(st_Data);
                    }
                }
                break;
            }
            case UDX_PACKET_DATA: {
                if (m_st_Config.nWindowSize > 0) {
                    pSt_Client->nWindowSelf.fetch_sub(static_cast<unsigned int>(nMsgLen), std::memory_order_relaxed);
                }
                int nOffset = 0;
                while (nOffset < nMsgLen) {
                    const int nLeft = nMsgLen - nOffset;
                    // Every copy is bounded by what is left of the datagram and by the record's
                    // buffer: trailing bytes too short for a header, or a packet whose payload
                    // runs past the datagram, end the walk without being queued.
                    if (nLeft < UDX_HEADER_SIZE) break;
                    UDXHeader st_Packet;
                    UDX_ReadHeader(lpszMsgBuffer + nOffset, &st_Packet);
                    if (st_Packet.unPayloadLen > static_cast<uint32_t>(nLeft - UDX_HEADER_SIZE) ||
                        st_Packet.unPayloadLen > static_cast<uint32_t>(UDX_BUFFER_SIZE)) {
                        break;
                    }
                    const int nPayload = static_cast<int>(st_Packet.unPayloadLen);
                    const char* lpszPayload = lpszMsgBuffer + nOffset + UDX_HEADER_SIZE;
                    nOffset += UDX_HEADER_SIZE + nPayload;
                    // packets of the datagram queued before a failure stay queued
                    if (!QueueData(pSt_Client, st_Packet.wHdrSerial, lpszPayload, nPayload, nTick)) return false;
                }
                break;
            }
            default:
                break;
        }
    }
    if (bClose) Close(lpszClientAddr);
    if (m_st_Config.bHeartBeat && m_st_Hooks.fnActive) m_st_Hooks.fnActive(lpszClientAddr);
    m_nRecvPackets.fetch_add(1, std::memory_order_relaxed);
    m_nRecvBytes.fetch_add(static_cast<unsigned long long>(nMsgLen), std::memory_order_relaxed);
    return true;
}

bool UDXEngine::Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen, unsigned long long nTick) {
    ClearError();
    if (lpszMsgBuffer == nullptr) return Fail(ERROR_NETCORE_UDX_SEND_PARAMENT);
    // a null address names no session
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_UDX_SEND_NOTFOUND);

    // The packets to hand to the UDP server once the table lock is released, end to end: a
    // message of one piece (the usual case) needs no allocation for them. A merged packet is
    // built here too, and only its record is queued.
    char tszSingle[UDX_PIECE_SIZE + UDX_HEADER_SIZE];
    std::vector<char> stl_Pieces;
    char* ptszBatch = tszSingle;
    size_t nBatchLen = 0;
    bool bMerge = false;
    std::string strAddr(lpszClientAddr);
    {
        std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
        auto stl_MapIt = stl_MapClient.find(strAddr);
        if (stl_MapIt == stl_MapClient.end()) return Fail(ERROR_NETCORE_UDX_SEND_NOTFOUND);
        tag_NetCore_UDXClient* pSt_Client = stl_MapIt->second;
        std::lock_guard<std::mutex> st_LockSerial(pSt_Client->st_LockSerial);

        // the length is compared as unsigned, so a negative one exceeds any window
        const unsigned int nWindowPeer = pSt_Client->nWindowPeer.load(std::memory_order_relaxed);
        if (nWindowPeer != 0 && static_cast<unsigned int>(nMsgLen) > nWindowPeer) {
            return Fail(ERROR_NETCORE_UDX_SEND_WINDOW);
        }
        // with no window to stop it a negative length would be cut into pieces past the buffer
        if (nMsgLen < 0) return Fail(ERROR_NETCORE_UDX_SEND_PARAMENT);

        bMerge = m_st_Config.bMtap && nMsgLen < UDX_MTAP_LIMIT;
        if (!bMerge && nMsgLen > UDX_PIECE_SIZE) {
            const size_t nPieces = static_cast<size_t>(nMsgLen / UDX_PIECE_SIZE + 1);
            stl_Pieces.resize(static_cast<size_t>(nMsgLen) + nPieces * UDX_HEADER_SIZE);
            ptszBatch = stl_Pieces.data();
        }
        int nOffset = 0;
        do {
            const int nPiece = std::min(nMsgLen - nOffset, UDX_PIECE_SIZE);
            const int nPacketLen = nPiece + UDX_HEADER_SIZE;
            // the packet is built where it goes on the wire; a record is made only to keep it
            char* ptszPacket = ptszBatch + nBatchLen;
            uint16_t wSerial = pSt_Client->wSendSerial.load(std::memory_order_relaxed);
            const uint16_t wPacketSerial = wSerial;
            UDX_BuildHeader(static_cast<uint32_t>(nPiece), ptszPacket, &wSerial, UDX_PACKET_DATA);
            pSt_Client->wSendSerial.store(wSerial, std::memory_order_relaxed);
            if (nPiece > 0) memcpy(ptszPacket + UDX_HEADER_SIZE, lpszMsgBuffer + nOffset, nPiece);

            if (bMerge || m_st_Config.bReliable) {
                // made in a list of its own, so that keeping it is a splice into the session's list
                std::list<tag_NetCore_UDXData> stl_Node(1);
                tag_NetCore_UDXData& st_Data = stl_Node.front();
                st_Data.nMsgLen = nPacketLen;
                st_Data.nTimeSend = nTick;
                st_Data.wSerial = wPacketSerial;
                st_Data.tszMsgBuffer.assign(ptszPacket, ptszPacket + nPacketLen);
                if (bMerge) {
                    // a packet waiting to be merged is not kept for resending
                    std::lock_guard<std::mutex> st_LockMtap(pSt_Client->st_LockMtap);
                    pSt_Client->stl_ListMtap.splice(pSt_Client->stl_ListMtap.end(), stl_Node);
                } else {
                    std::lock_guard<std::mutex> st_LockSent(pSt_Client->st_LockSent);
                    pSt_Client->stl_ListSent.splice(pSt_Client->stl_ListSent.end(), stl_Node);
                }
            }
            nBatchLen += static_cast<size_t>(nPacketLen);
            pSt_Client->nWindowPeer.fetch_sub(static_cast<unsigned int>(nPacketLen), std::memory_order_relaxed);
            m_nSendBytes.fetch_add(static_cast<unsigned long long>(nPacketLen), std::memory_order_relaxed);
            m_nSendPackets.fetch_add(1, std::memory_order_relaxed);
            nOffset += nPiece;
        } while (nOffset < nMsgLen);
    }
    // every piece but the last is a full one
    for (size_t nAt = 0; !bMerge && nAt < nBatchLen;) {
        const int nPacketLen = static_cast<int>(std::min<size_t>(nBatchLen - nAt, UDX_PIECE_SIZE + UDX_HEADER_SIZE));
        SendRaw(strAddr.c_str(), ptszBatch + nAt, nPacketLen);
        nAt += static_cast<size_t>(nPacketLen);
    }
    // failures of the UDP layer's send are not reported
    ClearError();
    return true;
}

bool UDXEngine::Recv(const char* lpszClientAddr, char* ptszMsgBuffer, int* pInt_MsgLen, unsigned long long nTick) {
    ClearError();
    if (lpszClientAddr == nullptr || ptszMsgBuffer == nullptr || pInt_MsgLen == nullptr) {
        return Fail(ERROR_NETCORE_UDX_RECV_PARAMENT);
    }
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    auto stl_MapIt = stl_MapClient.find(lpszClientAddr);
    if (stl_MapIt == stl_MapClient.end()) return Fail(ERROR_NETCORE_UDX_RECV_NOTFOUND);
    tag_NetCore_UDXClient* pSt_Client = stl_MapIt->second;
    if (pSt_Client->nRecvQueued.load(std::memory_order_acquire) == 0) return Fail(ERROR_NETCORE_UDX_RECV_EMPTY);

    bool bTaken = false;
    bool bGap = false;
    unsigned short wMissing = 0;
    {
        std::lock_guard<std::mutex> st_LockRecv(pSt_Client->st_LockRecv);
        auto& stl_List = pSt_Client->stl_ListRecv;
        if (stl_List.empty()) return Fail(ERROR_NETCORE_UDX_RECV_EMPTY);
        const unsigned short wRecvNext = pSt_Client->wRecvNext.load(std::memory_order_relaxed);
        auto stl_It = stl_List.begin();
        if (m_st_Config.bOrder) {
            // lower serials (duplicates of delivered packets) are skipped
            for (; stl_It != stl_List.end(); ++stl_It) {
                if (stl_It->wSerial == wRecvNext) break;
                if (stl_It->wSerial > wRecvNext) {
                    bGap = true;
                    wMissing = wRecvNext;
                    stl_It = stl_List.end();
                    break;
                }
            }
        }
        if (stl_It != stl_List.end()) {
            pSt_Client->wRecvNext.fetch_add(1, std::memory_order_relaxed);
            // an empty payload holds no buffer at all
            if (stl_It->nMsgLen > 0) memcpy(ptszMsgBuffer, stl_It->tszMsgBuffer.data(), stl_It->nMsgLen);
            *pInt_MsgLen = stl_It->nMsgLen;
            pSt_Client->nWindowSelf.fetch_add(static_cast<unsigned int>(stl_It->nMsgLen + UDX_HEADER_SIZE),
                                              std::memory_order_relaxed);
            // a few fetched records are kept for the next arrivals; the rest are freed
            constexpr size_t kSpareRecords = 16;
            if (pSt_Client->stl_ListSpare.size() < kSpareRecords) {
                pSt_Client->stl_ListSpare.splice(pSt_Client->stl_ListSpare.begin(), stl_List, stl_It);
            } else {
                stl_List.erase(stl_It);
            }
            pSt_Client->nRecvQueued.store(stl_List.size(), std::memory_order_release);
            bTaken = true;
        }
    }
    if (bGap) {
        std::lock_guard<std::mutex> st_LockResend(pSt_Client->st_LockResend);
        auto& stl_Resend = pSt_Client->stl_ListResend;
        bool bPending = std::any_of(stl_Resend.begin(), stl_Resend.end(),
                                    [&](const tag_NetCore_UDXData& st_Req) { return st_Req.wSerial == wMissing; });
        if (!bPending) {
            stl_Resend.push_back(MakeControl(UDX_PACKET_RESEND_REQUEST, wMissing, nTick));
        }
    }
    if (!bTaken) return Fail(ERROR_NETCORE_UDX_RECV_NODATA);
    return true;
}

bool UDXEngine::Close(const char* lpszClientAddr) {
    ClearError();
    if (lpszClientAddr == nullptr) return true;
    std::lock_guard<std::mutex> st_Lock(st_LockerClose);
    stl_ListClose.emplace_back(lpszClientAddr);
    return true;
}

bool UDXEngine::ClosePrivate(const char* lpszClientAddr) {
    ClearError();
    SendControl(lpszClientAddr, UDX_PACKET_CLOSE, 0, 0);
    std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
    auto stl_MapIt = stl_MapClient.find(lpszClientAddr);
    if (stl_MapIt != stl_MapClient.end()) {
        FreeClient(stl_MapIt->second);
        stl_MapClient.erase(stl_MapIt);
        if (m_st_Config.bHeartBeat && m_st_Hooks.fnRemoved) m_st_Hooks.fnRemoved(lpszClientAddr);
    }
    return true;
}

void UDXEngine::StartTimers(long long nSeconds) {
    m_nTimeAck = nSeconds;
    m_nTimeWindow = nSeconds;
}

void UDXEngine::RunCloses() {
    // Taken out of the list first, so that a leave callback may itself queue a close.
    std::list<std::string> stl_Closing;
    {
        std::lock_guard<std::mutex> st_Lock(st_LockerClose);
        stl_Closing.swap(stl_ListClose);
    }
    for (const std::string& strAddr : stl_Closing) {
        ClosePrivate(strAddr.c_str());
        if (m_st_Hooks.fnLeave) m_st_Hooks.fnLeave(strAddr.c_str());
    }
}

void UDXEngine::RunSessions(unsigned long long nTick, long long nSeconds) {
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    for (auto& stl_Pair : stl_MapClient) {
        tag_NetCore_UDXClient* pSt_Client = stl_Pair.second;
        const char* lpszAddr = stl_Pair.first.c_str();

        const unsigned short wRecvNext = pSt_Client->wRecvNext.load(std::memory_order_relaxed);
        if (nSeconds - m_nTimeAck > UDX_ACK_SECONDS && wRecvNext != pSt_Client->wAckLast.load()) {
            pSt_Client->wAckLast.store(wRecvNext, std::memory_order_relaxed);
            SendControl(lpszAddr, UDX_PACKET_ACK, 0, wRecvNext);
            m_nTimeAck = nSeconds;
        }

        const unsigned int nWindowSelf = pSt_Client->nWindowSelf.load(std::memory_order_relaxed);
        const unsigned int nUsed = static_cast<unsigned int>(m_st_Config.nWindowSize) - nWindowSelf;
        if (nSeconds - m_nTimeWindow > UDX_WINDOW_SECONDS ||
            (nUsed < UDX_BUFFER_SIZE && nWindowSelf != pSt_Client->nWindowLast.load(std::memory_order_relaxed))) {
            SendControl(lpszAddr, UDX_PACKET_WINDOW, nWindowSelf,
                        pSt_Client->wSendSerial.load(std::memory_order_relaxed));
            pSt_Client->nWindowLast.store(nWindowSelf, std::memory_order_relaxed);
            m_nTimeWindow = nSeconds;
        }

        {
            std::lock_guard<std::mutex> st_LockSend(pSt_Client->st_LockSend);
            for (const tag_NetCore_UDXData& st_Data : pSt_Client->stl_ListSend) {
                SendRaw(lpszAddr, st_Data.tszMsgBuffer.data(), st_Data.nMsgLen);
            }
            pSt_Client->stl_ListSend.clear();
        }
        {
            // requests stay queued until the packet or a RESEND_GONE arrives
            std::lock_guard<std::mutex> st_LockResend(pSt_Client->st_LockResend);
            for (const tag_NetCore_UDXData& st_Req : pSt_Client->stl_ListResend) {
                if (nTick - st_Req.nTimeSend > UDX_REQUEST_AGE_MS) {
                    SendRaw(lpszAddr, st_Req.tszMsgBuffer.data(), st_Req.nMsgLen);
                }
            }
        }
    }
}

void UDXEngine::RunMtap(unsigned long long nTick) {
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    for (auto& stl_Pair : stl_MapClient) {
        tag_NetCore_UDXClient* pSt_Client = stl_Pair.second;
        const char* lpszAddr = stl_Pair.first.c_str();
        {
            // the merging buffer and its length are guarded by the list's lock as well
            std::lock_guard<std::mutex> st_LockMtap(pSt_Client->st_LockMtap);
            auto& stl_Mtap = pSt_Client->stl_ListMtap;
            if (!stl_Mtap.empty() && pSt_Client->nTimeMtap == 0) pSt_Client->nTimeMtap = nTick;
            while (!stl_Mtap.empty()) {
                const tag_NetCore_UDXData& st_Data = stl_Mtap.front();
                const unsigned int nLen = static_cast<unsigned int>(st_Data.nMsgLen);
                if (pSt_Client->nMtapLen + nLen < UDX_PIECE_SIZE) {
                    SendRaw(lpszAddr, pSt_Client->tszMsgBuffer, static_cast<int>(pSt_Client->nMtapLen));
                    memset(pSt_Client->tszMsgBuffer, 0, sizeof(pSt_Client->tszMsgBuffer));
                    pSt_Client->nTimeMtap = nTick;
                    memcpy(pSt_Client->tszMsgBuffer, st_Data.tszMsgBuffer.data(), nLen);
                    pSt_Client->nMtapLen = nLen;
                } else if (nTick - st_Data.nTimeSend <= UDX_MTAP_AGE_MS) {
                    // the packet goes to the start of the buffer; the length grows by its size,
                    // bounded by the buffer so that a flush never reads past it
                    memcpy(pSt_Client->tszMsgBuffer, st_Data.tszMsgBuffer.data(), nLen);
                    pSt_Client->nMtapLen =
                        std::min<unsigned int>(pSt_Client->nMtapLen + nLen, sizeof(pSt_Client->tszMsgBuffer));
                } else {
                    SendRaw(lpszAddr, st_Data.tszMsgBuffer.data(), st_Data.nMsgLen);
                }
                stl_Mtap.pop_front();
            }
            if (nTick - pSt_Client->nTimeMtap > UDX_MTAP_AGE_MS && pSt_Client->nMtapLen != 0) {
                SendRaw(lpszAddr, pSt_Client->tszMsgBuffer, static_cast<int>(pSt_Client->nMtapLen));
                pSt_Client->nMtapLen = 0;
                memset(pSt_Client->tszMsgBuffer, 0, sizeof(pSt_Client->tszMsgBuffer));
                pSt_Client->nTimeMtap = nTick;
            }
        }
    }
}

void UDXEngine::Clear() {
    {
        std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
        for (auto& stl_Pair : stl_MapClient)
            FreeClient(stl_Pair.second);
        stl_MapClient.clear();
    }
    std::lock_guard<std::mutex> st_Lock(st_LockerClose);
    stl_ListClose.clear();
}

bool UDXEngine::GetState(const char* lpszClientAddr, UDXSessionState* pSt_State) {
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    auto stl_MapIt = stl_MapClient.find(lpszClientAddr);
    if (stl_MapIt == stl_MapClient.end()) return false;
    tag_NetCore_UDXClient* pSt_Client = stl_MapIt->second;
    pSt_State->nWindowPeer = pSt_Client->nWindowPeer;
    pSt_State->nWindowSelf = pSt_Client->nWindowSelf;
    pSt_State->nWindowLast = pSt_Client->nWindowLast;
    pSt_State->wAckLast = pSt_Client->wAckLast;
    pSt_State->wRecvNext = pSt_Client->wRecvNext;
    pSt_State->wRecvCount = pSt_Client->wRecvCount;
    pSt_State->wSendSerial = pSt_Client->wSendSerial;
    {
        std::lock_guard<std::mutex> st_LockMtap(pSt_Client->st_LockMtap);
        pSt_State->nMtapLen = pSt_Client->nMtapLen;
        pSt_State->nMtap = pSt_Client->stl_ListMtap.size();
    }
    {
        std::lock_guard<std::mutex> st_LockSent(pSt_Client->st_LockSent);
        pSt_State->nSent = pSt_Client->stl_ListSent.size();
    }
    {
        std::lock_guard<std::mutex> st_LockSend(pSt_Client->st_LockSend);
        pSt_State->nSend = pSt_Client->stl_ListSend.size();
    }
    {
        std::lock_guard<std::mutex> st_LockRecv(pSt_Client->st_LockRecv);
        pSt_State->nRecv = pSt_Client->stl_ListRecv.size();
    }
    std::lock_guard<std::mutex> st_LockResend(pSt_Client->st_LockResend);
    pSt_State->nResend = pSt_Client->stl_ListResend.size();
    return true;
}

size_t UDXEngine::SessionCount() {
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    return stl_MapClient.size();
}

}  // namespace netcore::udx
