#include "Ombrelt_BaseLib.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

extern "C" {

bool BaseLib_OperatorMemory_Malloc(void*** pppMem, int nCount, int nSize) {
    if (pppMem == nullptr) return false;
    *pppMem = nullptr;
    if (nCount < 0 || nSize < 0) return false;
    if (nCount == 0) return true;

    void** ppList = static_cast<void**>(calloc(static_cast<size_t>(nCount), sizeof(void*)));
    if (ppList == nullptr) return false;
    for (int i = 0; i < nCount; i++) {
        // calloc of 0 bytes may give null; a block of at least one byte keeps "null = failure"
        ppList[i] = calloc(1, nSize > 0 ? static_cast<size_t>(nSize) : 1);
        if (ppList[i] == nullptr) {
            BaseLib_OperatorMemory_Free(&ppList, i);
            return false;
        }
    }
    *pppMem = ppList;
    return true;
}

bool BaseLib_OperatorMemory_Free(void*** pppMem, int nCount) {
    if (pppMem == nullptr) return false;
    if (*pppMem == nullptr) return true;
    for (int i = 0; i < nCount; i++)
        free((*pppMem)[i]);
    free(*pppMem);
    *pppMem = nullptr;
    return true;
}

unsigned long long BaseLib_OperatorTime_GetTickCount64(void) {
    struct timespec st_Now {};
    clock_gettime(CLOCK_MONOTONIC, &st_Now);
    return static_cast<unsigned long long>(st_Now.tv_sec) * 1000ULL +
           static_cast<unsigned long long>(st_Now.tv_nsec) / 1000000ULL;
}

unsigned long BaseLib_OperatorTime_GetTickCount(void) {
    return static_cast<unsigned long>(BaseLib_OperatorTime_GetTickCount64());
}

bool BaseLib_OperatorIPAddr_SegAddr(char* ptszAddr, int* pInt_Port) {
    if (ptszAddr == nullptr || pInt_Port == nullptr) return false;
    char* pColon = strrchr(ptszAddr, ':');
    if (pColon == nullptr) return false;
    *pColon = '\0';
    *pInt_Port = atoi(pColon + 1);

    size_t nLen = strlen(ptszAddr);
    if (nLen >= 2 && ptszAddr[0] == '[' && ptszAddr[nLen - 1] == ']') {
        memmove(ptszAddr, ptszAddr + 1, nLen - 2);
        ptszAddr[nLen - 2] = '\0';
    }
    return true;
}
}
