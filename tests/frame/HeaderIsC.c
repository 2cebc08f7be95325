/* The public header is usable from C: this file is compiled as C into the frame suite. */
#include "Ombrelt_NetCore.h"

int NetCoreHeaderIsC(void);
int NetCoreHeaderIsC(void) {
    bool (*fnCreate)(int*, bool, int, bool) = NetCore_Socket_Create;
    return fnCreate != 0 && sizeof(NetCore_dwErrorCode) == 8;
}
