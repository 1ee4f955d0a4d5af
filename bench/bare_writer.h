// What the bare writers share: the JSON text of numbers, GUIDs and local
// times as nmb_read writes them, written straight into a buffer, and the
// loop over a data file's chunks with the buffer's writes to standard output.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace bench {

// A number value: "%1.17g", plain digits for integral values below 1e17.
inline char* number(char* at, double value) {
  if (value == std::trunc(value) && std::fabs(value) < 1e17 && !(value == 0 && std::signbit(value)))
    return std::to_chars(at, at + 32, static_cast<int64_t>(value)).ptr;
  return std::to_chars(at, at + 32, value, std::chars_format::general, 17).ptr;
}

// "0x%016lx", quoted.
inline char* hex(char* at, uint64_t value) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::memcpy(at, "\"0x", 3);
  for (int i = 0; i < 16; ++i) at[3 + i] = kDigits[(value >> (60 - 4 * i)) & 15];
  at[19] = '"';
  return at + 20;
}

// A microsecond timestamp as a quoted local time with milliseconds; the
// last second's broken-down time is kept.
class LocalTime {
 public:
  char* write(char* at, uint64_t timestamp) {
    const auto seconds = static_cast<time_t>(timestamp / 1000000);
    if (seconds != cached_) {
      localtime_r(&seconds, &tm_);
      cached_ = seconds;
    }
    return at + std::snprintf(at, 32, "\"%04d-%02d-%02d %02d:%02d:%02d.%03d\"", tm_.tm_year + 1900,
                              tm_.tm_mon + 1, tm_.tm_mday, tm_.tm_hour, tm_.tm_min, tm_.tm_sec,
                              static_cast<int>(timestamp % 1000000 / 1000));
  }

 private:
  time_t cached_ = -1;
  struct tm tm_ {};
};

inline void write_all(const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(1, data, size);
    if (n <= 0) std::exit(1);
    data += n;
    size -= static_cast<size_t>(n);
  }
}

// Reads the data file at `path` past its 256-byte header, chunk by chunk of
// `block_size` bytes (0: the header's block size), and hands each chunk to
// `write(chunk, size, at)`, which writes the chunk's text (at most
// `text_per_byte` bytes per chunk byte) at `at` and returns its end; the text
// goes to standard output as the buffer fills. False when the file cannot be
// read.
template <typename Write>
bool write_chunks(const char* path, size_t block_size, size_t text_per_byte, Write&& write) {
  const int fd = ::open(path, O_RDONLY);
  if (fd < 0) return false;
  uint8_t header[256];
  if (::read(fd, header, sizeof header) != sizeof header) return false;
  if (block_size == 0) {
    uint32_t size;
    std::memcpy(&size, header + 112, sizeof size);
    block_size = size;
  }
  const size_t chunk_room = text_per_byte * block_size;
  std::vector<uint8_t> chunk(block_size);
  std::vector<char> out(std::max(size_t{4} << 20, 2 * chunk_room));
  char* at = out.data();
  while (::read(fd, chunk.data(), block_size) == static_cast<ssize_t>(block_size)) {
    if (static_cast<size_t>(at - out.data()) > out.size() - chunk_room) {
      write_all(out.data(), static_cast<size_t>(at - out.data()));
      at = out.data();
    }
    at = write(chunk.data(), block_size, at);
  }
  write_all(out.data(), static_cast<size_t>(at - out.data()));
  ::close(fd);
  return true;
}

}  // namespace bench
