// The command line: the options record, its parsing and completion, and the
// help and version texts.
// Stage: driver.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "app/formats.h"
#include "utils/string_array.h"

inline constexpr uint32_t NMB_MAX_VERBOSITY = 7;
// -j: files processed at once (not in the help text, whose lines are fixed).
inline constexpr uint32_t NMB_MAX_JOBS = 256;

struct nmb_read_options_t {
  uint32_t verbosity = 6;
  std::string schema_path = "schema";
  std::string output_dir = "output";
  // Set by -d, even to an empty text (which then fails as a folder that cannot
  // be opened); unlike -C and -F, an empty -d is not "unset".
  std::optional<std::string> data_dir;
  uint64_t timestamp_gt = 0;
  uint64_t timestamp_lt = UINT64_MAX;
  nmb_string_array_t include;
  nmb_string_array_t exclude;
  nmb_string_array_t files;
  int format = NMB_FORMAT_JSON;
  bool print_headers = false;
  bool sort_files = false;
  std::string sort_order;  // empty: the default order
  std::string cset_file;   // empty: none
  std::string fset_file;   // empty: none
  bool ignore_missing_filter = false;
  bool microsecond_precision = false;
  bool metadata = false;
  uint32_t jobs = 1;
  // --follow, --follow-interval and --checkpoint (long options outside the
  // help text): keep exporting what the inputs gain, and resume from a
  // checkpoint file.
  bool follow = false;
  double follow_interval = 0.25;  // seconds between looks when not woken sooner
  std::string checkpoint;         // empty: none
  // --shard K/N (outside the help text): only the K-th of N slices of the
  // input files; shard_count 0 is no slicing.
  uint32_t shard_index = 0;
  uint32_t shard_count = 0;
  bool schema_path_given = false;  // -s was on the command line
  // Warnings found while the command line was read, logged once the logger
  // is set up.
  std::vector<std::string> warnings;
};

inline constexpr double NMB_MAX_FOLLOW_INTERVAL = 3600;

// Parses argv into `options` and completes it (data directory, include
// default, schema folder search, file checks). Messages go to standard error;
// false means the caller prints the help text and exits with 1.
// `exit_now` is set when -h or -V was handled (exit status 0).
bool nmb_read_parse_options(int argc, char** argv, nmb_read_options_t& options, bool& exit_now);

void nmb_read_print_help();
void nmb_read_print_version();

// Looks for a folder named `name` next to `start_path` and up to `depth`
// levels above it; the root itself is never tried. Empty when none exists.
std::string nmb_find_schema_folder(const char* start_path, const char* name, int depth);

// Appends every regular file under `dir`, depth-first, to `files`.
bool nmb_collect_data_files(const std::string& dir, nmb_string_array_t& files);
