// CNetCore_PIPNamed: FIFOs in the file system, created or opened by path. Exported as
// NetCore_PIPNamed_* through the global m_PIPNamed.
#pragma once

#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "Ombrelt_NetCore.h"

struct NETCORE_PIPNAEMD {
    bool bConnect;  // always false: a FIFO opened read-write has nothing to connect
    bool bCreator;  // this process made the FIFO, so its Close unlinks the path
    int hPipe;      // read-write, non-blocking
    char tszPipeName[260];
};

class NETCORE_API CNetCore_PIPNamed {
public:
    CNetCore_PIPNamed() = default;
    ~CNetCore_PIPNamed();
    CNetCore_PIPNamed(const CNetCore_PIPNamed&) = delete;
    CNetCore_PIPNamed& operator=(const CNetCore_PIPNamed&) = delete;

    bool NetCore_PIPNamed_Create(const char* lpszPipeName);
    bool NetCore_PIPNamed_Close(const char* lpszPipeName);
    bool NetCore_PIPNamed_Read(const char* lpszPipeName, char* ptszMsgBuffer, int* pInt_Len);
    bool NetCore_PIPNamed_Write(const char* lpszPipeName, const char* lpszMsgBuffer, int nMsgLen);
    bool NetCore_PIPNamed_OPen(const char* lpszPipeName);
    bool NetCore_PIPNamed_WaitConnect(const char* lpszPipeName);

private:
    bool Insert(const char* lpszPipeName, int hPipe, bool bCreator);

    // Exclusive to insert and erase, shared for Read and Write.
    std::shared_mutex st_Locker;
    std::unordered_map<std::string, NETCORE_PIPNAEMD> stl_MapPipNamed;
};
