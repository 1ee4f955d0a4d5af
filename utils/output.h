// The single buffer through which everything written to standard output goes.
// Writers append to it; it is flushed to the file descriptor only between
// records (commit), so a record that fails half-way can be taken back.
//
// With -j, a file processed on a worker thread writes into buffers of its
// own (a capture) that hold up to a cap in memory and move the rest to an
// unlinked temporary file; the run then hands them on in file order.
// Stage: base.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace nmb {

class OutputBuffer {
 public:
  explicit OutputBuffer(int fd, size_t flush_threshold = size_t{1} << 20);
  // A buffer of a file waiting for its turn: it writes in pieces of `cap`
  // bytes at record boundaries, each held in memory while `budget` (shared
  // by the buffers of a run, in bytes) has room and, once it has not, moved
  // with everything after it to a temporary file that has no name. Once
  // `live` is asked for, what is held and spilled and what comes after it
  // goes straight to `live_fd` instead. Without a budget nothing is held.
  struct Spill {
    size_t cap;
    int live_fd = -1;
    std::atomic<size_t>* budget = nullptr;
  };
  explicit OutputBuffer(Spill spill);
  ~OutputBuffer();
  OutputBuffer(const OutputBuffer&) = delete;
  OutputBuffer& operator=(const OutputBuffer&) = delete;

  std::string& text() { return text_; }
  void write(std::string_view bytes) { text_.append(bytes); }
  void put(char c) { text_.push_back(c); }
  void printf(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void vprintf(const char* format, va_list args) __attribute__((format(printf, 2, 0)));

  // A record boundary: writes the buffer out once it has grown large.
  void commit() {
    if (text_.size() >= threshold_) flush();
  }
  void flush();

  // Spilling buffers: appends everything taken so far (the spilled part
  // first) to `target`, in order, and starts empty again.
  void move_to(OutputBuffer& target);
  bool spilled() const { return spill_fd_ >= 0; }
  bool holds_pieces() const { return !held_.empty(); }
  // From any thread: the buffer's turn has come (everything before it is out).
  void go_live() { live_.store(true, std::memory_order_release); }

  // A piece of output held in memory until the buffer's turn comes.
  struct Piece {
    std::unique_ptr<char[]> bytes;
    size_t size = 0;
    size_t capacity = 0;
  };

 private:
  // Writes the pieces held, what was spilled and what the buffer holds to
  // `fd`; starts empty again.
  void drain_to(int fd);
  // Takes `size` bytes from the budget; false when it has not that many.
  bool take_from_budget(size_t size);
  void release_pieces();

  int fd_;
  size_t threshold_;
  std::string text_;
  bool spills_ = false;
  int spill_fd_ = -1;
  std::atomic<size_t>* budget_ = nullptr;
  std::vector<Piece> held_;  // pieces held in memory, before any spilled byte
  size_t held_size_ = 0;
  int live_fd_ = -1;
  std::atomic<bool> live_{false};
};

// Appends the printf text of `format` and `args` to `out`.
void append_vprintf(std::string& out, const char* format, va_list args)
    __attribute__((format(printf, 2, 0)));

// The process's standard output, or the capture of this thread's file.
OutputBuffer& stdout_buffer();

// The first error met writing standard output, or the temporary files that
// hold a file's output until its turn, as an errno value; 0 while every such
// write has succeeded. Once it is set nothing more is written there, and
// readers stop at their next chunk: what follows could not reach the user.
int output_error();
// Writes out what the standard output buffer holds and closes standard
// output, so that an error the close reports (a delayed write on a network
// file system) is seen too; returns output_error().
int finish_stdout();

// While alive, what this thread writes to standard output (stdout_buffer)
// and the log lines and reports it writes to standard error go to `out` and
// `err` instead.
class ThreadCapture {
 public:
  ThreadCapture(OutputBuffer& out, OutputBuffer& err);
  ~ThreadCapture();
  ThreadCapture(const ThreadCapture&) = delete;
  ThreadCapture& operator=(const ThreadCapture&) = delete;
};

// This thread's standard error capture; nullptr when it writes to stderr.
OutputBuffer* stderr_capture();

}  // namespace nmb
