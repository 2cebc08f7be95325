#include "SocketOpt_HeartBeat.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "base/Error.h"

using netcore::ClearError;
using netcore::Fail;

namespace {

long long Now() {
    return static_cast<long long>(time(nullptr));
}

unsigned int LoadLevel(unsigned int nRate) {
    if (nRate < 10) return 1;
    if (nRate < 30) return 2;
    if (nRate < 60) return 3;
    if (nRate < 80) return 4;
    return 5;
}

// Merges one level: the first evaluation is taken at once, later ones only when two in a row
// agree, so that a single spike does not move a peer's standing.
void CompareLevel(unsigned int nNew, unsigned int* pnLast, unsigned int* pnLoad) {
    if (*pnLoad == 0) {
        *pnLast = nNew;
        *pnLoad = nNew;
    } else if (*pnLast == nNew) {
        *pnLoad = *pnLast;
    } else {
        *pnLast = nNew;
    }
}

template <typename Map, typename Key>
SOCKETOPT_HEARTBEAT* Find(Map& stl_Map, const Key& st_Key) {
    auto stl_It = stl_Map.find(st_Key);
    return stl_It == stl_Map.end() ? nullptr : stl_It->second.get();
}

std::unique_ptr<SOCKETOPT_HEARTBEAT> NewPeer(uint64_t* pnSerial) {
    auto pSt_HeartBeat = std::make_unique<SOCKETOPT_HEARTBEAT>();
    pSt_HeartBeat->nTimeLast = Now();
    pSt_HeartBeat->nSerial = ++*pnSerial;
    return pSt_HeartBeat;
}

}  // namespace

CSocketOpt_HeartBeat::CSocketOpt_HeartBeat() = default;

CSocketOpt_HeartBeat::~CSocketOpt_HeartBeat() {
    StopThread();
}

void CSocketOpt_HeartBeat::StopThread() {
    bIsRun = false;
    if (m_pSt_Control) m_pSt_Control->bIsRun = false;
    WakeThread();
    if (pSTDThread_HeartBeat && pSTDThread_HeartBeat->joinable()) {
        // a callback that stops its own supervisor runs on the thread: it cannot wait for itself
        if (pSTDThread_HeartBeat->get_id() == std::this_thread::get_id()) {
            pSTDThread_HeartBeat->detach();
        } else {
            pSTDThread_HeartBeat->join();
        }
    }
    pSTDThread_HeartBeat.reset();
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_Init(int nTimeOut, int nTimeNumber,
                                                    CALLBACK_NETCORE_SOCKOPT_HEARTBEAT_EVENT fpCall_HeartBeatEvent,
                                                    void* lParam, bool bIsAddr) {
    ClearError();
    // A second Init replaces the running thread instead of abandoning it.
    StopThread();
    this->bIsRun = true;
    this->bIsAddr = bIsAddr;
    m_nTimeScanned = -1;
    m_nDueInterval = -1;  // the new thread rebuilds the queue for its interval and mode
    m_pSt_Control = std::make_shared<ThreadControl>();
    m_pSt_Control->bIsRun = true;
    try {
        pSTDThread_HeartBeat = std::make_unique<std::thread>(SocketOpt_HeartBeat_Thread, this, m_pSt_Control);
    } catch (const std::exception&) {
        m_pSt_Control->bIsRun = false;
        pSTDThread_HeartBeat.reset();
    }
    if (!pSTDThread_HeartBeat || !pSTDThread_HeartBeat->joinable()) return Fail(ERROR_NETCORE_HEARTBEAT_INIT_THREAD);
    this->nTimeOut = nTimeOut;
    this->nTimeNumber = nTimeNumber;
    this->lParam = lParam;
    lpCall_HeartBeatEvent = fpCall_HeartBeatEvent;
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_Destory() {
    ClearError();
    StopThread();
    nTimeOut = 0;
    nTimeNumber = 0;
    lParam = nullptr;
    lpCall_HeartBeatEvent = nullptr;
    std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
    stl_MapAddr.clear();
    stl_MapSocket.clear();
    stl_SetForceAddr.clear();
    stl_SetForceSocket.clear();
    stl_QueueDue = {};
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_ForceOutAddr(const char* lpszClientAddr, int nLeaveCode, bool bAdd) {
    ClearError();
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_HEARTBEAT_FORCEOUT_PARAMENT);
    std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
    SOCKETOPT_HEARTBEAT* pSt_HeartBeat = Find(stl_MapAddr, std::string(lpszClientAddr));
    if (pSt_HeartBeat == nullptr) {
        if (!bAdd) return Fail(ERROR_NETCORE_HEARTBEAT_FORCEOUT_NOTFOUND);
        pSt_HeartBeat = stl_MapAddr.emplace(lpszClientAddr, NewPeer(&m_nSerial)).first->second.get();
    }
    pSt_HeartBeat->nLeaveCode = nLeaveCode;
    pSt_HeartBeat->bIsForce = true;
    pSt_HeartBeat->nTimeNumber = 0;
    pSt_HeartBeat->nTimeLast = Now();
    stl_SetForceAddr.insert(lpszClientAddr);
    st_Lock.unlock();
    WakeThread();
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_ForceOutSkt(int hSocket, int nLeaveCode, bool bAdd) {
    ClearError();
    std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
    SOCKETOPT_HEARTBEAT* pSt_HeartBeat = Find(stl_MapSocket, hSocket);
    if (pSt_HeartBeat == nullptr) {
        if (!bAdd) return Fail(ERROR_NETCORE_HEARTBEAT_FORCEOUT_NOTFOUND);
        pSt_HeartBeat = stl_MapSocket.emplace(hSocket, NewPeer(&m_nSerial)).first->second.get();
    }
    pSt_HeartBeat->nLeaveCode = nLeaveCode;
    pSt_HeartBeat->bIsForce = true;
    pSt_HeartBeat->nTimeNumber = 0;
    pSt_HeartBeat->nTimeLast = Now();
    stl_SetForceSocket.insert(hSocket);
    st_Lock.unlock();
    WakeThread();
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_InsertAddr(const char* lpszClientAddr) {
    ClearError();
    if (!bIsRun) return Fail(ERROR_NETCORE_HEARTBEAT_INSERTADDR_NOTRUN);
    if (!bIsAddr) return Fail(ERROR_NETCORE_HEARTBEAT_INSERTADDR_MODE);
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_HEARTBEAT_INSERTADDR_PARAMENT);
    std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
    // a peer already present keeps its state
    auto stl_Insert = stl_MapAddr.try_emplace(lpszClientAddr);
    if (stl_Insert.second) {
        stl_Insert.first->second = NewPeer(&m_nSerial);
        QueueDue(stl_Insert.first->second.get(), lpszClientAddr, 0, nTimeOut);
    }
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_InsertSocket(int hSocket) {
    ClearError();
    if (!bIsRun) return Fail(ERROR_NETCORE_HEARTBEAT_INSERTSOCKET_NOTRUN);
    if (bIsAddr) return Fail(ERROR_NETCORE_HEARTBEAT_INSERTSOCKET_MODE);
    if (hSocket <= 0) return Fail(ERROR_NETCORE_HEARTBEAT_INSERTSOCKET_PARAMENT);
    std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
    auto stl_Insert = stl_MapSocket.try_emplace(hSocket);
    if (stl_Insert.second) {
        stl_Insert.first->second = NewPeer(&m_nSerial);
        QueueDue(stl_Insert.first->second.get(), "", hSocket, nTimeOut);
    }
    return true;
}

void CSocketOpt_HeartBeat::EvaluateLoad(SOCKETOPT_HEARTBEAT* pSt_HeartBeat) {
    if (!bIsLoad) return;
    // The spacing test compares the refreshed time with itself, so it only passes for a negative
    // spacing; callers have always seen it that way.
    long long nElapsed = pSt_HeartBeat->nTimeLast - pSt_HeartBeat->nTimeLast;
    if (nElapsed <= static_cast<long long>(nLoadTime)) return;
    NETCORE_SOCKOPT_HBLOAD st_HBLoad{};
    SocketOpt_HeartBeat_CalPerformance(&pSt_HeartBeat->st_ProtocolHB, &pSt_HeartBeat->st_LoadRate, &st_HBLoad);
    SocketOpt_HeartBeat_CalComparison(&st_HBLoad, &pSt_HeartBeat->st_HBLast, &pSt_HeartBeat->st_HBLoad);
}

namespace {
void Refresh(SOCKETOPT_HEARTBEAT* pSt_HeartBeat) {
    pSt_HeartBeat->nTimeNumber = 0;
    pSt_HeartBeat->nTimeLast = Now();
}
}  // namespace

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_ActiveAddr(const char* lpszClientAddr,
                                                          tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat) {
    ClearError();
    if (!bIsRun) return Fail(ERROR_NETCORE_HEARTBEAT_ACTIVEADDR_NOTRUN);
    if (!bIsAddr) return Fail(ERROR_NETCORE_HEARTBEAT_ACTIVEADDR_MODE);
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_HEARTBEAT_ACTIVEADDR_PARAMENT);
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    SOCKETOPT_HEARTBEAT* pSt_HeartBeat = Find(stl_MapAddr, std::string(lpszClientAddr));
    if (pSt_HeartBeat == nullptr) return Fail(ERROR_NETCORE_HEARTBEAT_ACTIVEADDR_NOTFOUND);
    Refresh(pSt_HeartBeat);
    std::lock_guard<std::mutex> st_LoadLock(pSt_HeartBeat->st_LoadLocker);
    if (pSt_ProtocolHeartBeat != nullptr) pSt_HeartBeat->st_ProtocolHB = *pSt_ProtocolHeartBeat;
    EvaluateLoad(pSt_HeartBeat);
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_ActiveSocket(int hSocket,
                                                            tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat) {
    ClearError();
    if (!bIsRun) return Fail(ERROR_NETCORE_HEARTBEAT_ACTIVESOCKET_NOTRUN);
    // deliberately the address-mode test: in socket mode this always fails
    if (!bIsAddr) return Fail(ERROR_NETCORE_HEARTBEAT_ACTIVESOCKET_MODE);
    if (hSocket <= 0) return Fail(ERROR_NETCORE_HEARTBEAT_ACTIVESOCKET_PARAMENT);
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    SOCKETOPT_HEARTBEAT* pSt_HeartBeat = Find(stl_MapSocket, hSocket);
    if (pSt_HeartBeat == nullptr) return Fail(ERROR_NETCORE_HEARTBEAT_ACTIVESOCKET_NOTFOUND);
    Refresh(pSt_HeartBeat);
    std::lock_guard<std::mutex> st_LoadLock(pSt_HeartBeat->st_LoadLocker);
    if (pSt_ProtocolHeartBeat != nullptr) pSt_HeartBeat->st_ProtocolHB = *pSt_ProtocolHeartBeat;
    EvaluateLoad(pSt_HeartBeat);
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_DeleteAddr(const char* lpszClientAddr) {
    ClearError();
    if (!bIsRun) return Fail(ERROR_NETCORE_HEARTBEAT_DELETEADDR_NOTRUN);
    if (!bIsAddr) return Fail(ERROR_NETCORE_HEARTBEAT_DELETEADDR_MODE);
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_HEARTBEAT_DELETEADDR_PARAMENT);
    std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
    if (stl_MapAddr.erase(lpszClientAddr) == 0) return Fail(ERROR_NETCORE_HEARTBEAT_DELETEADDR_NOTFOUND);
    stl_SetForceAddr.erase(lpszClientAddr);
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_DeleteSocket(int hSocket) {
    ClearError();
    if (!bIsRun) return Fail(ERROR_NETCORE_HEARTBEAT_DELETESOCKET_NOTRUN);
    // deliberately the address-mode test: in socket mode this always fails
    if (!bIsAddr) return Fail(ERROR_NETCORE_HEARTBEAT_DELETESOCKET_MODE);
    if (hSocket <= 0) return Fail(ERROR_NETCORE_HEARTBEAT_DELETESOCKET_PARAMENT);
    std::unique_lock<std::shared_mutex> st_Lock(st_Locker);
    if (stl_MapSocket.erase(hSocket) == 0) return Fail(ERROR_NETCORE_HEARTBEAT_DELETESOCKET_NOTFOUND);
    stl_SetForceSocket.erase(hSocket);
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_GetAddr(const char* lpszClientAddr, long long* pInt_Timer) {
    ClearError();
    if (lpszClientAddr == nullptr) return Fail(ERROR_NETCORE_HEARTBEAT_GETADDR_PARAMENT);
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    SOCKETOPT_HEARTBEAT* pSt_HeartBeat = Find(stl_MapAddr, std::string(lpszClientAddr));
    if (pSt_HeartBeat == nullptr) return Fail(ERROR_NETCORE_HEARTBEAT_GETADDR_NOTFOUND);
    if (pInt_Timer != nullptr) *pInt_Timer = Now() - pSt_HeartBeat->nTimeLast;
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_GetSocket(int hSocket, long long* pInt_Timer) {
    ClearError();
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    SOCKETOPT_HEARTBEAT* pSt_HeartBeat = Find(stl_MapSocket, hSocket);
    if (pSt_HeartBeat == nullptr) return Fail(ERROR_NETCORE_HEARTBEAT_GETSOCKET_NOTFOUND);
    if (pInt_Timer != nullptr) *pInt_Timer = Now() - pSt_HeartBeat->nTimeLast;
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_GetTimeOut(char* ptszClientAddr, int* phSocket) {
    ClearError();
    if (!bIsRun) return Fail(ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_NOTRUN);
    // polling and the callback exclude each other
    if (lpCall_HeartBeatEvent.load() != nullptr) return Fail(ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_CALLBACK);
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    if (bIsAddr) {
        if (ptszClientAddr == nullptr) return Fail(ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_PARAMENT);
        for (const auto& stl_Pair : stl_MapAddr) {
            if (!stl_Pair.second->bIsTimeOut) continue;
            // the caller's buffer holds 64 characters: a longer address is cut to fit it
            size_t nLen = std::min<size_t>(stl_Pair.first.size(), 63);
            memcpy(ptszClientAddr, stl_Pair.first.data(), nLen);
            ptszClientAddr[nLen] = '\0';
            return true;
        }
    } else {
        if (phSocket == nullptr) return Fail(ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_PARAMENT);
        for (const auto& stl_Pair : stl_MapSocket) {
            if (!stl_Pair.second->bIsTimeOut) continue;
            *phSocket = stl_Pair.first;
            return true;
        }
    }
    return Fail(ERROR_NETCORE_HEARTBEAT_GETTIMEOUT_EMPTY);
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_SetLoadAttr(int nTime, bool bLoad) {
    ClearError();
    // Only a spacing with evaluation off is accepted: the interface has never switched it on.
    if (bLoad || nTime <= 0) return Fail(ERROR_NETCORE_HEARTBEAT_SETLOADATTR_PARAMENT);
    bIsLoad = bLoad;
    nLoadTime = nTime;
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_GetLoadAttr(const char* lpszClientAddr, int hSocket,
                                                           NETCORE_SOCKOPT_HBLOAD* pSt_HBLoad,
                                                           NETCORE_SOCKOPT_LOADRATE* pSt_LoadRate) {
    ClearError();
    if (pSt_HBLoad == nullptr || (lpszClientAddr == nullptr && hSocket < 1)) {
        return Fail(ERROR_NETCORE_HEARTBEAT_GETLOADATTR_PARAMENT);
    }
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    // Crossed on purpose: callers pass any non-null address to reach the socket table. Without an
    // address the address table is searched for the empty key.
    SOCKETOPT_HEARTBEAT* pSt_HeartBeat =
        lpszClientAddr != nullptr ? Find(stl_MapSocket, hSocket) : Find(stl_MapAddr, std::string());
    if (pSt_HeartBeat == nullptr) return Fail(ERROR_NETCORE_HEARTBEAT_GETLOADATTR_NOTFOUND);
    std::lock_guard<std::mutex> st_LoadLock(pSt_HeartBeat->st_LoadLocker);
    *pSt_HBLoad = pSt_HeartBeat->st_HBLoad;
    if (pSt_LoadRate != nullptr) *pSt_LoadRate = pSt_HeartBeat->st_LoadRate;
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_CalPerformance(tag_Obmrelt_Protocol_HeartBeat* pSt_ProtocolHeartBeat,
                                                              NETCORE_SOCKOPT_LOADRATE* pSt_LoadRate,
                                                              NETCORE_SOCKOPT_HBLOAD* pSt_HBLoad) {
    unsigned int* pnRates[] = {&pSt_LoadRate->nRate1, &pSt_LoadRate->nRate2, &pSt_LoadRate->nRate3,
                               &pSt_LoadRate->nRate4, &pSt_LoadRate->nRate5};
    unsigned int* pnLevels[] = {&pSt_HBLoad->nLevel1, &pSt_HBLoad->nLevel2, &pSt_HBLoad->nLevel3, &pSt_HBLoad->nLevel4,
                                &pSt_HBLoad->nLevel5};
    for (int i = 0; i < 5; i++) {
        unsigned short wRate;
        memcpy(&wRate, &pSt_ProtocolHeartBeat->wLoadRate[i], sizeof(wRate));  // packed field
        *pnRates[i] = wRate;
        *pnLevels[i] = LoadLevel(wRate);
    }
    return true;
}

bool CSocketOpt_HeartBeat::SocketOpt_HeartBeat_CalComparison(NETCORE_SOCKOPT_HBLOAD* pSt_New,
                                                             NETCORE_SOCKOPT_HBLOAD* pSt_Last,
                                                             NETCORE_SOCKOPT_HBLOAD* pSt_Load) {
    CompareLevel(pSt_New->nLevel1, &pSt_Last->nLevel1, &pSt_Load->nLevel1);
    CompareLevel(pSt_New->nLevel2, &pSt_Last->nLevel2, &pSt_Load->nLevel2);
    CompareLevel(pSt_New->nLevel3, &pSt_Last->nLevel3, &pSt_Load->nLevel3);
    CompareLevel(pSt_New->nLevel4, &pSt_Last->nLevel4, &pSt_Load->nLevel4);
    CompareLevel(pSt_New->nLevel5, &pSt_Last->nLevel5, &pSt_Load->nLevel5);
    return true;
}

// ----- supervision thread ----------------------------------------------------------------------

void CSocketOpt_HeartBeat::CheckPeer(SOCKETOPT_HEARTBEAT* pSt_HeartBeat, const char* lpszClientAddr, int hSocket,
                                     time_t nTimeNow, std::list<SOCKETOPT_HBLEAVE>* pStl_ListLeave) {
    if (pSt_HeartBeat->bIsForce) {
        pStl_ListLeave->push_back({lpszClientAddr, hSocket, pSt_HeartBeat->nLeaveCode});
        return;
    }
    if (pSt_HeartBeat->bIsTimeOut) return;
    if (static_cast<long long>(nTimeNow) - pSt_HeartBeat->nTimeLast < static_cast<long long>(nTimeOut)) return;
    pSt_HeartBeat->nTimeLast = nTimeNow;
    if (pSt_HeartBeat->nTimeNumber < nTimeNumber) {
        pSt_HeartBeat->nTimeNumber++;
        return;
    }
    pSt_HeartBeat->bIsTimeOut = true;
    if (lpCall_HeartBeatEvent.load() != nullptr) {
        pStl_ListLeave->push_back({lpszClientAddr, hSocket, pSt_HeartBeat->nLeaveCode});
    }
}

void CSocketOpt_HeartBeat::QueueDue(const SOCKETOPT_HEARTBEAT* pSt_HeartBeat, const char* lpszClientAddr, int hSocket,
                                    int nInterval) {
    stl_QueueDue.push({pSt_HeartBeat->nTimeLast + nInterval, pSt_HeartBeat->nSerial, lpszClientAddr, hSocket});
}

// Looks at the peers whose interval may have run out by now. An entry refreshed by Active since it
// was queued goes back with its new time; one deleted, expelled, timed out or replaced is dropped.
void CSocketOpt_HeartBeat::ScanDue(time_t nTimeNow, int nInterval, std::list<SOCKETOPT_HBLEAVE>* pStl_ListLeave) {
    size_t nPeers = bIsAddr ? stl_MapAddr.size() : stl_MapSocket.size();
    // A new interval or mode, a clock set back, or a queue mostly made of departed peers: rebuilt.
    if (nInterval != m_nDueInterval || nTimeNow < m_nTimeScanned || stl_QueueDue.size() > 2 * nPeers + 1024) {
        stl_QueueDue = {};
        if (bIsAddr) {
            for (auto& stl_Pair : stl_MapAddr) {
                QueueDue(stl_Pair.second.get(), stl_Pair.first.c_str(), 0, nInterval);
            }
        } else {
            for (auto& stl_Pair : stl_MapSocket) {
                QueueDue(stl_Pair.second.get(), "", stl_Pair.first, nInterval);
            }
        }
        m_nDueInterval = nInterval;
    }
    while (!stl_QueueDue.empty() && stl_QueueDue.top().nDue <= static_cast<long long>(nTimeNow)) {
        SOCKETOPT_HBDUE st_Due = stl_QueueDue.top();
        stl_QueueDue.pop();
        SOCKETOPT_HEARTBEAT* pSt_HeartBeat =
            bIsAddr ? Find(stl_MapAddr, st_Due.tszClientAddr) : Find(stl_MapSocket, st_Due.hSocket);
        if (pSt_HeartBeat == nullptr || pSt_HeartBeat->nSerial != st_Due.nSerial) continue;
        if (pSt_HeartBeat->bIsForce || pSt_HeartBeat->bIsTimeOut) continue;
        CheckPeer(pSt_HeartBeat, st_Due.tszClientAddr.c_str(), st_Due.hSocket, nTimeNow, pStl_ListLeave);
        if (pSt_HeartBeat->bIsTimeOut) continue;
        st_Due.nDue = pSt_HeartBeat->nTimeLast + nInterval;
        stl_QueueDue.push(std::move(st_Due));
    }
}

bool CSocketOpt_HeartBeat::ScanTable(time_t nTimeNow, std::list<SOCKETOPT_HBLEAVE>* pStl_ListLeave) {
    std::shared_lock<std::shared_mutex> st_Lock(st_Locker);
    int nInterval = nTimeOut;
    bool bBusy;
    if (nInterval <= 0) {
        // every pass counts an interval for every peer
        if (bIsAddr) {
            for (auto& stl_Pair : stl_MapAddr) {
                CheckPeer(stl_Pair.second.get(), stl_Pair.first.c_str(), 0, nTimeNow, pStl_ListLeave);
            }
        } else {
            for (auto& stl_Pair : stl_MapSocket) {
                CheckPeer(stl_Pair.second.get(), "", stl_Pair.first, nTimeNow, pStl_ListLeave);
            }
        }
        m_nDueInterval = -1;
        bBusy = true;
    } else {
        ScanDue(nTimeNow, nInterval, pStl_ListLeave);
        // expelled peers are reported on every pass until they are gone
        if (bIsAddr) {
            for (const std::string& st_Key : stl_SetForceAddr) {
                SOCKETOPT_HEARTBEAT* pSt_HeartBeat = Find(stl_MapAddr, st_Key);
                if (pSt_HeartBeat != nullptr) CheckPeer(pSt_HeartBeat, st_Key.c_str(), 0, nTimeNow, pStl_ListLeave);
            }
            bBusy = !stl_SetForceAddr.empty();
        } else {
            for (int hSocket : stl_SetForceSocket) {
                SOCKETOPT_HEARTBEAT* pSt_HeartBeat = Find(stl_MapSocket, hSocket);
                if (pSt_HeartBeat != nullptr) CheckPeer(pSt_HeartBeat, "", hSocket, nTimeNow, pStl_ListLeave);
            }
            bBusy = !stl_SetForceSocket.empty();
        }
    }
    m_nTimeScanned = nTimeNow;
    return bBusy;
}

void CSocketOpt_HeartBeat::WakeThread() {
    std::lock_guard<std::mutex> st_Lock(st_LockerWake);
    bWakeUp = true;
    st_CondWake.notify_all();
}

// Counting has a granularity of one second, so an idle thread sleeps until the clock's next
// second instead of waking every millisecond; an expelled peer or a stop wakes it at once.
void CSocketOpt_HeartBeat::WaitNextPass(const std::shared_ptr<ThreadControl>& pSt_Control, time_t nTimeNow,
                                        bool bBusy) {
    using namespace std::chrono;
    auto nWait = milliseconds(1);
    if (!bBusy) {
        // measured on the steady clock, so that a clock set back cannot stretch the sleep
        auto nToNext = duration_cast<milliseconds>(system_clock::from_time_t(nTimeNow + 1) - system_clock::now());
        nWait = std::min(std::max(nToNext, milliseconds(1)), milliseconds(1000));
    }
    std::unique_lock<std::mutex> st_Lock(st_LockerWake);
    st_CondWake.wait_for(st_Lock, nWait, [&] { return bWakeUp || !pSt_Control->bIsRun; });
    bWakeUp = false;
}

void CSocketOpt_HeartBeat::SocketOpt_HeartBeat_Thread(CSocketOpt_HeartBeat* pClass_This,
                                                      std::shared_ptr<ThreadControl> pSt_Control) {
    std::list<SOCKETOPT_HBLEAVE> stl_ListLeave;
    while (pSt_Control->bIsRun) {
        time_t nTimeNow = time(nullptr);
        bool bBusy = pClass_This->ScanTable(nTimeNow, &stl_ListLeave);

        for (const SOCKETOPT_HBLEAVE& st_Leave : stl_ListLeave) {
            CALLBACK_NETCORE_SOCKOPT_HEARTBEAT_EVENT fpCall = pClass_This->lpCall_HeartBeatEvent;
            void* lParam = pClass_This->lParam;
            if (pClass_This->bIsAddr) {
                pClass_This->SocketOpt_HeartBeat_DeleteAddr(st_Leave.tszClientAddr.c_str());
                // expelled peers are reported even without a callback: then there is no one to call
                if (fpCall != nullptr) fpCall(st_Leave.tszClientAddr.c_str(), 0, st_Leave.nLeaveCode, lParam);
            } else {
                // fails in socket mode (its code is left as it sets it): the socket stays listed
                pClass_This->SocketOpt_HeartBeat_DeleteSocket(st_Leave.hSocket);
                if (fpCall != nullptr) fpCall(nullptr, st_Leave.hSocket, st_Leave.nLeaveCode, lParam);
            }
            // the callback may have stopped, or destroyed, this supervisor
            if (!pSt_Control->bIsRun) break;
        }
        stl_ListLeave.clear();
        if (!pSt_Control->bIsRun) break;
        pClass_This->WaitNextPass(pSt_Control, nTimeNow, bBusy);
    }
}
