// Copies into memory that will not be read again soon (output held for a
// later turn) with non-temporal stores: the bytes go to memory without
// evicting what the writer works on from the cache, and without reading the
// destination first.
// Stage: base.
#pragma once

#include <cstddef>

namespace nmb {

void stream_copy(char* to, const char* from, size_t size);

}  // namespace nmb
