// The main demo: exercises the library on loopback and prints what it did.
//
// Usage: netcore_demo
#include <cstdio>

#include "Demo.h"
#include "Ombrelt_NetCore.h"

namespace {
int g_nFailures = 0;
}

void Report(const char* lpszStep, bool bOk) {
    if (bOk) {
        printf("  %-44s ok\n", lpszStep);
        return;
    }
    int nSysError = 0;
    unsigned long long nCode = NetCore_GetLastError(&nSysError);
    printf("  %-44s FAILED code 0x%08llX errno %d\n", lpszStep, nCode, nSysError);
    g_nFailures++;
}

int main() {
    DemoSocket();
    DemoHeartBeat();
    DemoUDPXCore();
    DemoLocal();
    DemoTCPServers();
    DemoTCPXCore();
    DemoSerial();
    DemoDatagram();
    DemoUDX();
    printf("%s\n", g_nFailures == 0 ? "demo finished: all steps ok" : "demo finished with failures");
    return g_nFailures == 0 ? 0 : 1;
}
