// The packet framing on a socket: headers and bodies read back to back from a
// socket pair whose other end wrote the input and closed. Every header laid
// out as the writer does is read, and any header read is what the buffer
// reader reads from the same bytes; a body is read exactly when all of it
// arrived and it is within the limit, and it is the bytes that were sent.
// Nothing waits for the time-out: the peer has closed. The body limit is small so that runs stay fast;
// packet_default_limits runs the same with the library's own limits.
#include "packet_io_fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_packet_library();
  ZTPacketSetMaxBodyLength(1u << 16);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zt::fuzz::run_socket_framing(data, size);
  return 0;
}
