// The buffered file under a VLIMG record. Every read and write names its
// offset (pread/pwrite), so the descriptor's own position never matters and a
// tile can be fetched without disturbing the header reader's buffer.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <thread>

#include "raster/vlimg_internal.h"

namespace zt::raster::vlimg {

namespace {

// A reader of a growing file gives the writer this long to catch up, once
// per empty read.
constexpr auto kGrowWait = std::chrono::milliseconds(8);

ssize_t pread_retry(int fd, void *dst, size_t n, uint64_t offset, bool growing) {
  for (int attempt = 0;; ++attempt) {
    const ssize_t r = ::pread(fd, dst, n, static_cast<off_t>(offset));
    if (r < 0 && errno == EINTR) continue;
    if (r != 0 || !growing || attempt > 0) return r;
    std::this_thread::sleep_for(kGrowWait);
  }
}

}  // namespace

FileIo::~FileIo() {
  if (fd_ >= 0) ::close(fd_);
}

bool FileIo::open(const std::string &name, int flags, bool growing) {
  fd_ = ::open(name.c_str(), flags | O_CLOEXEC, 0664);
  if (fd_ < 0) return false;
  growing_ = growing;
  writing_ = (flags & O_ACCMODE) != O_RDONLY;
  buf_.reset(new uint8_t[kIoBufferSize]);
  return true;
}

uint64_t FileIo::size() const {
  struct stat st {};
  if (fd_ < 0 || ::fstat(fd_, &st) != 0 || st.st_size < 0) return 0;
  return static_cast<uint64_t>(st.st_size);
}

bool FileIo::seek(uint64_t offset) {
  if (writing_) {
    if (!flush()) return false;
    start_ = offset;
    return true;
  }
  if (offset >= start_ && offset <= start_ + fill_) {
    pos_ = static_cast<size_t>(offset - start_);
  } else {
    start_ = offset;
    fill_ = pos_ = 0;
  }
  return true;
}

bool FileIo::fill() {
  start_ += fill_;
  fill_ = pos_ = 0;
  const ssize_t r = pread_retry(fd_, buf_.get(), kIoBufferSize, start_, growing_);
  if (r <= 0) return false;
  fill_ = static_cast<size_t>(r);
  return true;
}

bool FileIo::read(void *dst, size_t n) {
  auto *out = static_cast<uint8_t *>(dst);
  while (n > 0) {
    if (pos_ == fill_) {
      // Large reads go straight to the caller's memory.
      if (n >= kIoBufferSize) {
        const uint64_t at = start_ + fill_;
        if (!pread_at(out, n, at)) return false;
        start_ = at + n;
        fill_ = pos_ = 0;
        return true;
      }
      if (!fill()) return false;
    }
    const size_t take = std::min(n, fill_ - pos_);
    std::memcpy(out, buf_.get() + pos_, take);
    pos_ += take;
    out += take;
    n -= take;
  }
  return true;
}

bool FileIo::skip(uint64_t n) {
  if (n <= fill_ - pos_) {
    pos_ += static_cast<size_t>(n);
    return true;
  }
  return seek(tell() + n);
}

bool FileIo::pread_at(void *dst, size_t n, uint64_t offset) {
  auto *out = static_cast<uint8_t *>(dst);
  while (n > 0) {
    const ssize_t r = pread_retry(fd_, out, std::min<size_t>(n, INT_MAX), offset, growing_);
    if (r <= 0) return false;
    out += r;
    offset += static_cast<uint64_t>(r);
    n -= static_cast<size_t>(r);
  }
  return true;
}

bool FileIo::write_direct(const void *src, size_t n, uint64_t offset) {
  const auto *in = static_cast<const uint8_t *>(src);
  while (n > 0) {
    const ssize_t r = ::pwrite(fd_, in, std::min<size_t>(n, INT_MAX), static_cast<off_t>(offset));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) {
      error_ = true;
      return false;
    }
    in += r;
    offset += static_cast<uint64_t>(r);
    n -= static_cast<size_t>(r);
  }
  return true;
}

bool FileIo::flush() {
  if (error_) return false;
  if (fill_ == 0) return true;
  if (!write_direct(buf_.get(), fill_, start_)) return false;
  start_ += fill_;
  fill_ = 0;
  return true;
}

bool FileIo::write(const void *src, size_t n) {
  if (error_) return false;
  const auto *in = static_cast<const uint8_t *>(src);
  if (fill_ + n > kIoBufferSize) {
    if (!flush()) return false;
    if (n >= kIoBufferSize) {
      if (!write_direct(in, n, start_)) return false;
      start_ += n;
      return true;
    }
  }
  std::memcpy(buf_.get() + fill_, in, n);
  fill_ += n;
  return true;
}

bool FileIo::write_rows(const uint8_t *src, size_t row_bytes, size_t rows, size_t stride) {
  if (row_bytes == stride || rows == 1) return write(src, row_bytes * rows);
  // Rows of a tile go to the kernel as one gather list, not through our buffer.
  if (!flush()) return false;
  iovec iov[512];
  while (rows > 0) {
    const size_t batch = std::min<size_t>(rows, 512);
    for (size_t i = 0; i < batch; ++i) {
      iov[i].iov_base = const_cast<uint8_t *>(src + i * stride);
      iov[i].iov_len = row_bytes;
    }
    size_t want = batch * row_bytes;
    const ssize_t r = ::pwritev(fd_, iov, static_cast<int>(batch), static_cast<off_t>(start_));
    if (r < 0 || static_cast<size_t>(r) != want) {
      // A partial gather write is finished row by row from where it stopped.
      size_t done = r > 0 ? static_cast<size_t>(r) : 0;
      if (r < 0 && errno != EINTR) {
        error_ = true;
        return false;
      }
      for (size_t i = done / row_bytes; i < batch; ++i) {
        const size_t skip = i == done / row_bytes ? done % row_bytes : 0;
        if (!write_direct(src + i * stride + skip, row_bytes - skip, start_ + i * row_bytes + skip))
          return false;
      }
    }
    start_ += want;
    src += batch * stride;
    rows -= batch;
  }
  return true;
}

bool FileIo::pwrite_at(const void *src, size_t n, uint64_t offset) {
  if (!flush()) return false;
  return write_direct(src, n, offset);
}

}  // namespace zt::raster::vlimg
