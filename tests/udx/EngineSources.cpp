// The session engine is internal to the library; this suite builds its own copy so that the
// protocol can be driven with a made-up clock and without sockets.
#include "../../src/udx/UDXEngine.cpp"
#include "../../src/udx/UDXPacket.cpp"
