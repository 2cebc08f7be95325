// The last-error convention shared by every operation of the library.
//
// An operation calls ClearError() on entry and returns Fail(code) at its first failing step.
// The two globals are plain process-wide variables that any thread may write, so they are only
// touched through relaxed atomic accesses: the layout a caller sees stays a one-byte bool and a
// 64-bit integer, and concurrent writers never form a data race.
#pragma once

#include "Ombrelt_NetCore.h"

namespace netcore {

inline void SetErrorFlag(bool bError) {
    __atomic_store_n(&NetCore_IsErrorOccur, bError, __ATOMIC_RELAXED);
}

inline void SetErrorCode(unsigned long long nCode) {
    __atomic_store_n(&NetCore_dwErrorCode, nCode, __ATOMIC_RELAXED);
}

inline unsigned long long GetErrorCode() {
    return __atomic_load_n(&NetCore_dwErrorCode, __ATOMIC_RELAXED);
}

// Entry of every operation that can fail. The flag is only written when it is set, so that the
// many threads clearing it do not keep stealing its cache line from one another.
inline void ClearError() {
    if (__atomic_load_n(&NetCore_IsErrorOccur, __ATOMIC_RELAXED)) SetErrorFlag(false);
}

// "Set the code and fail": the flag goes up, the code is stored, the caller returns false.
inline bool Fail(unsigned long long nCode) {
    SetErrorFlag(true);
    SetErrorCode(nCode);
    return false;
}

// The same for operations that hand out a handle.
template <typename T = void>
inline T* FailNull(unsigned long long nCode) {
    Fail(nCode);
    return nullptr;
}

}  // namespace netcore
