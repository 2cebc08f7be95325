#include "UDXPacket.h"

#include <cstring>

namespace netcore::udx {

namespace {

template <typename T>
void Put(char* ptszBuffer, int nOffset, T tValue) {
    memcpy(ptszBuffer + nOffset, &tValue, sizeof(T));
}

template <typename T>
T Get(const char* lpszBuffer, int nOffset) {
    T tValue;
    memcpy(&tValue, lpszBuffer + nOffset, sizeof(T));
    return tValue;
}

}  // namespace

void UDX_BuildHeader(uint32_t unPayloadLen, char* ptszBuffer, uint16_t* pwSerial, uint32_t unPacketType) {
    memset(ptszBuffer, 0, UDX_HEADER_SIZE);
    uint16_t wSerial = 0;
    if (pwSerial != nullptr) {
        wSerial = *pwSerial;
        // only DATA packets consume a serial; the counter wraps from 65535 to 0
        if (unPacketType == UDX_PACKET_DATA) *pwSerial = static_cast<uint16_t>(wSerial + 1);
    }
    Put<uint16_t>(ptszBuffer, 0, UDX_START_MARK);
    Put<uint32_t>(ptszBuffer, 10, UDX_PACKET_CLASS);
    Put<uint32_t>(ptszBuffer, 14, unPacketType);
    Put<uint32_t>(ptszBuffer, 18, unPayloadLen);
    Put<uint8_t>(ptszBuffer, 22, 1);
    Put<uint8_t>(ptszBuffer, 23, 0);
    Put<uint16_t>(ptszBuffer, 26, wSerial);
    Put<uint16_t>(ptszBuffer, 28, UDX_END_MARK);
}

void UDX_ReadHeader(const char* lpszBuffer, UDXHeader* pSt_Header) {
    pSt_Header->wStartMark = Get<uint16_t>(lpszBuffer, 0);
    memcpy(pSt_Header->byReserved, lpszBuffer + 2, sizeof(pSt_Header->byReserved));
    pSt_Header->unPacketClass = Get<uint32_t>(lpszBuffer, 10);
    pSt_Header->unPacketType = Get<uint32_t>(lpszBuffer, 14);
    pSt_Header->unPayloadLen = Get<uint32_t>(lpszBuffer, 18);
    pSt_Header->byConstOne = Get<uint8_t>(lpszBuffer, 22);
    pSt_Header->byConstZero = Get<uint8_t>(lpszBuffer, 23);
    pSt_Header->wReserved = Get<uint16_t>(lpszBuffer, 24);
    pSt_Header->wHdrSerial = Get<uint16_t>(lpszBuffer, 26);
    pSt_Header->wEndMark = Get<uint16_t>(lpszBuffer, 28);
}

bool UDX_HeaderValid(const UDXHeader& st_Header) {
    return st_Header.wStartMark == UDX_START_MARK && st_Header.wEndMark == UDX_END_MARK &&
           st_Header.unPacketClass == UDX_PACKET_CLASS;
}

}  // namespace netcore::udx
