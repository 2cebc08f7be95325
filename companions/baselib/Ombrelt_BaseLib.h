/*
 * Ombrelt BaseLib (companion): the memory, time and address helpers NetCore uses.
 */
#ifndef OMBRELT_BASELIB_H
#define OMBRELT_BASELIB_H

#include <stdbool.h>

#define BASELIB_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* Allocates a list of nCount zeroed blocks of nSize bytes: *pppMem becomes an array of nCount
 * pointers, each to its own block. Release it with BaseLib_OperatorMemory_Free and the same count.
 * A count of 0 stores a null list and succeeds; a null pointer, a negative count or size, or an
 * allocation failure returns false and leaves *pppMem null. */
BASELIB_API bool BaseLib_OperatorMemory_Malloc(void*** pppMem, int nCount, int nSize);
/* Frees every block and the list, then sets *pppMem to null. A null list is allowed. */
BASELIB_API bool BaseLib_OperatorMemory_Free(void*** pppMem, int nCount);

/* Milliseconds of a monotonic clock (not affected by changes of the wall clock). */
BASELIB_API unsigned long BaseLib_OperatorTime_GetTickCount(void);
BASELIB_API unsigned long long BaseLib_OperatorTime_GetTickCount64(void);

/* Splits "address:port" in place at its last colon: the text ends at the address and *pInt_Port
 * receives the port. Unbracketed IPv6 ("::1:8080") works because the last colon is taken;
 * a bracketed form ("[::1]:8080") loses its brackets. False when there is no colon. */
BASELIB_API bool BaseLib_OperatorIPAddr_SegAddr(char* ptszAddr, int* pInt_Port);

#ifdef __cplusplus
}
#endif

#endif /* OMBRELT_BASELIB_H */
