// The main demo: each family shows itself in one section, run in order by DemoMain.cpp.
#pragma once

// Prints one step and whether it worked; a failure also prints the library's code and errno and
// makes the demo end with a non-zero status.
void Report(const char* lpszStep, bool bOk);

void DemoSocket();
void DemoHeartBeat();
void DemoUDPXCore();
void DemoLocal();
void DemoTCPServers();
void DemoTCPXCore();
void DemoSerial();
void DemoDatagram();
void DemoUDX();
