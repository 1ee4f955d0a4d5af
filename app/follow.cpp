#include "app/follow.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <unordered_set>

#include "app/checkpoint.h"
#include "app/formats.h"
#include "data/events_block.h"
#include "data/file_header.h"
#include "data/format.h"
#include "data/type_system.h"
#include "utils/env.h"
#include "utils/log.h"
#include "utils/output.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;
int g_wake_write = -1;  // the write end of the pipe that wakes the wait

void on_stop_signal(int) {
  g_stop = 1;
  if (g_wake_write >= 0) [[maybe_unused]]
    ssize_t n = write(g_wake_write, "x", 1);
}

// SIGINT and SIGTERM stop a followed run after the chunk in hand; installed
// for the run, the earlier handlers restored after it.
class StopSignals {
 public:
  StopSignals() {
    g_stop = 0;
    if (pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) == 0) g_wake_write = pipe_[1];
    struct sigaction action {};
    action.sa_handler = on_stop_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &old_int_);
    sigaction(SIGTERM, &action, &old_term_);
  }
  ~StopSignals() {
    sigaction(SIGINT, &old_int_, nullptr);
    sigaction(SIGTERM, &old_term_, nullptr);
    g_wake_write = -1;
    if (pipe_[0] >= 0) close(pipe_[0]);
    if (pipe_[1] >= 0) close(pipe_[1]);
  }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  int wake_fd() const { return pipe_[0]; }

 private:
  int pipe_[2] = {-1, -1};
  struct sigaction old_int_ {};
  struct sigaction old_term_ {};
};

bool stop_asked() {
  return g_stop != 0;
}

// Steps over what precedes a resume point: only schemas blocks count there
// (the reader loads them); records are walked, not written.
class SkipSink : public nmb::BlockSink {
 public:
  bool file_opened(const char* /*path*/) override { return true; }
  void schemas_loaded(const nmb_type_system_t* ts) override { ts_ = ts; }
  bool counters_block(nmb::ByteView /*block*/) override { return true; }
  size_t events_block(nmb::ByteView area) override {
    const nmb_events_block_t block = nmb_events_block_read(area);
    const nmb_type_definition_t* type = nmb_events_block_type(ts_, block);
    if (type == nullptr) return 0;
    return nmb_events_block_for_each(block, type->size, area, [](nmb::ByteView) { return true; });
  }
  bool metrics_block(nmb::ByteView /*block*/) override { return true; }

 private:
  const nmb_type_system_t* ts_ = nullptr;
};

// Reads `size` bytes at `offset`; false on a short read or an error.
bool read_at(int fd, uint8_t* out, size_t size, uint64_t offset) {
  size_t done = 0;
  while (done < size) {
    const ssize_t n = pread(fd, out + done, size - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

struct Followed {
  std::string path;
  uint64_t device = 0;
  uint64_t inode = 0;
  uint64_t offset = 0;           // the end of the last chunk exported (0: not begun)
  uint64_t first_timestamp = 0;  // of the header, for the checkpoint
  uint64_t seen_size = 0;        // the size at the last look
  bool begun = false;
  bool done = false;  // failed, or a gzip-compressed file exported whole
  bool waiting_reported = false;
  bool taken_as_new = false;  // begun before: waits for a valid header again
  // The header checked last, and what the check said.
  uint8_t checked_header[NMB_FILE_HEADER_SIZE] = {};
  bool checked = false;
  bool checked_valid = false;
  std::unique_ptr<nmb::BlockSink> own_sink;  // --follow: the file's own sink
  std::unique_ptr<nmb_reader_context_t> reader;
};

class Follower {
 public:
  Follower(const nmb_read_options_t& options, const nmb_reader_settings_t& settings,
           const nmb::ExportSettings& export_with, nmb::BlockSink& run_sink,
           nmb_checkpoint_t checkpoint)
      : options_(options),
        settings_(settings),
        export_with_(export_with),
        run_sink_(run_sink),
        checkpoint_(std::move(checkpoint)) {}

  int run(const std::vector<std::string>& paths, int wake_fd);

 private:
  bool pump(Followed& f);
  bool begin(Followed& f, int fd, const struct stat& info, const nmb_file_header_t& header);
  bool export_chunks(Followed& f, int fd, uint64_t end);
  void take_as_new(Followed& f, const char* why);
  void finish(Followed& f, bool ok);
  void add(const std::string& path);
  void discover();
  void watch(const std::string& folder);
  void wait(int wake_fd);
  void save_checkpoint();

  const nmb_read_options_t& options_;
  const nmb_reader_settings_t& settings_;
  const nmb::ExportSettings& export_with_;
  nmb::BlockSink& run_sink_;
  nmb_checkpoint_t checkpoint_;
  std::vector<std::unique_ptr<Followed>> files_;
  std::unordered_set<std::string> known_;
  std::vector<uint8_t> chunk_;  // one buffer for every file
  bool any_begun_ = false;
  int failed_ = 0;
  int inotify_ = -1;
  std::unordered_set<std::string> watched_;
};

void Follower::add(const std::string& path) {
  if (!known_.insert(path).second) return;
  auto f = std::make_unique<Followed>();
  f->path = path;
  files_.push_back(std::move(f));
  if (inotify_ >= 0) {
    const std::string::size_type slash = path.rfind('/');
    watch(slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash));
  }
}

void Follower::watch(const std::string& folder) {
  if (inotify_ < 0 || !watched_.insert(folder).second) return;
  const uint32_t mask =
      IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB;
  if (inotify_add_watch(inotify_, folder.c_str(), mask) < 0 && errno != ENOENT) {
    NMB_LOG(NMB_LOG_INFO, "Watching %s failed (%s): looking every %g s instead", folder.c_str(),
            std::strerror(errno), options_.follow_interval);
    close(inotify_);
    inotify_ = -1;
  }
}

// New regular files under -d, in name order after those known.
void Follower::discover() {
  if (!options_.data_dir) return;
  namespace fs = std::filesystem;
  std::error_code error;
  std::vector<std::string> found;
  watch(*options_.data_dir);
  for (fs::recursive_directory_iterator it(*options_.data_dir, error), end; !error && it != end;
       it.increment(error)) {
    std::error_code kind;
    if (it->is_directory(kind)) {
      watch(it->path().string());
    } else if (it->is_regular_file(kind) && !known_.contains(it->path().string())) {
      found.push_back(it->path().string());
    }
  }
  std::sort(found.begin(), found.end());
  for (const std::string& path : found) add(path);
}

void Follower::take_as_new(Followed& f, const char* why) {
  NMB_LOG(NMB_LOG_WARNING, "%s %s: the file is taken as new", f.path.c_str(), why);
  if (f.begun) finish(f, true);
  f.begun = false;
  f.taken_as_new = true;
  f.offset = 0;
  f.seen_size = 0;
}

void Follower::finish(Followed& f, bool ok) {
  if (!f.begun || !f.reader) return;
  f.reader->sink->end_data(ok);
  f.reader.reset();
  f.own_sink.reset();
}

bool Follower::begin(Followed& f, int fd, const struct stat& info,
                     const nmb_file_header_t& header) {
  nmb::BlockSink* sink = &run_sink_;
  if (options_.follow) {
    const nmb_output_format_entry_t* format = nmb_output_format(options_.format);
    f.own_sink = format->make_sink(export_with_, nmb::stdout_buffer());
    f.own_sink->share_run_with(run_sink_);
    sink = f.own_sink.get();
  }
  f.reader = std::make_unique<nmb_reader_context_t>();
  f.device = info.st_dev;
  f.inode = info.st_ino;
  f.begun = true;
  if (!nmb_reader_begin_file(*f.reader, f.path.c_str(), settings_, *sink, !any_begun_)) {
    f.reader.reset();
    f.done = true;
    ++failed_;
    return false;
  }
  any_begun_ = true;
  f.offset = NMB_FILE_HEADER_SIZE;
  f.first_timestamp = header.first_timestamp;
  const nmb_checkpoint_entry_t* entry = checkpoint_.find(f.device, f.inode, f.first_timestamp);
  if (entry == nullptr || entry->offset <= f.offset) return true;
  if (entry->offset > static_cast<uint64_t>(info.st_size)) {
    NMB_LOG(NMB_LOG_WARNING,
            "%s is shorter than its checkpoint says: the file is exported from its start",
            f.path.c_str());
    return true;
  }
  // Resumed: what precedes the resume point is read for its schemas only.
  SkipSink skip;
  skip.schemas_loaded(f.reader->type_system.get());
  f.reader->sink = &skip;
  bool ok = true;
  while (ok && f.offset < entry->offset) {
    const size_t size =
        static_cast<size_t>(std::min<uint64_t>(header.block_size, entry->offset - f.offset));
    ok = read_at(fd, chunk_.data(), size, f.offset) &&
         nmb_reader_process_chunk(*f.reader, chunk_.data(), size);
    f.offset += size;
  }
  f.reader->sink = sink;
  sink->schemas_loaded(f.reader->type_system.get());
  sink->metadata_loaded(f.reader->metadata.get());
  if (!ok) {
    nmb_reader_report(*f.reader, "Failed to process data file %s", f.path.c_str());
    finish(f, false);
    f.done = true;
    ++failed_;
  }
  return ok;
}

bool Follower::export_chunks(Followed& f, int fd, uint64_t end) {
  const uint64_t block_size = f.reader->header.block_size;
  bool wrote = false;
  while (f.offset < end && !stop_asked() && nmb::output_error() == 0) {
    const size_t size = static_cast<size_t>(std::min(block_size, end - f.offset));
    uint8_t* chunk = chunk_.data();
    if (size < block_size) {
      // A short last chunk sees what the chunk before it left in the
      // buffer, as when the file is read in one go.
      if (f.offset >= NMB_FILE_HEADER_SIZE + block_size) {
        read_at(fd, chunk, block_size, f.offset - block_size);
      } else {
        std::memset(chunk, 0, block_size);
      }
    }
    bool ok = read_at(fd, chunk, size, f.offset);
    if (!ok) {
      NMB_LOG(NMB_LOG_ERROR, "Failed to read data file %s: %s", f.path.c_str(),
              errno != 0 ? std::strerror(errno) : "file ended early");
    } else {
      ok = nmb_reader_process_chunk(*f.reader, chunk, size);
    }
    if (!ok) {
      nmb_reader_report(*f.reader, "Failed to process data file %s", f.path.c_str());
      finish(f, false);
      f.done = true;
      ++failed_;
      return wrote;
    }
    f.offset += size;
    wrote = true;
  }
  return wrote;
}

// Exports what the file has gained in whole chunks; true when it wrote.
bool Follower::pump(Followed& f) {
  if (f.done) {
    // A file that failed, or was exported whole, stays done until another
    // file takes its path.
    struct stat now {};
    if (!options_.follow || f.inode == 0 || stat(f.path.c_str(), &now) != 0 ||
        (now.st_dev == f.device && now.st_ino == f.inode))
      return false;
    NMB_LOG(NMB_LOG_WARNING, "%s was replaced: the file is taken as new", f.path.c_str());
    f.done = false;
    f.begun = false;
    f.offset = 0;
    f.seen_size = 0;
    f.checked = false;
  }
  struct stat info {};
  // A begun file that has not changed costs one stat per look.
  if (f.begun && stat(f.path.c_str(), &info) == 0 && info.st_dev == f.device &&
      info.st_ino == f.inode && static_cast<uint64_t>(info.st_size) == f.seen_size)
    return false;
  const int fd = open(f.path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    if (fd >= 0) close(fd);
    if (f.begun) return false;  // gone or moved: what was exported stays
    if (!options_.follow) {
      // As a plain run reports a file that cannot be opened.
      nmb_reader_context_t reader;
      nmb_reader_begin_file(reader, f.path.c_str(), settings_, run_sink_, !any_begun_);
      f.done = true;
      ++failed_;
    } else if (!f.waiting_reported) {
      NMB_LOG(NMB_LOG_INFO, "Waiting for %s", f.path.c_str());
      f.waiting_reported = true;
    }
    return false;
  }
  const auto size = static_cast<uint64_t>(info.st_size);
  if (f.begun && (info.st_dev != f.device || info.st_ino != f.inode)) {
    take_as_new(f, "was replaced");
  } else if (f.begun && size < f.offset) {
    take_as_new(f, "shrank below what was exported");
  }
  if (f.begun && size == f.seen_size) {
    close(fd);
    return false;
  }
  uint8_t raw[NMB_FILE_HEADER_SIZE];
  const bool has_header = read_at(fd, raw, sizeof raw, 0);
  bool wrote = false;
  if (has_header && raw[0] == 0x1f && raw[1] == 0x8b) {
    // A gzip-compressed file cannot be read from a chunk on: exported once,
    // whole, unless the checkpoint says it was.
    const nmb_checkpoint_entry_t* entry = checkpoint_.find(info.st_dev, info.st_ino, 0);
    if (entry == nullptr || entry->offset != size) {
      if (!nmb_process_file(f.path.c_str(), settings_, run_sink_, !any_begun_)) ++failed_;
      any_begun_ = true;
      wrote = true;
    }
    f.device = info.st_dev;
    f.inode = info.st_ino;
    f.offset = size;
    f.done = true;
    close(fd);
    return wrote;
  }
  const nmb_file_header_t header =
      nmb_file_header_decode(std::span<const uint8_t, NMB_FILE_HEADER_SIZE>(raw));
  // The header of a file not begun yet is checked (and refused) by the
  // reader as it begins the file; a begun file's, or one taken as new, here,
  // logging why it is refused once per header text, not at every look.
  const bool check = f.begun || f.taken_as_new;
  if (check && has_header && (!f.checked || std::memcmp(raw, f.checked_header, sizeof raw) != 0)) {
    std::memcpy(f.checked_header, raw, sizeof raw);
    f.checked = true;
    f.checked_valid = nmb_check_file_header(raw);
  }
  const bool sized =
      header.block_size >= NMB_MIN_BLOCK_SIZE && header.block_size < NMB_MAX_BLOCK_SIZE_BOUND;
  const bool valid = check && has_header && f.checked_valid && sized;
  if (f.begun && (!valid || header.block_size != f.reader->header.block_size ||
                  std::memcmp(header.event_schema_ids, f.reader->header.event_schema_ids,
                              sizeof header.event_schema_ids) != 0 ||
                  std::memcmp(header.counters_schema_id, f.reader->header.counters_schema_id,
                              sizeof header.counters_schema_id) != 0)) {
    take_as_new(f, valid ? "changed its layout" : "has no valid header any more");
  }
  if (!f.begun && !valid && options_.follow && (!has_header || f.taken_as_new)) {
    close(fd);  // being written: looked at again when it changes
    return false;
  }
  f.taken_as_new = false;
  if (!f.begun) {
    chunk_.resize(std::max<size_t>(chunk_.size(), sized ? header.block_size : 0));
    if (!begin(f, fd, info, header)) {
      close(fd);
      return true;  // its report was written
    }
    wrote = true;
  }
  // Whole chunks only: those the size holds, or up to the header's
  // file_size when the writer has declared a short last one.
  const uint64_t block_size = f.reader->header.block_size;
  uint64_t end = f.offset + (size - f.offset) / block_size * block_size;
  if (header.file_size > end && header.file_size <= size) {
    // A short last chunk, taken only when a second read of the header says
    // the same (a read during a header rewrite may mix two sizes).
    uint8_t again[NMB_FILE_HEADER_SIZE];
    if (read_at(fd, again, sizeof again, 0) && std::memcmp(again, raw, sizeof raw) == 0)
      end = header.file_size;
  }
  wrote = export_chunks(f, fd, end) || wrote;
  // Looked at again when the size changes, or, while bytes beyond the last
  // whole chunk wait, every time (the header may declare them later).
  f.seen_size = f.offset == size ? size : UINT64_MAX;
  close(fd);
  return wrote;
}

void Follower::wait(int wake_fd) {
  pollfd fds[2] = {{wake_fd, POLLIN, 0}, {inotify_, POLLIN, 0}};
  const int timeout = static_cast<int>(options_.follow_interval * 1000 + 0.5);
  if (poll(fds, inotify_ >= 0 ? 2 : 1, std::max(timeout, 1)) <= 0) return;
  char drain[4096];
  for (const pollfd& p : fds) {
    if (p.fd >= 0 && (p.revents & POLLIN) != 0) {
      while (read(p.fd, drain, sizeof drain) > 0) {
      }
    }
  }
}

void Follower::save_checkpoint() {
  if (options_.checkpoint.empty()) return;
  nmb_checkpoint_t next;
  for (const auto& f : files_) {
    if (f->offset != 0)
      next.files.push_back({f->path, f->device, f->inode, f->offset, f->first_timestamp});
  }
  // Entries of files this run does not see stay while their path exists
  // (another run's inputs); those of deleted files go.
  for (const nmb_checkpoint_entry_t& entry : checkpoint_.files) {
    const bool seen = std::any_of(next.files.begin(), next.files.end(), [&](const auto& e) {
      return e.device == entry.device && e.inode == entry.inode;
    });
    struct stat info {};
    if (!seen && stat(entry.path.c_str(), &info) == 0) next.files.push_back(entry);
  }
  nmb_checkpoint_write(options_.checkpoint, next);
}

int Follower::run(const std::vector<std::string>& paths, int wake_fd) {
  const char* poll_only = nmb_getenv("NMB_FOLLOW_POLL");
  if (options_.follow && poll_only != nullptr && nmb_env_is_true(poll_only)) {
    NMB_LOG(NMB_LOG_DEBUG, "NMB_FOLLOW_POLL: looking every %g s", options_.follow_interval);
  } else if (options_.follow) {
    inotify_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_ < 0) {
      NMB_LOG(NMB_LOG_INFO, "inotify is not available (%s): looking every %g s",
              std::strerror(errno), options_.follow_interval);
    }
  }
  for (const std::string& path : paths) add(path);
  nmb::OutputBuffer& out = nmb::stdout_buffer();
  for (;;) {
    if (options_.follow) discover();
    bool wrote = false;
    for (size_t i = 0; i < files_.size() && !stop_asked() && nmb::output_error() == 0; ++i) {
      Followed& f = *files_[i];
      wrote = pump(f) || wrote;
      if (!options_.follow) finish(f, true);
    }
    if (wrote) {
      out.flush();
      if (nmb::output_error() == 0) save_checkpoint();
    }
    if (!options_.follow || stop_asked() || nmb::output_error() != 0) break;
    wait(wake_fd);
  }
  out.flush();
  if (nmb::output_error() == 0) save_checkpoint();
  for (const auto& f : files_) finish(*f, true);
  if (inotify_ >= 0) close(inotify_);
  return failed_;
}

}  // namespace

int nmb_run_followed(const nmb_read_options_t& options, const std::vector<std::string>& paths,
                     const nmb_reader_settings_t& settings, const nmb::ExportSettings& export_with,
                     nmb::BlockSink& run_sink, nmb_checkpoint_t checkpoint) {
  StopSignals signals;
  Follower follower(options, settings, export_with, run_sink, std::move(checkpoint));
  return follower.run(paths, signals.wake_fd());
}
