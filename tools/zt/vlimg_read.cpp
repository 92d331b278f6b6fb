// Reading VLIMG pages for info, extract and merge.
#include "vlimg_read.h"

#include <algorithm>
#include <cstring>

#include "tool.h"

namespace zt::tool {

VlimgReader::VlimgReader(const std::string &path) : path_(path) {
  Library::clear_message();
  f_ = VLIMG_Open(path.c_str(), VLIMG_MODE_READ);
  if (!f_) fail_lib(path);
}

VlimgReader::~VlimgReader() {
  if (f_) VLIMG_Close(f_);
}

uint32_t VlimgReader::count_pages() {
  uint32_t pages = 1;
  for (;;) {
    uint64_t next = 0;
    if (VLIMG_GetField(f_, VLIMG_TAG_NEXTPAGE, &next) != 0 || next == 0) break;
    if (VLIMG_NumMipmaps(f_) > 0) {
      // The link may lead to a mipmap: only a seek tells whether a page follows.
      if (VLIMG_SeekToPage(f_, pages) != 0) break;
    } else if (VLIMG_SeekToPage(f_, pages) != 0) {
      fail_lib(path_ + ": damaged page chain after page " + std::to_string(pages));
    }
    ++pages;
  }
  Library::clear_message();
  seek(0);
  return pages;
}

void VlimgReader::seek(uint32_t page) {
  Library::clear_message();
  if (VLIMG_SeekToPage(f_, page) != 0) fail_lib(path_ + ": no page " + std::to_string(page + 1));
  next_line_ = 0;
}

bool VlimgReader::has(uint32_t tag) const {
  uint8_t buf[64];
  const bool ok = VLIMG_GetField(f_, tag, buf) == 0;
  if (!ok) Library::clear_message();
  return ok;
}

uint32_t VlimgReader::u32(uint32_t tag, uint32_t fallback) const {
  uint32_t v = 0;
  if (VLIMG_GetField(f_, tag, &v) != 0) {
    Library::clear_message();
    return fallback;
  }
  return v;
}

std::vector<uint32_t> VlimgReader::bpp() const {
  std::vector<uint32_t> v(VLIMG_MAX_PLANES, 0);
  if (VLIMG_GetField(f_, VLIMG_TAG_BPP_ARRAY, v.data()) != 0) fail_lib(path_ + ": no bits-per-pixel array");
  v.resize(VLIMG_NumPlanes(f_));
  return v;
}

void VlimgReader::read_lines(uint32_t y, uint32_t lines, uint8_t *dst, size_t stride) {
  if (!VLIMG_IsTiled(f_)) {
    if (y != next_line_) {
      if (VLIMG_GoToStartOfData(f_) != 0) fail_lib(path_ + ": cannot rewind");
      next_line_ = 0;
    }
    const size_t bpl = VLIMG_BytesPerLine(f_);
    std::vector<uint8_t> skip(bpl);
    while (next_line_ < y) {
      if (VLIMG_ReadScanline(f_, skip.data()) != 0) fail_lib(path_ + ": cannot read line " + std::to_string(next_line_));
      ++next_line_;
    }
    for (uint32_t l = 0; l < lines; ++l, ++next_line_)
      if (VLIMG_ReadScanline(f_, dst + l * stride) != 0) fail_lib(path_ + ": cannot read line " + std::to_string(y + l));
    return;
  }
  const uint32_t tw = u32(VLIMG_TAG_TILEWIDTH, 0), th = u32(VLIMG_TAG_TILEHEIGHT, 0);
  const uint32_t width = u32(VLIMG_TAG_WIDTH, 0);
  const uint32_t bits = VLIMG_BitsPerPixel(f_);
  if (tw == 0 || th == 0 || y % th != 0) fail(path_ + ": tiles do not match the read");
  if ((static_cast<uint64_t>(tw) * bits) % 8 != 0) fail(path_ + ": tiles that do not start on a byte are not supported");
  const uint32_t across = (width + tw - 1) / tw;
  std::vector<uint32_t> idx, strides;
  std::vector<uint8_t *> dsts;
  for (uint32_t ty = y / th; ty * th < y + lines; ++ty)
    for (uint32_t tx = 0; tx < across; ++tx) {
      idx.push_back(ty * across + tx);
      dsts.push_back(dst + (ty * th - y) * stride + static_cast<size_t>(tx) * tw * bits / 8);
      strides.push_back(static_cast<uint32_t>(stride));
    }
  if (VLIMG_ReadTiles(f_, idx.data(), static_cast<uint32_t>(idx.size()), dsts.data(), strides.data()) != 0)
    fail_lib(path_ + ": cannot read the tiles of lines " + std::to_string(y) + " to " + std::to_string(y + lines - 1));
}

}  // namespace zt::tool
