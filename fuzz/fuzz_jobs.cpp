// libFuzzer target: -j against -j 1. The input is cut into up to six data
// files at each "NMBSPLIT"; the run over them with -j 1, -j 2 and -j 3 must
// write the same standard output and count the same failures, in every
// output format but bin (which runs one file at a time whatever -j says).
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
#include "utils/output.h"

namespace {

std::string g_dir;
int g_capture = -1;  // memfd that standard output is pointed at during a run

// Standard output of one run, and its failure count.
std::pair<std::string, int> run_captured(const nmb_read_options_t& options) {
  const int saved = dup(STDOUT_FILENO);
  if (ftruncate(g_capture, 0) != 0 || lseek(g_capture, 0, SEEK_SET) != 0) std::abort();
  dup2(g_capture, STDOUT_FILENO);
  const int failed = nmb_run(options);
  nmb::stdout_buffer().flush();
  dup2(saved, STDOUT_FILENO);
  close(saved);
  std::string text(static_cast<size_t>(lseek(g_capture, 0, SEEK_END)), '\0');
  if (pread(g_capture, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
    std::abort();
  return {text, failed};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_dir = nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_jobs");
  nmb::fuzz::write_fuzz_schemas(g_dir + "/schema");
  g_capture = memfd_create("nmb_fuzz_jobs", 0);
  if (g_capture < 0) std::abort();
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
  const auto one = run_captured(options);
  for (uint32_t jobs : {2u, 3u}) {
    options.jobs = jobs;
    if (run_captured(options) != one) std::abort();
  }
  return 0;
}
