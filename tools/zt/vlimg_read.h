// Reading VLIMG pages for info, extract and merge.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <zt/vlimg.h>

namespace zt::tool {

// An open VLIMG file, closed on scope exit.
class VlimgReader {
 public:
  explicit VlimgReader(const std::string &path);
  ~VlimgReader();
  VlimgReader(const VlimgReader &) = delete;
  VlimgReader &operator=(const VlimgReader &) = delete;
  VLIMG_File *file() const { return f_; }
  // Pages in the chain (mipmaps not counted); the reader is left on page 0.
  uint32_t count_pages();
  void seek(uint32_t page);
  uint32_t u32(uint32_t tag, uint32_t fallback) const;
  bool has(uint32_t tag) const;
  std::vector<uint32_t> bpp() const;
  // Lines [y, y + lines) of the page, packed as the file stores them.
  void read_lines(uint32_t y, uint32_t lines, uint8_t *dst, size_t stride);
  const std::string &path() const { return path_; }

 private:
  std::string path_;
  VLIMG_File *f_ = nullptr;
  uint32_t next_line_ = 0;
};

}  // namespace zt::tool
