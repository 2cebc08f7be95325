/*
 * Ombrelt ManagePool (companion): runs a given list of tasks, one thread each.
 */
#ifndef OMBRELT_MANAGEPOOL_H
#define OMBRELT_MANAGEPOOL_H

#include <stdbool.h>

#define MANAGEPOOL_API __attribute__((visibility("default")))

#define ERROR_MANAGEPOOL_THREAD_NQCREATE_PARAMENT 0x0A020001 /* null list, null task or count below 1 */
#define ERROR_MANAGEPOOL_THREAD_NQCREATE_MALLOC 0x0A020002   /* the pool record could not be made */
#define ERROR_MANAGEPOOL_THREAD_NQCREATE_THREAD 0x0A020003   /* a thread could not be started */
#define ERROR_MANAGEPOOL_THREAD_NQDESTROY_PARAMENT 0x0A020010

#ifdef __cplusplus
extern "C" {
#endif

/* One task: the body is called once, on its own thread, with lParam. 16 bytes. */
typedef struct tag_ThreadPool_Parament {
    void* lParam;
    void* (*fpCall_ThreadsTask)(void* lParam);
} THREADPOOL_PARAMENT;

/* Starts nListCount threads, thread i running (*pppSt_ListParam)[i]->fpCall_ThreadsTask once with
 * its lParam (the list as BaseLib_OperatorMemory_Malloc makes it). No body starts before every
 * thread exists; if one cannot be created, none runs and null is returned. The records are read
 * before this returns. Null on failure, see ManagePool_GetLastError. */
MANAGEPOOL_API void* ManagePool_Thread_NQCreate(THREADPOOL_PARAMENT*** pppSt_ListParam, int nListCount);
/* Waits until every task body has returned, then releases the pool. */
MANAGEPOOL_API bool ManagePool_Thread_NQDestroy(void* xhPool);
/* The code of the pool's latest failure; a non-null pInt_SysError receives errno. */
MANAGEPOOL_API unsigned long long ManagePool_GetLastError(int* pInt_SysError);

#ifdef __cplusplus
}
#endif

#endif /* OMBRELT_MANAGEPOOL_H */
