#include "utils/stream_copy.h"

#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace nmb {

void stream_copy(char* to, const char* from, size_t size) {
#if defined(__SSE2__)
  const size_t head = (16 - (reinterpret_cast<uintptr_t>(to) & 15)) & 15;
  if (size < head + 64) {
    std::memcpy(to, from, size);
    return;
  }
  std::memcpy(to, from, head);
  to += head;
  from += head;
  size -= head;
  for (; size >= 64; size -= 64, to += 64, from += 64) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + 16));
    const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + 32));
    const __m128i d = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + 48));
    _mm_stream_si128(reinterpret_cast<__m128i*>(to), a);
    _mm_stream_si128(reinterpret_cast<__m128i*>(to + 16), b);
    _mm_stream_si128(reinterpret_cast<__m128i*>(to + 32), c);
    _mm_stream_si128(reinterpret_cast<__m128i*>(to + 48), d);
  }
  _mm_sfence();
#endif
  std::memcpy(to, from, size);
}

}  // namespace nmb
