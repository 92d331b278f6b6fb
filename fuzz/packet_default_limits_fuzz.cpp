// The socket framing and the packet file readers under the library's default
// limits (a body of up to 256 MiB announced in a header, files up to the
// default file limit), so that faults which need a large announced size can
// show: libFuzzer reports any single allocation beyond its memory limit. Bit 0
// of the first byte picks the reader; the rest of the input is what it reads.
// Slower per input than packet_socket and packet_file, which run the same
// checks under small limits.
#include "packet_io_fuzz_support.h"
#include "scratch_dir.h"

namespace {
std::string g_dir;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  g_dir = zt::fuzz::ScratchDir::enter("packet_limits");
  zt::fuzz::start_packet_library();
  ZTPacketSetMaxBodyLength(0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  if (data[0] & 1)
    zt::fuzz::run_socket_framing(data + 1, size - 1);
  else
    zt::fuzz::run_packet_file(data + 1, size - 1, g_dir, true);
  return 0;
}
