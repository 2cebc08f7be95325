// CNetCore_PIPMailSlot: a registry of mailslot names. The platform has no mailslots, so the
// operations keep the names and check their arguments but move no data. A class only: no global
// object and no exported C function.
#pragma once

#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "Ombrelt_NetCore.h"

struct NETCORE_PIPMAILSLOT {
    char tszMailName[260];  // left empty by OPen
};

class NETCORE_API CNetCore_PIPMailSlot {
public:
    bool NetCore_PIPMailSlot_Create(const char* lpszMailName);
    bool NetCore_PIPMailSlot_OPen(const char* lpszMailName);
    bool NetCore_PIPMailSlot_Read(const char* lpszMailName, char* ptszMsgBuffer, int* pInt_Len);
    bool NetCore_PIPMailSlot_Write(const char* lpszMailName, const char* lpszMsgBuffer, int nMsgLen);
    bool NetCore_PIPMailSlot_Close(const char* lpszMailName);
    bool NetCore_PIPMailSlot_SetAttr(const char* lpszMailName, int nMaxSize, int nTimeOut);
    bool NetCore_PIPMailSlot_GetAttr(const char* lpszMailName, int* pInt_MaxSize, int* pInt_NextSize, int* pInt_Count);

private:
    bool Insert(const char* lpszMailName, const NETCORE_PIPMAILSLOT& st_MailSlot);
    bool Exists(const char* lpszMailName);

    // Exclusive to insert and erase, shared for Read and Write.
    std::shared_mutex st_Locker;
    std::unordered_map<std::string, NETCORE_PIPMAILSLOT> stl_MapMailSlot;
};
