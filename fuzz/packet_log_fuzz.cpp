// The field-by-field packet log (LogPacketItem / LogPacketList) on a body of
// the input's bytes, the first byte choosing the class and item or list. The
// log goes to a client only (no file). It must succeed exactly when the body
// decodes, move the read offset as far as decoding does, write only records
// the log can hold (no line breaks, within the length limit), and log a body
// and its re-encoding alike.
#include <zt/log.h>
#include <zt/packets.h>

#include <mutex>
#include <string>
#include <vector>

#include "codec_fuzz_support.h"
#include "packet_io_fuzz_support.h"

namespace {

using zt::fuzz::check;

std::mutex g_mutex;
std::vector<std::string> g_lines;

void on_message(void *, const char *, const char *function, const char *message, int64_t, uint32_t) {
  const std::string text(message);
  check(text.size() <= ZT_LOG_MAX_MESSAGE && text.find_first_of("\r\n") == std::string::npos);
  const std::string fn(function);
  if (fn != "LogPacketItem" && fn != "LogPacketList") return;
  std::lock_guard<std::mutex> lock(g_mutex);
  g_lines.push_back(fn + ": " + text);
}

std::vector<std::string> take_lines() {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::vector<std::string> lines;
  lines.swap(g_lines);
  return lines;
}

ZTPacketMemory *body_of(const void *bytes, size_t n) {
  ZTPacketMemory *pm = InitAllocPacketMemory(0);
  check(pm != nullptr && AppendPacketMemory(pm, bytes, n) == 0);
  return pm;
}

// Logs the body; returns the status and leaves the lines and the offset.
int32_t log_body(ZTPacketMemory *pm, uint32_t cls, bool list, std::vector<std::string> &lines) {
  take_lines();
  const int32_t rc = list ? LogPacketList(pm, cls) : LogPacketItem(pm, cls);
  lines = take_lines();
  return rc;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_packet_library();
  LogErrorDisable(0);
  check(LogErrorAddClient(on_message, nullptr) > 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  const uint32_t cls = zt::fuzz::kPacketClasses[data[0] % 4];
  const bool list = data[0] & 4;

  ZTPacketMemory *logged = body_of(data + 1, size - 1);
  std::vector<std::string> lines;
  const int32_t rc = log_body(logged, cls, list, lines);

  // The same bytes through the decoder alone.
  ZTPacketMemory *decoded = body_of(data + 1, size - 1);
  ZTPacketMemory *text = InitAllocPacketMemory(0);
  check(text != nullptr);
  bool ok;
  if (list) {
    ZTListNode *l = MakeListFromPacket(decoded, cls);
    // An empty list decodes to NULL, having read its markers.
    ok = l != nullptr || decoded->read_offset != 0;
    if (ok) check(MakePacketDataFromList(text, l, cls) == 0);
    ZTPacketFreeList(&l, cls);
  } else {
    void *item = MakeItemFromPacket(decoded, cls);
    ok = item != nullptr;
    if (ok) check(MakePacketDataFromItem(text, item, cls) == 0);
    ZTPacketFreeItem(item, cls);
  }
  check((rc == 0) == ok);
  if (ok) {
    check(logged->read_offset == decoded->read_offset);
    std::vector<std::string> again;
    check(log_body(text, cls, list, again) == 0 && again == lines);
  } else {
    check(lines.empty());
  }
  FreePacketMemory(&text);
  FreePacketMemory(&decoded);
  FreePacketMemory(&logged);
  return 0;
}
