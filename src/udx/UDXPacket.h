// The UDX wire format: the 30-byte packet header, the packet types, and the records a session
// queues. Socket-free and clock-free, so the parser can be driven by tests and by the fuzzer.
#pragma once

#include <cstdint>
#include <vector>

namespace netcore::udx {

constexpr int UDX_HEADER_SIZE = 30;
// Every queued packet and every datagram handed to the UDP server fits this buffer.
constexpr int UDX_BUFFER_SIZE = 2048;
// Larger messages are cut into pieces of this payload size.
constexpr int UDX_PIECE_SIZE = 1400;
// With merging on, DATA payloads below this size wait for the merging thread.
constexpr int UDX_MTAP_LIMIT = 700;

constexpr uint16_t UDX_START_MARK = 0x0011;
constexpr uint16_t UDX_END_MARK = 0x00FF;
constexpr uint32_t UDX_PACKET_CLASS = 8;

enum : uint32_t {
    UDX_PACKET_CONNECT_REFUSED = 0x0002,
    UDX_PACKET_DATA = 0x9000,
    UDX_PACKET_CONNECT = 0x9001,
    UDX_PACKET_CONNECT_OK = 0x9002,
    UDX_PACKET_RESEND_REQUEST = 0x9003,
    UDX_PACKET_RESEND_GONE = 0x9004,
    UDX_PACKET_WINDOW = 0x9101,
    UDX_PACKET_CLOSE = 0x9102,
    UDX_PACKET_ACK = 0x9103,
};

// The header as its fields; on the wire it is packed, in the host's (little-endian) byte order.
struct UDXHeader {
    uint16_t wStartMark = 0;
    uint8_t byReserved[8] = {};
    uint32_t unPacketClass = 0;
    uint32_t unPacketType = 0;
    uint32_t unPayloadLen = 0;
    uint8_t byConstOne = 0;
    uint8_t byConstZero = 0;
    uint16_t wReserved = 0;
    uint16_t wHdrSerial = 0;
    uint16_t wEndMark = 0;
};

// Writes a header with the fixed values. A DATA header takes *pwSerial and advances it (plain
// 16-bit wrap); any other type stores *pwSerial unchanged; without a pointer the serial is 0.
void UDX_BuildHeader(uint32_t unPayloadLen, char* ptszBuffer, uint16_t* pwSerial, uint32_t unPacketType);
// Reads the 30 bytes at lpszBuffer (the caller guarantees they are there).
void UDX_ReadHeader(const char* lpszBuffer, UDXHeader* pSt_Header);
// The three checks a receiver makes on a datagram's first header; the reserved bytes and the two
// constant bytes are never checked.
bool UDX_HeaderValid(const UDXHeader& st_Header);

// One queued packet: a received payload, a sent packet kept for resending, a resend request or a
// packet waiting to be merged. Its bytes are held at their own size, so a queue of small packets
// costs what they carry rather than a whole datagram buffer each.
struct tag_NetCore_UDXData {
    // received: payload length; to send: header plus payload
    int nMsgLen = 0;
    unsigned short wSerial = 0;
    // millisecond tick at which the record was made
    unsigned long long nTimeSend = 0;
    std::vector<char> tszMsgBuffer;
};

}  // namespace netcore::udx
