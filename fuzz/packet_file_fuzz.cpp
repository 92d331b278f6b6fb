// The packet file readers on a file holding the input (after its first byte,
// which picks the storage class and a small size limit): the file comes back
// exactly when it is within the limit, the list reader decodes what the body
// decoder decodes from the same bytes, and a decoded list survives the file
// writers (with their safety copy) unchanged. packet_default_limits runs the
// same with the library's default limit.
#include "packet_io_fuzz_support.h"
#include "scratch_dir.h"

namespace {
std::string g_dir;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  g_dir = zt::fuzz::ScratchDir::enter("packet_file");
  zt::fuzz::start_packet_library();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zt::fuzz::run_packet_file(data, size, g_dir, false);
  return 0;
}
