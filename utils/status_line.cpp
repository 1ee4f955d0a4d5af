#include "utils/status_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <string>

namespace {

std::atomic<bool> g_in_use{false};
std::mutex g_mutex;
size_t g_drawn = 0;  // width of the line on the terminal, 0 when none is shown

void write_all(const std::string& text) {
  const char* data = text.data();
  size_t left = text.size();
  while (left > 0) {
    ssize_t written = ::write(STDERR_FILENO, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      return;
    }
    data += written;
    left -= static_cast<size_t>(written);
  }
}

// Blanks over the shown line: plain carriage returns and spaces, which every
// terminal understands.
void erase_locked() {
  if (g_drawn == 0) return;
  std::string blank = "\r";
  blank.append(g_drawn, ' ');
  blank.push_back('\r');
  write_all(blank);
  g_drawn = 0;
}

}  // namespace

namespace nmb {

void status_line_begin() {
  g_in_use.store(true, std::memory_order_release);
}

void status_line_show(std::string_view text) {
  std::lock_guard lock(g_mutex);
  if (!g_in_use.load(std::memory_order_relaxed)) return;
  // A line that wrapped could not be erased: keep it inside the terminal.
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 &&
      text.size() >= size.ws_col) {
    text = text.substr(0, size.ws_col - 1u);
  }
  std::string line = "\r";
  line.append(text);
  // A shorter line covers what the previous one left.
  if (g_drawn > text.size()) line.append(g_drawn - text.size(), ' ');
  write_all(line);
  g_drawn = std::max(g_drawn, text.size());
}

void status_line_end() {
  std::lock_guard lock(g_mutex);
  erase_locked();
  g_in_use.store(false, std::memory_order_release);
}

StderrWrite::StderrWrite(bool to_stderr) {
  if (!to_stderr || !g_in_use.load(std::memory_order_acquire)) return;
  g_mutex.lock();
  locked_ = true;
  erase_locked();
}

StderrWrite::~StderrWrite() {
  if (locked_) g_mutex.unlock();
}

}  // namespace nmb
