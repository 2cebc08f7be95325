// libFuzzer target for the UDX datagram parser and the session engine behind it.
//
// Input: one byte of configuration flags, then datagrams, each preceded by its length (two bytes,
// little-endian). Every datagram is copied into a buffer of exactly its size, so that any read
// past its end is caught. A session for the sender exists before the first datagram.
#include <cstdint>
#include <cstring>
#include <vector>

#include "../../../src/udx/UDXEngine.h"

using netcore::udx::UDXEngine;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    if (nSize < 1) return 0;
    const uint8_t byFlags = pData[0];
    tag_NetCore_UDXConfig st_Config{};
    st_Config.bOrder = (byFlags & 1) != 0;
    st_Config.bReliable = (byFlags & 2) != 0;
    st_Config.bStrictResend = (byFlags & 4) != 0;
    st_Config.bMtap = (byFlags & 8) != 0;
    st_Config.bHeartBeat = (byFlags & 16) != 0;
    st_Config.nWindowSize = (byFlags & 32) != 0 ? 65536 : 0;

    UDXEngine::Hooks st_Hooks;
    st_Hooks.fnSend = [](const char*, const char* lpszData, int nLen) {
        // touch every byte handed out, so that a bad length is caught here too
        volatile char cSum = 0;
        for (int i = 0; i < nLen; ++i)
            cSum = static_cast<char>(cSum + lpszData[i]);
    };
    UDXEngine st_Engine(st_Config, st_Hooks);
    const char* lpszPeer = "192.0.2.1:9000";
    char tszConnect[30];
    netcore::udx::UDX_BuildHeader(0, tszConnect, nullptr, netcore::udx::UDX_PACKET_CONNECT);
    st_Engine.Parse(lpszPeer, tszConnect, sizeof(tszConnect), 0);
    st_Engine.StartTimers(0);

    unsigned long long nTick = 1;
    size_t nOffset = 1;
    while (nOffset + 2 <= nSize) {
        size_t nLen = static_cast<size_t>(pData[nOffset] | (pData[nOffset + 1] << 8));
        nOffset += 2;
        if (nLen > nSize - nOffset) nLen = nSize - nOffset;
        std::vector<char> stl_Datagram(pData + nOffset, pData + nOffset + nLen);
        nOffset += nLen;
        st_Engine.Parse(lpszPeer, stl_Datagram.empty() ? "" : stl_Datagram.data(), static_cast<int>(nLen), nTick);

        char tszOut[2048];
        int nOut = 0;
        while (st_Engine.Recv(lpszPeer, tszOut, &nOut, nTick)) {
        }
        st_Engine.Send(lpszPeer, stl_Datagram.data(), static_cast<int>(nLen), nTick);
        nTick += 700;
        st_Engine.RunSessions(nTick, static_cast<long long>(nTick / 1000));
        st_Engine.RunMtap(nTick);
        st_Engine.RunCloses();
    }
    return 0;
}
