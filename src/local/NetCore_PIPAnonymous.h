// CNetCore_PIPAnonymous: pipe() pairs known by a name inside the process. Exported as
// NetCore_PIPAnonymous_* through the global m_PIPAnonymous.
#pragma once

#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "Ombrelt_NetCore.h"

struct tag_NetCore_NetPipMap_Anonymous {
    int hRead;
    int hWrite;
    // A third slot that pipe() never fills: it holds a value that is neither -1 (Create tests it)
    // nor a descriptor (Close would close someone else's).
    int hReserved;
};

class NETCORE_API CNetCore_PIPAnonymous {
public:
    CNetCore_PIPAnonymous() = default;
    ~CNetCore_PIPAnonymous();
    CNetCore_PIPAnonymous(const CNetCore_PIPAnonymous&) = delete;
    CNetCore_PIPAnonymous& operator=(const CNetCore_PIPAnonymous&) = delete;

    bool NetCore_PIPAnonymous_Create(const char* lpszPipeName, unsigned long* pulReserved = nullptr);
    bool NetCore_PIPAnonymous_Read(const char* lpszPipeName, char* ptszMsgBuffer, int* pInt_Len);
    bool NetCore_PIPAnonymous_Write(const char* lpszPipeName, const char* lpszMsgBuffer, int nMsgLen);
    bool NetCore_PIPAnonymous_Close(const char* lpszPipeName);

private:
    // Exclusive for every operation, Read included: a Read waiting for data holds off the family.
    std::shared_mutex st_Locker;
    std::unordered_map<std::string, tag_NetCore_NetPipMap_Anonymous> stl_MapPipAnonymous;
};
