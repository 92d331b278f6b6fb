// Packet bodies as files, and the field-by-field log of a body.
#include "foundation/internal.h"
#include "packets/field_types.h"
#include "packets/packets_internal.h"

#include <zt/packets.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>

using namespace zt::packets;

namespace {

struct FileCloser {
  void operator()(std::FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

struct PacketMemoryFree {
  void operator()(ZTPacketMemory *pm) const { FreePacketMemory(&pm); }
};
using PacketMemoryPtr = std::unique_ptr<ZTPacketMemory, PacketMemoryFree>;

// Walks well-formed text (as the encoder wrote it) and logs one line per
// field, indenting nested items.
void log_text(const char *function, const RegistryReader &reg, const char *p, const char *end) {
  std::vector<const ClassInfo *> stack;
  while (p < end) {
    const char *lf = static_cast<const char *>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
    if (lf == nullptr) lf = end;
    const char *space = static_cast<const char *>(std::memchr(p, ' ', static_cast<size_t>(lf - p)));
    if (space == nullptr) space = lf;
    const int tl = static_cast<int>(space - p);
    const char *data = space < lf ? space + 1 : lf;
    const int dl = static_cast<int>(lf - data);
    if (tl == 2 && (p[0] == 'S' || p[0] == 'T') && (p[1] == 'I' || p[1] == 'L')) {
      if (p[0] == 'S')
        stack.push_back(reg.lookup(static_cast<uint32_t>(std::strtoul(data, nullptr, 16))));
      else if (!stack.empty())
        stack.pop_back();
    } else if (!stack.empty() && stack.back() != nullptr) {
      const ClassInfo *cls = stack.back();
      const int32_t row = cls->find(std::strtoull(std::string(p, static_cast<size_t>(tl)).c_str(), nullptr, 16));
      const Field *f = row >= 0 ? &cls->fields[static_cast<size_t>(row)] : nullptr;
      const int indent = static_cast<int>(stack.size() - 1) * 2;
      const std::string fmt = std::string("%*.*s(%3.3x) <%-20.20s> ") + (f ? f->type->log_label : "Data:") + " %*.*s";
      ZTLogMessage(kModule, function, 0, 1, 1, fmt.c_str(), indent, indent, "", f ? f->tag : 0u,
                   f ? f->name : "", dl, dl, data);
    }
    p = lf + 1;
  }
}

int log_packet(ZTPacketMemory *pm, uint32_t class_number, bool list) {
  const char *fn = list ? "LogPacketList" : "LogPacketItem";
  // Decoding first checks the body and reports its faults once; the walk then
  // runs over the encoder's own text.
  PacketMemoryPtr text(InitAllocPacketMemory(0));
  if (!text) return -1;
  int rc = -1;
  if (list) {
    const uint64_t before = pm ? pm->read_offset : 0;
    ZTListNode *l = MakeListFromPacket(pm, class_number);
    if (l == nullptr && (pm == nullptr || pm->read_offset == before)) return -1;
    rc = MakePacketDataFromList(text.get(), l, class_number);
    ZTPacketFreeList(&l, class_number);
  } else {
    void *item = MakeItemFromPacket(pm, class_number);
    if (item == nullptr) return -1;
    rc = MakePacketDataFromItem(text.get(), item, class_number);
    ZTPacketFreeItem(item, class_number);
  }
  if (rc != 0) return -1;
  RegistryReader reg;
  log_text(fn, reg, text->data, text->data + text->body_length);
  return 0;
}

int write_raw(const char *path, const void *data, uint64_t length) {
  const char *fn = "WriteRawPacketDataToFile";
  if (path == nullptr || (data == nullptr && length != 0)) {
    ZT_LOG(kModule, fn, "Failed to open info file: %s for write", path ? path : "(null)");
    return -1;
  }
  struct stat st;
  if (::stat(path, &st) == 0) {
    const std::string safety = std::string(path) + "_dss";
    if (std::rename(path, safety.c_str()) != 0) {
      ZT_LOG(kModule, fn, "Failed to Rename File %s to Safety file: %s", path, safety.c_str());
      return -1;
    }
  }
  File out(std::fopen(path, "wb"));
  if (!out) {
    ZT_LOG(kModule, fn, "Failed to open info file: %s for write", path);
    return -1;
  }
  if (length != 0 && std::fwrite(data, 1, length, out.get()) != length) {
    ZT_LOG(kModule, fn, "Failed to write %d bytes to file: %s", static_cast<int>(length), path);
    return -1;
  }
  if (std::fclose(out.release()) != 0) {
    ZT_LOG(kModule, fn, "Failed to write %d bytes to file: %s", static_cast<int>(length), path);
    return -1;
  }
  return 0;
}

}  // namespace

extern "C" {

ZT_API int32_t LogPacketItem(ZTPacketMemory *pm, uint32_t class_number) {
  return zt::api_guard<int32_t>(kModule, "LogPacketItem", -1, [&] { return log_packet(pm, class_number, false); });
}

ZT_API int32_t LogPacketList(ZTPacketMemory *pm, uint32_t class_number) {
  return zt::api_guard<int32_t>(kModule, "LogPacketList", -1, [&] { return log_packet(pm, class_number, true); });
}

ZT_API int32_t WriteRawPacketDataToFile(const char *path, const void *data, uint64_t length) {
  return zt::api_guard<int32_t>(kModule, "WriteRawPacketDataToFile", -1, [&] { return write_raw(path, data, length); });
}

ZT_API int32_t WritePacketDataToFile(const char *path, const ZTPacketMemory *pm) {
  if (pm == nullptr) {
    ZT_LOG(kModule, "WritePacketDataToFile", "PacketMemory Struct Is NULL No Processing Done");
    return -1;
  }
  return WriteRawPacketDataToFile(path, pm->data, pm->body_length);
}

ZT_API int32_t WritePacketToFile(const char *path, const ZTPacketMemory *pm) {
  if (pm == nullptr) {
    ZT_LOG(kModule, "WritePacketToFile", "PacketMemory Struct Is NULL No Processing Done");
    return -1;
  }
  return WriteRawPacketDataToFile(path, pm->header, pm->total_length);
}

ZT_API int32_t WritePacketDataFileFromList(const char *path, const ZTListNode *list, uint32_t class_number) {
  PacketMemoryPtr pm(InitAllocPacketMemory(0));
  if (!pm) return -1;
  if (MakePacketDataFromList(pm.get(), list, class_number) != 0) return -1;
  return WritePacketDataToFile(path, pm.get());
}

ZT_API ZTPacketMemory *ReadPacketFromFileSizeLimited(const char *path, uint64_t limit) {
  return zt::api_guard<ZTPacketMemory *>(kModule, "ReadPacketFromFileSizeLimited", nullptr, [&]() -> ZTPacketMemory * {
    const char *fn = "ReadPacketFromFileSizeLimited";
    if (limit == 0) limit = ZT_PACKET_DEFAULT_FILE_LIMIT;
    struct stat st;
    if (path == nullptr || ::stat(path, &st) != 0) {
      ZT_LOG(kModule, fn, "Cannot Stat file: %s", path ? path : "(null)");
      return nullptr;
    }
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    if (size > limit) {
      ZT_LOG(kModule, fn, "File: %s Of %llu Bytes Is Above The Limit Of %llu Bytes", path,
             static_cast<unsigned long long>(size), static_cast<unsigned long long>(limit));
      return nullptr;
    }
    File in(std::fopen(path, "rb"));
    if (!in) {
      ZT_LOG(kModule, fn, "Failed To Open File: %s For Read", path);
      return nullptr;
    }
    PacketMemoryPtr pm(InitAllocPacketMemory(0));
    if (!pm || MaintainPacketMemory(pm.get(), size) != 0) return nullptr;
    if (size != 0 && std::fread(pm->ptr, 1, size, in.get()) != size) {
      ZT_LOG(kModule, fn, "Failed to read %d bytes to file: %s", static_cast<int>(size), path);
      return nullptr;
    }
    pm->ptr += size;
    *pm->ptr = '\0';
    pm->body_length = size;
    pm->total_length = size;
    return pm.release();
  });
}

ZT_API ZTListNode *ReadListFromPacketDataFile(const char *path, uint32_t class_number) {
  PacketMemoryPtr pm(ReadPacketFromFileSizeLimited(path, 0));
  if (!pm) return nullptr;
  return MakeListFromPacket(pm.get(), class_number);
}

}  // extern "C"
