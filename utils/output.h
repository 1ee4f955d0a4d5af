// The single buffer through which everything written to standard output goes.
// Writers append to it; it is flushed to the file descriptor only between
// records (commit), so a record that fails half-way can be taken back.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace nmb {

class OutputBuffer {
 public:
  explicit OutputBuffer(int fd, size_t flush_threshold = size_t{1} << 20);
  ~OutputBuffer();
  OutputBuffer(const OutputBuffer&) = delete;
  OutputBuffer& operator=(const OutputBuffer&) = delete;

  std::string& text() { return text_; }
  void write(std::string_view bytes) { text_.append(bytes); }
  void put(char c) { text_.push_back(c); }
  void printf(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // A record boundary: writes the buffer out once it has grown large.
  void commit() {
    if (text_.size() >= threshold_) flush();
  }
  void flush();

 private:
  int fd_;
  size_t threshold_;
  std::string text_;
};

// The process's standard output.
OutputBuffer& stdout_buffer();

}  // namespace nmb
