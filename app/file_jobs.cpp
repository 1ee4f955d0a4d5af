#include "app/file_jobs.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// Buffers write (and hold) their output in pieces of at most this size.
constexpr size_t kPieceSize = size_t{1} << 20;

// A file done on a worker and waiting for its turn.
struct FileSlot {
  std::unique_ptr<nmb::OutputBuffer> out;
  std::unique_ptr<nmb::OutputBuffer> err;
  bool done = false;
  bool ok = false;
};

class FileJobs {
 public:
  FileJobs(size_t count, uint32_t jobs, size_t cap, const nmb_file_job_t& job)
      : budget_(cap > SIZE_MAX / jobs ? SIZE_MAX : cap * jobs),
        slots_(count),
        window_(size_t{2} * jobs),
        piece_(std::min(cap, kPieceSize)),
        job_(job) {}

  void work() {
    for (;;) {
      size_t index = 0;
      {
        std::unique_lock lock(mutex_);
        room_.wait(lock, [this] {
          return stopped_ || next_start_ >= slots_.size() || next_start_ < next_written_ + window_;
        });
        if (stopped_ || next_start_ >= slots_.size()) return;
        index = next_start_++;
      }
      // Standard output goes live when the file's turn comes while it runs.
      auto out = std::make_unique<nmb::OutputBuffer>(
          nmb::OutputBuffer::Spill{piece_, STDOUT_FILENO, &budget_});
      auto err =
          std::make_unique<nmb::OutputBuffer>(nmb::OutputBuffer::Spill{piece_, -1, &budget_});
      nmb::OutputBuffer& file_out = *out;
      nmb::OutputBuffer& file_err = *err;
      {
        std::lock_guard lock(mutex_);
        slots_[index].out = std::move(out);
        slots_[index].err = std::move(err);
      }
      started_.notify_one();
      bool ok = false;
      {
        nmb::ThreadCapture capture(file_out, file_err);
        ok = job_(index, file_out);
      }
      {
        std::lock_guard lock(mutex_);
        slots_[index].done = true;
        slots_[index].ok = ok;
      }
      done_.notify_one();
    }
  }

  // Writes the files out in order as they are done, up to the first failed
  // write to standard output; returns the failures.
  int write_in_order() {
    nmb::OutputBuffer& out = nmb::stdout_buffer();
    nmb::OutputBuffer err(STDERR_FILENO, 0);
    int failed = 0;
    for (size_t index = 0; index < slots_.size() && nmb::output_error() == 0; ++index) {
      FileSlot slot;
      {
        std::unique_lock lock(mutex_);
        started_.wait(lock, [&] { return slots_[index].out != nullptr; });
        if (!slots_[index].done) {
          // Everything before the file is out: it may write straight through.
          out.flush();
          slots_[index].out->go_live();
          done_.wait(lock, [&] { return slots_[index].done; });
        }
        slot = std::move(slots_[index]);
      }
      slot.out->move_to(out);
      slot.err->move_to(err);
      if (!slot.ok) ++failed;
      {
        std::lock_guard lock(mutex_);
        next_written_ = index + 1;
      }
      room_.notify_all();
    }
    {
      // Files not started yet are not started; those running stop at their
      // next chunk when output has failed.
      std::lock_guard lock(mutex_);
      stopped_ = true;
    }
    room_.notify_all();
    return failed;
  }

 private:
  // What waiting files may hold in memory in all; declared before the slots,
  // whose buffers give back to it.
  std::atomic<size_t> budget_;
  std::mutex mutex_;
  std::condition_variable room_;     // a file may start
  std::condition_variable started_;  // a file has its buffers
  std::condition_variable done_;     // a file is done
  std::vector<FileSlot> slots_;
  size_t next_start_ = 0;
  size_t next_written_ = 0;
  bool stopped_ = false;
  const size_t window_;
  const size_t piece_;
  const nmb_file_job_t& job_;
};

}  // namespace

int nmb_run_file_jobs(size_t count, uint32_t jobs, size_t cap, const nmb_file_job_t& job) {
  FileJobs run(count, jobs, cap, job);
  int failed = 0;
  {
    std::vector<std::jthread> threads;
    const size_t workers = std::min<size_t>(jobs, count);
    threads.reserve(workers);
    for (size_t i = 0; i < workers; ++i) threads.emplace_back([&run] { run.work(); });
    failed = run.write_in_order();
  }
  return failed;
}
