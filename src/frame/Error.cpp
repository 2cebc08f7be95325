#include <cerrno>

#include "base/Error.h"

extern "C" {

NETCORE_API bool NetCore_IsErrorOccur = false;
NETCORE_API unsigned long long NetCore_dwErrorCode = 0;

NETCORE_API unsigned long long NetCore_GetLastError(int* pInt_SysError) {
    if (pInt_SysError != nullptr) {
        *pInt_SysError = errno;
    }
    return netcore::GetErrorCode();
}
}
