#include "utils/output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace nmb {

OutputBuffer::OutputBuffer(int fd, size_t flush_threshold) : fd_(fd), threshold_(flush_threshold) {
  text_.reserve(flush_threshold + flush_threshold / 4);
}

OutputBuffer::~OutputBuffer() {
  flush();
}

void OutputBuffer::printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  char small[256];
  int n = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  if (n > 0 && static_cast<size_t>(n) < sizeof small) {
    text_.append(small, static_cast<size_t>(n));
  } else if (n > 0) {
    size_t start = text_.size();
    text_.resize(start + static_cast<size_t>(n) + 1);
    std::vsnprintf(text_.data() + start, static_cast<size_t>(n) + 1, format, again);
    text_.resize(start + static_cast<size_t>(n));
  }
  va_end(again);
}

void OutputBuffer::flush() {
  const char* data = text_.data();
  size_t left = text_.size();
  while (left > 0) {
    ssize_t written = ::write(fd_, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      break;  // a closed pipe: nothing more can be delivered
    }
    data += written;
    left -= static_cast<size_t>(written);
  }
  text_.clear();
}

OutputBuffer& stdout_buffer() {
  static OutputBuffer buffer(STDOUT_FILENO);
  return buffer;
}

}  // namespace nmb
