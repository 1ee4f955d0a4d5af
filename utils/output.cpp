#include "utils/output.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "utils/status_line.h"
#include "utils/stream_copy.h"

namespace nmb {

namespace {

thread_local OutputBuffer* t_stdout_capture = nullptr;
thread_local OutputBuffer* t_stderr_capture = nullptr;

std::atomic<int> g_output_error{0};

void note_output_error(int code) {
  int none = 0;
  g_output_error.compare_exchange_strong(none, code != 0 ? code : EIO);
}

// A temporary file in TMPDIR (or /tmp) without a name (O_TMPFILE), or
// unlinked as soon as it is made where the file system cannot do that:
// nothing is left behind whatever ends the process, a signal included.
// -1 when none can be made.
int make_spill_file() {
  const char* dir = std::getenv("TMPDIR");
  std::string path = dir != nullptr && dir[0] != '\0' ? dir : "/tmp";
  int fd = ::open(path.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0) return fd;
  path += "/nmb_read.XXXXXX";
  fd = ::mkostemp(path.data(), O_CLOEXEC);
  if (fd >= 0) ::unlink(path.c_str());
  return fd;
}

// Memory given back by the buffers of waiting files, kept for the next one
// that needs it: memory handed back to the system and faulted in again for
// every file would cost more than the copy a spill file makes. Held pieces
// are never more than the budgets of a run allow to be held at once; texts
// no more than the buffers alive at once.
template <class T>
struct Spares {
  std::mutex mutex;
  std::vector<T> items;

  // The last item given back when `fits` it, else nothing.
  template <class Fits>
  std::optional<T> take(Fits fits) {
    std::lock_guard lock(mutex);
    if (items.empty() || !fits(items.back())) return std::nullopt;
    std::optional<T> item(std::move(items.back()));
    items.pop_back();
    return item;
  }
  void give_back(T item) {
    std::lock_guard lock(mutex);
    items.push_back(std::move(item));
  }
};

Spares<OutputBuffer::Piece>& spare_pieces() {
  static Spares<OutputBuffer::Piece> spare;
  return spare;
}

Spares<std::string>& spare_texts() {
  static Spares<std::string> spare;
  return spare;
}

// Held pieces are filled from the buffer's text, a little over its
// threshold (a record past it) at most, so one size fits nearly all.
constexpr size_t kHeldPieceCapacity = (size_t{1} << 20) + (size_t{1} << 18);

OutputBuffer::Piece take_piece(size_t size) {
  if (auto piece = spare_pieces().take([&](const auto& p) { return p.capacity >= size; })) {
    return std::move(*piece);
  }
  OutputBuffer::Piece piece;
  piece.capacity = std::max(size, kHeldPieceCapacity);
  piece.bytes = std::make_unique_for_overwrite<char[]>(piece.capacity);
  return piece;
}

// Pieces and texts grown for a rare huge record go back to the system.
constexpr size_t kLargestSpare = 4 * kHeldPieceCapacity;

void give_back_pieces(std::vector<OutputBuffer::Piece>& pieces) {
  for (OutputBuffer::Piece& piece : pieces) {
    piece.size = 0;
    if (piece.capacity <= kLargestSpare) spare_pieces().give_back(std::move(piece));
  }
  pieces.clear();
}

}  // namespace

OutputBuffer::OutputBuffer(int fd, size_t flush_threshold) : fd_(fd), threshold_(flush_threshold) {
  text_.reserve(flush_threshold + flush_threshold / 4);
}

OutputBuffer::OutputBuffer(Spill spill)
    : fd_(-1),
      threshold_(spill.cap),
      spills_(true),
      budget_(spill.budget),
      live_fd_(spill.live_fd) {
  if (auto text = spare_texts().take([](const auto&) { return true; })) text_ = std::move(*text);
}

OutputBuffer::~OutputBuffer() {
  if (spills_) {
    release_pieces();
    if (spill_fd_ >= 0) ::close(spill_fd_);
    text_.clear();
    if (text_.capacity() <= kLargestSpare) spare_texts().give_back(std::move(text_));
    return;
  }
  flush();
}

void OutputBuffer::printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
}

void OutputBuffer::vprintf(const char* format, va_list args) {
  append_vprintf(text_, format, args);
}

void append_vprintf(std::string& out, const char* format, va_list args) {
  va_list again;
  va_copy(again, args);
  char small[256];
  int n = std::vsnprintf(small, sizeof small, format, args);
  if (n > 0 && static_cast<size_t>(n) < sizeof small) {
    out.append(small, static_cast<size_t>(n));
  } else if (n > 0) {
    size_t start = out.size();
    out.resize(start + static_cast<size_t>(n) + 1);
    std::vsnprintf(out.data() + start, static_cast<size_t>(n) + 1, format, again);
    out.resize(start + static_cast<size_t>(n));
  }
  va_end(again);
}

namespace {

// Once a capture has spilled or gone live it writes in pieces of this size:
// the bytes are still in cache when they are written, and memory holds one
// piece instead of the whole cap.
constexpr size_t kPieceSize = size_t{1} << 20;

// Writes everything or notes why it could not (standard error excepted:
// there is nowhere to say that it failed). After a failure nothing more of
// the output is written: the user's copy already lacks a piece.
void write_out(int fd, const char* data, size_t left) {
  const bool to_stderr = fd == STDERR_FILENO;
  if (left == 0 || (!to_stderr && output_error() != 0)) return;
  StderrWrite clear_status_line(to_stderr);
  while (left > 0) {
    ssize_t written = ::write(fd, data, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      // A write that takes nothing of a non-empty buffer has run out of room.
      if (!to_stderr) note_output_error(written == 0 ? ENOSPC : errno);
      return;
    }
    data += written;
    left -= static_cast<size_t>(written);
  }
}

// Writes the whole spill file `from` to `fd`: inside the kernel (sendfile)
// where the target allows it, by reads and writes otherwise (an append-mode
// target, for one).
void copy_spill(int from, int fd) {
  const bool to_stderr = fd == STDERR_FILENO;
  if (!to_stderr && output_error() != 0) return;
  off_t offset = 0;
  {
    StderrWrite clear_status_line(to_stderr);
    for (;;) {
      ssize_t sent = ::sendfile(fd, from, &offset, size_t{1} << 30);
      if (sent > 0) continue;
      if (sent == 0) return;
      if (errno == EINTR) continue;
      if (errno != EINVAL && errno != ENOSYS) {
        if (!to_stderr) note_output_error(errno);
        return;
      }
      break;
    }
  }
  std::vector<char> block(size_t{1} << 16);
  ::lseek(from, offset, SEEK_SET);
  for (;;) {
    ssize_t n = ::read(from, block.data(), block.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && !to_stderr) note_output_error(errno);
    if (n <= 0) return;
    write_out(fd, block.data(), static_cast<size_t>(n));
  }
}

}  // namespace

bool OutputBuffer::take_from_budget(size_t size) {
  if (budget_ == nullptr) return false;
  size_t left = budget_->load(std::memory_order_relaxed);
  do {
    if (left < size) return false;
  } while (!budget_->compare_exchange_weak(left, left - size, std::memory_order_relaxed));
  return true;
}

void OutputBuffer::release_pieces() {
  if (held_size_ > 0) budget_->fetch_add(held_size_, std::memory_order_relaxed);
  give_back_pieces(held_);
  held_size_ = 0;
}

void OutputBuffer::drain_to(int fd) {
  for (const Piece& piece : held_) write_out(fd, piece.bytes.get(), piece.size);
  release_pieces();
  if (spill_fd_ >= 0) {
    copy_spill(spill_fd_, fd);
    ::close(spill_fd_);
    spill_fd_ = -1;
  }
  write_out(fd, text_.data(), text_.size());
  text_.clear();
}

void OutputBuffer::flush() {
  if (!spills_) {
    write_out(fd_, text_.data(), text_.size());
    text_.clear();
    return;
  }
  if (live_fd_ >= 0 && live_.load(std::memory_order_acquire)) {
    drain_to(live_fd_);
    threshold_ = std::min(threshold_, kPieceSize);
    return;
  }
  if (text_.empty()) return;
  if (spill_fd_ < 0 && take_from_budget(text_.size())) {
    // The writer goes on in its own buffer, which stays in the cache; the
    // held copy goes straight to memory.
    Piece piece = take_piece(text_.size());
    stream_copy(piece.bytes.get(), text_.data(), text_.size());
    piece.size = text_.size();
    held_size_ += piece.size;
    held_.push_back(std::move(piece));
    text_.clear();
    return;
  }
  if (spill_fd_ < 0) spill_fd_ = make_spill_file();
  if (spill_fd_ < 0) {
    threshold_ += threshold_;  // no temporary file: hold on in memory
    return;
  }
  write_out(spill_fd_, text_.data(), text_.size());
  text_.clear();
  threshold_ = std::min(threshold_, kPieceSize);
}

void OutputBuffer::move_to(OutputBuffer& target) {
  // Little taken and nothing spilled: joins the target's buffer, so many
  // small files still reach the descriptor in few writes.
  if (spill_fd_ < 0 && held_.empty() && text_.size() < target.threshold_) {
    target.text_.append(text_);
    text_.clear();
    target.commit();
    return;
  }
  target.flush();
  drain_to(target.fd_);
}

int output_error() {
  return g_output_error.load(std::memory_order_relaxed);
}

int finish_stdout() {
  stdout_buffer().flush();
  // Closed before the run (EBADF): any write would have failed already.
  if (::close(STDOUT_FILENO) != 0 && errno != EBADF && errno != EINTR) note_output_error(errno);
  return output_error();
}

OutputBuffer& stdout_buffer() {
  if (t_stdout_capture != nullptr) return *t_stdout_capture;
  static OutputBuffer buffer(STDOUT_FILENO);
  return buffer;
}

ThreadCapture::ThreadCapture(OutputBuffer& out, OutputBuffer& err) {
  t_stdout_capture = &out;
  t_stderr_capture = &err;
}

ThreadCapture::~ThreadCapture() {
  t_stdout_capture = nullptr;
  t_stderr_capture = nullptr;
}

OutputBuffer* stderr_capture() {
  return t_stderr_capture;
}

}  // namespace nmb
