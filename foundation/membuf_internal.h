// Memory-buffer calls for the log, which must not log from under its own lock.
#pragma once

#include <zt/membuf.h>

#include <cstddef>
#include <cstdint>

namespace zt {

// ZT_MemBufAppend that logs nothing when `quiet`.
int32_t membuf_append(ZT_MemBuf *buf, const void *data, size_t size, bool quiet);
// Cuts the content back to `size` bytes (nothing when it holds fewer).
void membuf_truncate(ZT_MemBuf *buf, size_t size);

}  // namespace zt
