#include "app/options.h"

#include <dirent.h>
#include <getopt.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <zlib.h>

#include "app/shard.h"
#include "build_info.h"
#include "nmb_version.h"
#include "utils/log.h"
#include "utils/numbers.h"
#include "utils/output.h"

namespace {

constexpr int kSchemaSearchDepth = 5;
constexpr size_t kMaxPath = 4096;

const char* bool_text(bool value) {
  return value ? "true" : "false";
}

bool path_exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

// POSIX dirname of a path, without touching the caller's copy.
std::string directory_part(const std::string& path) {
  std::vector<char> copy(path.begin(), path.end());
  copy.push_back('\0');
  return ::dirname(copy.data());
}

bool append_file(nmb_string_array_t& files, const char* path, bool newline) {
  if (nmb_string_array_append(files, path)) return true;
  std::fprintf(stderr, "Failed appending '%s' to the list of counters: %s%s", path,
               std::strerror(errno), newline ? "\n" : "");
  return false;
}

// Long options without a short form.
enum : int { kFollow = 1000, kFollowInterval, kCheckpoint, kShard };

const option kLongOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {"verbose", required_argument, nullptr, 'v'},
    {"schema-path", required_argument, nullptr, 's'},
    {"output-dir", required_argument, nullptr, 'o'},
    {"timestamp-gt", required_argument, nullptr, 'g'},
    {"timestamp-lt", required_argument, nullptr, 'l'},
    {"include-counters", required_argument, nullptr, 'i'},
    {"exclude-counters", required_argument, nullptr, 'e'},
    {"format", required_argument, nullptr, 'f'},
    {"print-page-info", no_argument, nullptr, 'p'},
    {"data-dir", required_argument, nullptr, 'd'},
    {"sort-files", optional_argument, nullptr, 'S'},
    {"cset-file", required_argument, nullptr, 'C'},
    {"fset-file", required_argument, nullptr, 'F'},
    {"ignore-missing-filter", no_argument, nullptr, 'I'},
    {"microsecond-precision", no_argument, nullptr, 'u'},
    {"metadata", no_argument, nullptr, 'M'},
    {"jobs", required_argument, nullptr, 'j'},
    {"follow", no_argument, nullptr, kFollow},
    {"follow-interval", required_argument, nullptr, kFollowInterval},
    {"checkpoint", required_argument, nullptr, kCheckpoint},
    {"shard", required_argument, nullptr, kShard},
    {nullptr, 0, nullptr, 0},
};

// The formats the help text names, as "json|ndjson|...".
std::string help_format_names() {
  std::string names;
  for (const nmb_output_format_entry_t& format : nmb_output_formats()) {
    if (!format.in_help) continue;
    if (!names.empty()) names += '|';
    names += format.name;
  }
  return names;
}

// Reads the options of the table; false on a refused argument.
bool read_options(int argc, char** argv, nmb_read_options_t& options, bool& exit_now) {
  optind = 0;
  int c;
  while ((c = getopt_long(argc, argv, "hVv:s:o:g:l:i:e:f:pd:S::C:F:IuMj:", kLongOptions,
                          nullptr)) != -1) {
    switch (c) {
      case 'h':
        nmb_read_print_help();
        exit_now = true;
        return true;
      case 'V':
        nmb_read_print_version();
        exit_now = true;
        return true;
      case 'v': {
        int64_t level = 0;
        if (!nmb_parse_int64(optarg, level) || static_cast<uint64_t>(level) > NMB_MAX_VERBOSITY) {
          std::fprintf(stderr, "Verbosity level is a number between 0 and %d, %s is given.",
                       static_cast<int>(NMB_MAX_VERBOSITY), optarg);
          return false;
        }
        options.verbosity = static_cast<uint32_t>(level);
        break;
      }
      case 's':
        options.schema_path = optarg;
        options.schema_path_given = true;
        break;
      case 'o':
        options.output_dir = optarg;
        break;
      case 'g':
      case 'l': {
        uint64_t value = 0;
        if (!nmb_parse_uint64(optarg, value)) {
          std::fprintf(stderr, "Timestamp must be a number, %s is given.", optarg);
          return false;
        }
        (c == 'g' ? options.timestamp_gt : options.timestamp_lt) = value;
        break;
      }
      case 'i':
      case 'e':
        if (!append_file(c == 'i' ? options.include : options.exclude, optarg, false)) return false;
        break;
      case 'f':
        options.format = nmb_output_format_from_name(optarg);
        if (options.format < 0) {
          std::fprintf(stderr, "Unsupported output format %s", optarg);
          return false;
        }
        break;
      case 'p':
        options.print_headers = true;
        break;
      case 'd':
        options.data_dir = optarg;
        break;
      case 'S':
        options.sort_files = true;
        if (optarg != nullptr && *optarg != '\0') {
          options.sort_order = optarg;
        } else {
          options.sort_order.clear();
        }
        break;
      case 'C':
        options.cset_file = optarg;
        break;
      case 'F':
        options.fset_file = optarg;
        break;
      case 'I':
        options.ignore_missing_filter = true;
        break;
      case 'u':
        options.microsecond_precision = true;
        break;
      case 'M':
        options.metadata = true;
        break;
      case 'j': {
        int64_t jobs = 0;
        if (!nmb_parse_int64(optarg, jobs) || jobs < 1 || jobs > NMB_MAX_JOBS) {
          std::fprintf(stderr, "Number of jobs is a number between 1 and %d, %s is given.",
                       static_cast<int>(NMB_MAX_JOBS), optarg);
          return false;
        }
        options.jobs = static_cast<uint32_t>(jobs);
        break;
      }
      case kFollow:
        options.follow = true;
        break;
      case kFollowInterval: {
        char* end = nullptr;
        errno = 0;
        const double seconds = std::strtod(optarg, &end);
        if (end == optarg || *end != '\0' || errno != 0 || !(seconds > 0) ||
            seconds > NMB_MAX_FOLLOW_INTERVAL) {
          std::fprintf(stderr,
                       "Follow interval is a number of seconds above 0 and up to %d, %s is given.",
                       static_cast<int>(NMB_MAX_FOLLOW_INTERVAL), optarg);
          return false;
        }
        options.follow_interval = seconds;
        break;
      }
      case kShard:
        if (!nmb_parse_shard(optarg, options.shard_index, options.shard_count)) {
          std::fprintf(stderr, "Shard is K/N with 0 <= K < N <= %u, %s is given.", NMB_MAX_SHARDS,
                       optarg);
          return false;
        }
        break;
      case kCheckpoint:
        if (*optarg == '\0') {
          std::fprintf(stderr, "Checkpoint file name is empty.");
          return false;
        }
        options.checkpoint = optarg;
        break;
      default:
        // getopt has already complained; an unknown option does not stop parsing.
        break;
    }
  }
  for (int i = optind; i < argc; ++i) {
    if (!append_file(options.files, argv[i], false)) return false;
  }
  return true;
}

}  // namespace

std::string nmb_find_schema_folder(const char* start_path, const char* name, int depth) {
  std::string dir = directory_part(start_path);
  for (int i = 0; i < depth; ++i) {
    std::string candidate = dir + "/" + name;
    if (candidate.size() < kMaxPath && path_exists(candidate)) return candidate;
    dir = directory_part(dir);
    if (dir == "/") break;
  }
  return {};
}

bool nmb_collect_data_files(const std::string& dir, nmb_string_array_t& files) {
  DIR* handle = opendir(dir.c_str());
  if (handle == nullptr) {
    std::fprintf(stderr, "Failed to open directory '%s': %s\n", dir.c_str(), std::strerror(errno));
    return false;
  }
  bool ok = true;
  while (dirent* entry = readdir(handle)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    // A path longer than the system allows is not skipped: stat refuses it
    // with "File name too long", which fails the walk like any stat failure.
    std::string path = dir + "/" + entry->d_name;
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
      std::fprintf(stderr, "Failed to stat path '%s': %s\n", path.c_str(), std::strerror(errno));
      ok = false;
      break;
    }
    if (S_ISREG(info.st_mode)) {
      if (!append_file(files, path.c_str(), true)) {
        ok = false;
        break;
      }
    } else if (S_ISDIR(info.st_mode)) {
      if (!nmb_collect_data_files(path, files)) {
        ok = false;
        break;
      }
    }
  }
  closedir(handle);
  return ok;
}

bool nmb_read_parse_options(int argc, char** argv, nmb_read_options_t& options, bool& exit_now) {
  exit_now = false;
  options = nmb_read_options_t{};
  if (!read_options(argc, argv, options, exit_now)) return false;
  if (exit_now) return true;
  if (options.data_dir && !nmb_collect_data_files(*options.data_dir, options.files)) {
    return false;
  }
  if (options.include.empty()) options.include.emplace_back("*");
  if (!path_exists(options.schema_path) && !options.files.empty()) {
    std::string found =
        nmb_find_schema_folder(options.files.front().c_str(), "schema", kSchemaSearchDepth);
    if (found.empty()) {
      std::fprintf(stderr, "Schema folder not found within %d levels of %s\n", kSchemaSearchDepth,
                   options.files.front().c_str());
      return false;
    }
    if (options.schema_path_given) {
      options.warnings.push_back("Schema folder '" + options.schema_path +
                                 "' does not exist: using '" + found + "', found near " +
                                 options.files.front() + ". Name an existing folder with -s");
    }
    options.schema_path = found;
  }
  if (options.follow && !nmb_output_format_follows(options.format)) {
    std::fprintf(stderr,
                 "--follow needs an output format written record by record (ndjson, txt, csv, "
                 "influx or openmetrics), not %s\n",
                 nmb_output_format_name(options.format));
    return false;
  }
  if (options.shard_count != 0 &&
      (options.follow || nmb_output_format_writes_files(options.format))) {
    std::fprintf(stderr, "--shard cannot be used with %s: %s\n",
                 options.follow ? "--follow" : "-f bin",
                 options.follow ? "files that grow cannot be cut into slices of equal bytes"
                                : "slices would write pages of one source into the same files");
    return false;
  }
  if (options.follow && options.jobs > 1) {
    std::fprintf(stderr, "--follow exports one file at a time: -j %u cannot be used with it\n",
                 options.jobs);
    return false;
  }
  if (nmb_output_format_writes_files(options.format) && !path_exists(options.output_dir)) {
    std::fprintf(stderr, "Output folder '%s' does not exits\n", options.output_dir.c_str());
    return false;
  }
  if (!options.cset_file.empty() && !path_exists(options.cset_file)) {
    std::fprintf(stderr, "Counter set file '%s' does not exist\n", options.cset_file.c_str());
    return false;
  }
  if (!options.fset_file.empty() && !path_exists(options.fset_file)) {
    std::fprintf(stderr, "Filter set file '%s' does not exist\n", options.fset_file.c_str());
    return false;
  }
  return true;
}

void nmb_read_print_help() {
  const nmb_read_options_t defaults;
  nmb::OutputBuffer& out = nmb::stdout_buffer();
  out.write("\nNimbrel export collected binary data as text or JSON.\n\n");
  out.write("Usage: nmb_read --schema-path ./schema data1.bin [data2.bin...]\n\n");
  out.write("General options:\n");
  out.write("  -h, --help                        Print this message.\n");
  out.write("  -V, --version                     Print Nimbrel version number.\n");
  out.printf("  -v, --verbose level               Level of verbosity 0-7 (%d).\n",
             static_cast<int>(defaults.verbosity));
  out.printf("  -p, --print-headers               Print data headers (%s).\n",
             bool_text(defaults.print_headers));
  out.write("\nInput options:\n");
  out.printf("  -s, --schema-path dir             Path to the schema files (%s).\n",
             defaults.schema_path.c_str());
  out.write("  -d, --data-dir dir                Path to data directory to process recursively.\n");
  out.write("\nFiltering options:\n");
  out.write("  -g, --timestamp-gt value          Take data with timestamp greater than value.\n");
  out.write("  -l, --timestamp-lt value          Take data with timestamp less than value.\n");
  out.write("  -C, --cset-file path              Path to cset file (optional).\n");
  out.write("  -F, --fset-file path              Path to fset file (optional).\n");
  out.printf(
      "  -I, --ignore-missing-filter       When only one filter file exists (fset/cset), "
      "true=filter by it and include all for missing filter file, false=exclude all for missing "
      "filter file (%s).\n",
      bool_text(defaults.ignore_missing_filter));
  out.write(
      "  -M, --metadata                    Load metadata JSON from schema path, strip index\n");
  out.printf(
      "                                    prefixes from counter names and add labels (%s).\n",
      bool_text(defaults.metadata));
  out.write("  -i, --include-counters pattern    Take counters that match pattern.\n");
  out.write("  -e, --exclude-counters pattern    Do not take counters that match pattern.\n");
  out.printf("  -o, --output-dir dir              Specifies location for .bin files output (%s)\n",
             defaults.output_dir.c_str());
  out.write("\nOutput format:\n");
  out.printf("  -f, --format [%s] Output format (%s).\n", help_format_names().c_str(),
             nmb_output_format_name(defaults.format));
  out.printf(
      "  -u, --microsecond-precision   Show 6 digits after decimal point in timestamps (%s).\n",
      bool_text(defaults.microsecond_precision));
  out.write("\n");
  out.flush();
}

void nmb_read_print_version() {
  nmb::OutputBuffer& out = nmb::stdout_buffer();
  out.printf("Nimbrel binary data reader %s\n", NMB_VERSION_STRING);
  out.printf("Nimbrel build info: %s", NMB_BUILD_INFO);
  out.flush();
}
