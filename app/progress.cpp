#include "app/progress.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/env.h"
#include "utils/status_line.h"

namespace nmb {

namespace {

constexpr std::chrono::milliseconds kInterval{250};

bool wanted() {
  if (!isatty(STDERR_FILENO) || isatty(STDOUT_FILENO)) return false;
  const char* off = std::getenv("NMB_NO_PROGRESS");
  return off == nullptr || !nmb_env_is_true(off);
}

// Decimal units, as transfer rates are usually given.
std::string human_bytes(double bytes) {
  static constexpr const char* kUnits[] = {"B", "kB", "MB", "GB", "TB", "PB"};
  size_t unit = 0;
  while (bytes >= 1000.0 && unit + 1 < std::size(kUnits)) {
    bytes /= 1000.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
  return text;
}

}  // namespace

int64_t nmb_process_bytes_read() {
  FILE* io = std::fopen("/proc/self/io", "r");
  if (io == nullptr) return -1;
  long long bytes = -1;
  char line[128];
  while (std::fgets(line, sizeof line, io) != nullptr) {
    if (std::sscanf(line, "rchar: %lld", &bytes) == 1) break;
  }
  std::fclose(io);
  return bytes;
}

std::string nmb_progress_text(size_t done, size_t files, int64_t bytes, double seconds) {
  std::string text = std::to_string(done) + " of " + std::to_string(files) + " files";
  if (bytes >= 0) {
    text += ", " + human_bytes(static_cast<double>(bytes)) + " read";
    if (seconds > 0) text += ", " + human_bytes(static_cast<double>(bytes) / seconds) + "/s";
  }
  const auto whole = static_cast<long long>(seconds);
  char clock[32];
  if (whole >= 3600) {
    std::snprintf(clock, sizeof clock, ", %lld:%02lld:%02lld", whole / 3600, whole / 60 % 60,
                  whole % 60);
  } else {
    std::snprintf(clock, sizeof clock, ", %lld:%02lld", whole / 60, whole % 60);
  }
  return text + clock;
}

RunProgress::RunProgress(size_t files) : files_(files) {
  if (files == 0 || !wanted()) return;
  start_ = std::chrono::steady_clock::now();
  start_bytes_ = nmb_process_bytes_read();
  status_line_begin();
  updater_ = std::jthread([this](std::stop_token stop) { update(stop); });
}

RunProgress::~RunProgress() {
  if (!updater_.joinable()) return;
  updater_.request_stop();
  updater_.join();
  status_line_end();
}

void RunProgress::update(std::stop_token stop) {
  std::unique_lock lock(mutex_);
  // The first line comes after one interval: a short run shows none.
  while (!wake_.wait_for(lock, stop, kInterval, [] { return false; })) {
    if (stop.stop_requested()) return;
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const int64_t now = start_bytes_ >= 0 ? nmb_process_bytes_read() : -1;
    const int64_t bytes = now >= 0 ? now - start_bytes_ : -1;
    status_line_show("nmb_read: " + nmb_progress_text(done_.load(std::memory_order_relaxed), files_,
                                                      bytes, seconds));
  }
}

}  // namespace nmb
