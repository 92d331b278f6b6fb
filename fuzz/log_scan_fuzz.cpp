// The log reader: arbitrary bytes as the log file, read back by the backlog
// and by trimming. Neither may crash, and trimming must leave only whole
// five-line records.
#include <zt/init.h>
#include <zt/lists.h>
#include <zt/log.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "scratch_dir.h"

namespace {

void write_log(const uint8_t *data, size_t size) {
  std::FILE *out = std::fopen("errors.log", "wb");
  if (out == nullptr) std::abort();
  if (size) std::fwrite(data, 1, size, out);
  std::fclose(out);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::ScratchDir::enter("log");
  ZT_InitSubSystems();
  LogErrorDisable(0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  write_log(data, size);
  ZTLogBacklog *backlog = GetErrorMessagesWithBacklog(0);
  size_t records = backlog ? ListLength(&backlog->node) : 0;
  for (ZTLogBacklog *r = backlog; r; r = reinterpret_cast<ZTLogBacklog *>(r->node.next))
    if (std::strlen(r->message) > ZT_LOG_MAX_MESSAGE) std::abort();
  ZTLogFreeBacklog(backlog);

  write_log(data, size);
  LogErrorTrimLogfile(0);
  ZTLogBacklog *again = GetErrorMessagesWithBacklog(0);
  size_t kept = again ? ListLength(&again->node) : 0;
  ZTLogFreeBacklog(again);
  // Trimming keeps exactly the records the reader found (a message that held
  // a NUL is cut there, which does not change the count).
  if (kept != records) std::abort();
  return 0;
}
