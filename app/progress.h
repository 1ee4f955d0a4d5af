// The progress line for people: when standard error is a terminal and
// standard output is not (output goes to a file or a pipe), a status line on
// standard error shows the files done of the total, the bytes read, the read
// rate and the time elapsed, four times a second, and is erased when the run
// ends. Logs, tests and pipelines, whose standard error is no terminal, never
// see it; NMB_NO_PROGRESS=1 turns it off.
// Stage: driver.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

namespace nmb {

class RunProgress {
 public:
  explicit RunProgress(size_t files);
  ~RunProgress();
  RunProgress(const RunProgress&) = delete;
  RunProgress& operator=(const RunProgress&) = delete;

  // From any thread: one more file is done.
  void file_done() { done_.fetch_add(1, std::memory_order_relaxed); }

 private:
  void update(std::stop_token stop);

  const size_t files_;
  std::atomic<size_t> done_{0};
  int64_t start_bytes_ = -1;  // -1: the bytes read are not known
  std::chrono::steady_clock::time_point start_;
  std::mutex mutex_;
  std::condition_variable_any wake_;
  std::jthread updater_;  // last, so that it stops before the rest goes
};

// The bytes this process has read so far (all its input: data files,
// schemas, and spilled output read back); -1 when the system does not say.
int64_t nmb_process_bytes_read();

// One status line: "3 of 10 files, 1.2 GB read, 245.3 MB/s, 0:12"; the
// bytes and the rate are left out when `bytes` is negative.
std::string nmb_progress_text(size_t done, size_t files, int64_t bytes, double seconds);

}  // namespace nmb
