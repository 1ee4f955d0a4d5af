// libFuzzer target: runs that use more than one thread against one thread.
// The input is cut into up to six data files at each "NMBSPLIT"; the run over
// them on one thread, reading ahead, and with -j 2 and -j 3 must write the
// same standard output and standard error and count the same failures, in
// every output format but bin (which runs one file at a time whatever -j
// says).
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "app/options.h"
#include "app/run.h"
#include "fuzz/fuzz_inputs.h"
#include "utils/log.h"
#include "utils/output.h"

namespace {

std::string g_dir;
// memfds that standard output and standard error are pointed at during a run
int g_out = -1;
int g_err = -1;

std::string take_text(int fd) {
  std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
  if (pread(fd, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) std::abort();
  if (ftruncate(fd, 0) != 0 || lseek(fd, 0, SEEK_SET) != 0) std::abort();
  return text;
}

// Log lines without their time prefix ("[2026-01-02 03:04:05.678] "), which
// differs from run to run.
std::string without_times(const std::string& text) {
  static constexpr size_t kPrefix = 26;
  std::string kept;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    end = end == std::string::npos ? text.size() : end + 1;
    const bool timed = end - start > kPrefix && text[start] == '[' && text[start + 24] == ']' &&
                       text[start + 25] == ' ';
    kept.append(text, timed ? start + kPrefix : start, end - (timed ? start + kPrefix : start));
    start = end;
  }
  return kept;
}

struct RunResult {
  std::string out;
  std::string err;
  int failed = 0;
  bool operator==(const RunResult&) const = default;
};

RunResult run_captured(const nmb_read_options_t& options) {
  const int saved_out = dup(STDOUT_FILENO);
  const int saved_err = dup(STDERR_FILENO);
  dup2(g_out, STDOUT_FILENO);
  dup2(g_err, STDERR_FILENO);
  RunResult result;
  result.failed = nmb_run(options);
  nmb::stdout_buffer().flush();
  dup2(saved_out, STDOUT_FILENO);
  dup2(saved_err, STDERR_FILENO);
  close(saved_out);
  close(saved_err);
  result.out = take_text(g_out);
  result.err = without_times(take_text(g_err));
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_dir = nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_jobs");
  nmb::fuzz::write_fuzz_schemas(g_dir + "/schema");
  // Log lines go to standard error (captured per run), where reading ahead
  // and -j must keep them in the one-thread order.
  nmb_register_log_callback(nullptr, NMB_LOG_INFO);
  nmb_init_stderr_logger(NMB_LOG_INFO);
  g_out = memfd_create("nmb_fuzz_jobs_out", 0);
  g_err = memfd_create("nmb_fuzz_jobs_err", 0);
  if (g_out < 0 || g_err < 0) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static constexpr int kFormats[] = {NMB_FORMAT_JSON, NMB_FORMAT_NDJSON, NMB_FORMAT_TXT,
                                     NMB_FORMAT_CSV, NMB_FORMAT_INFLUX};
  nmb_read_options_t options;
  options.schema_path = g_dir + "/schema";
  options.format = kFormats[data[0] % 5];
  options.print_headers = (data[0] & 0x80) != 0;
  nmb_string_array_append(options.include, "*");
  std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  for (int n = 0; n < 6; ++n) {
    const size_t cut = rest.find("NMBSPLIT");
    const std::string path = g_dir + "/f" + std::to_string(n) + ".bin";
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) std::abort();
    std::string_view piece = rest.substr(0, cut);
    if (!piece.empty() && std::fwrite(piece.data(), 1, piece.size(), file) != piece.size())
      std::abort();
    std::fclose(file);
    nmb_string_array_append(options.files, path.c_str());
    if (cut == std::string_view::npos) break;
    rest.remove_prefix(cut + 8);
  }
  options.jobs = 1;
  setenv("NMB_READ_AHEAD", "0", 1);
  const RunResult one = run_captured(options);
  unsetenv("NMB_READ_AHEAD");
  if (run_captured(options) != one) std::abort();
  for (uint32_t jobs : {2u, 3u}) {
    options.jobs = jobs;
    if (run_captured(options) != one) std::abort();
  }
  return 0;
}
