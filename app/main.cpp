// nmb_read: exports Nimbrel binary data files as JSON, text or new data files.
// Stage: driver.

#include <clocale>
#include <cstdio>
#include <cstring>

#include "app/options.h"
#include "app/run.h"
#include "utils/env.h"
#include "utils/log.h"
#include "utils/output.h"

namespace {

// The "C" locale keeps number formatting stable unless the user opts out.
void apply_locale_rule() {
  const char* dont_set = nmb_getenv("NMB_DONT_SET_LOCALE");
  if (dont_set != nullptr && nmb_env_is_true(dont_set)) return;
  if (std::setlocale(LC_ALL, "C") == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "Unable to set locale '%s'", "C");
  }
}

// Writes out what is left for standard output; false (said once on standard
// error) when some of the output could not be written.
bool finish_output() {
  const int error = nmb::finish_stdout();
  if (error == 0) return true;
  std::fprintf(stderr, "nmb_read: write error: %s\n", std::strerror(error));
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  apply_locale_rule();
  nmb_read_options_t options;
  bool exit_now = false;
  if (!nmb_read_parse_options(argc, argv, options, exit_now)) {
    nmb_read_print_help();
    return 1;
  }
  if (exit_now) return finish_output() ? 0 : 1;
  nmb_init_stderr_logger(options.verbosity);
  for (const std::string& warning : options.warnings)
    NMB_LOG(NMB_LOG_WARNING, "%s", warning.c_str());
  if (options.files.empty()) std::fputs("No input files specified\n", stderr);
  nmb_string_array_print(NMB_LOG_DEBUG, options.files, "data file");
  int failed = nmb_run(options);
  if (!finish_output()) return 1;
  if (failed < 0) return 1;  // refused before any file, and said why
  if (failed == 0) return 0;
  std::fprintf(stderr, "Failed to read %d of %zu files\n", failed, options.files.size());
  return 1;
}
