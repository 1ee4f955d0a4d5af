#include "app/run.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "app/file_jobs.h"
#include "app/follow.h"
#include "app/formats.h"
#include "app/progress.h"
#include "app/shard.h"
#include "data/format.h"
#include "data/read_ahead.h"
#include "data/reader.h"
#include "export/json_sink.h"
#include "utils/env.h"
#include "utils/log.h"
#include "utils/numbers.h"
#include "utils/output.h"

namespace {

// What sorting needs of one file, taken from its header.
struct file_entry_t {
  char source_id[64] = {};   // at most 63 characters, terminated
  char source_tag[16] = {};  // at most 15 characters, terminated
  uint64_t first_timestamp = 0;
  std::string path;
};

// Cut as sorting has always compared them: at most 63 and 15 characters.
void copy_header_text(char* out, size_t out_size, const std::string& text) {
  const size_t length = std::min(text.size(), out_size - 1);
  std::memcpy(out, text.data(), length);
  out[length] = '\0';
}

void fill_entry(file_entry_t& entry, const nmb_file_header_t& header) {
  copy_header_text(entry.source_id, sizeof entry.source_id, header.source_id);
  copy_header_text(entry.source_tag, sizeof entry.source_tag, header.source_tag);
  entry.first_timestamp = header.first_timestamp;
}

// Negative, zero or positive as a orders before, with or after b on `key`.
int compare_on(nmb_sort_key_t key, const file_entry_t& a, const file_entry_t& b) {
  switch (key) {
    case NMB_SORT_KEY_SOURCE_ID:
      return std::strcmp(a.source_id, b.source_id);
    case NMB_SORT_KEY_SOURCE_TAG:
      return std::strcmp(a.source_tag, b.source_tag);
    case NMB_SORT_KEY_FIRST_TIMESTAMP:
      return a.first_timestamp < b.first_timestamp ? -1 : a.first_timestamp > b.first_timestamp;
  }
  return 0;
}

void log_entries(const char* label, const std::vector<file_entry_t>& entries) {
  if (!nmb_log_enabled(NMB_LOG_DEBUG)) return;
  for (const file_entry_t& entry : entries) {
    nmb_log(NMB_LOG_DEBUG, "%s %s \u2192 source_id = %s | source_tag = %s | ts = %" PRIu64, label,
            entry.path.c_str(), entry.source_id, entry.source_tag, entry.first_timestamp);
  }
}

void sort_entries(std::vector<file_entry_t>& entries, const nmb_sort_order_t& order) {
  log_entries("before sort:", entries);
  std::sort(entries.begin(), entries.end(), [&order](const file_entry_t& a, const file_entry_t& b) {
    for (size_t i = 0; i < order.count; ++i) {
      int c = compare_on(order.keys[i], a, b);
      if (c != 0) return c < 0;
    }
    return false;
  });
  // Two blanks after the colon line the lists up.
  log_entries("after sort: ", entries);
}

}  // namespace

std::unique_ptr<nmb::BlockSink> nmb_make_block_sink(int format, const nmb::ExportSettings& settings,
                                                    nmb::OutputBuffer& out) {
  const nmb_output_format_entry_t* entry = nmb_output_format(format);
  if (entry == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "Unknown output format %d", format);
    return nullptr;
  }
  return entry->make_sink(settings, out);
}

nmb_reader_settings_t nmb_reader_settings_from(const nmb_read_options_t& options) {
  nmb_reader_settings_t settings;
  settings.schema_path = options.schema_path;
  settings.cset_file = options.cset_file;
  settings.fset_file = options.fset_file;
  settings.ignore_missing_filter = options.ignore_missing_filter;
  settings.metadata = options.metadata;
  settings.timestamp_gt = options.timestamp_gt;
  settings.timestamp_lt = options.timestamp_lt;
  return settings;
}

nmb::ExportSettings nmb_export_settings_from(const nmb_read_options_t& options) {
  nmb::ExportSettings settings;
  settings.print_headers = options.print_headers;
  settings.microsecond_precision = options.microsecond_precision;
  settings.timestamp_gt = options.timestamp_gt;
  settings.timestamp_lt = options.timestamp_lt;
  settings.output_dir = options.output_dir;
  settings.include = &options.include;
  settings.exclude = &options.exclude;
  return settings;
}

namespace {

// The files in the -S order; false when a header could not be read: then no
// file is processed.
bool sort_files(const nmb_read_options_t& options, std::vector<std::string>& paths, int& failed) {
  std::vector<file_entry_t> entries;
  try {
    entries.resize(options.files.size());
  } catch (const std::bad_alloc&) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to allocate memory for file entries");
    failed = 1;
    return false;
  }
  for (size_t i = 0; i < options.files.size(); ++i) {
    const std::string& path = options.files[i];
    nmb_file_header_t header;
    if (!nmb_read_header_only(path.c_str(), header)) {
      // Nothing is processed, and the json envelope stays open.
      NMB_LOG(NMB_LOG_ERROR, "Failed to read file header: %s", path.c_str());
      failed = 1;
      return false;
    }
    fill_entry(entries[i], header);
    entries[i].path = path;
  }

  nmb_sort_order_t order;
  if (options.sort_order.empty()) {
    NMB_LOG(NMB_LOG_INFO, "Sort order not specified. Using default.");
  } else if (!nmb_parse_sort_order(options.sort_order.c_str(), order)) {
    NMB_LOG(NMB_LOG_WARNING, "Invalid sort order string '%s'. Using default.",
            options.sort_order.c_str());
    order = nmb_sort_order_t{};
  }
  sort_entries(entries, order);
  for (file_entry_t& entry : entries) paths.push_back(std::move(entry.path));
  return true;
}

// Files run one at a time when parallel files could not write what one at a
// time writes: a format whose one sink holds state across files, and two
// GUID switch variables that disagree are warned about once, by the first
// file that needs the switch.
uint32_t jobs_for(const nmb_read_options_t& options) {
  if (nmb_output_format_one_sink_per_run(options.format)) return 1;
  const char* prefixed = std::getenv("NMB_CONVERT_GUID_TO_HEX_STRING");
  const char* plain = std::getenv("CONVERT_GUID_TO_HEX_STRING");
  if (prefixed != nullptr && plain != nullptr && std::strcmp(prefixed, plain) != 0) return 1;
  return options.jobs;
}

// Files run one at a time read ahead on a second thread, unless
// NMB_READ_AHEAD is false (one thread for everything) or the log lines of
// that thread could not be held back until their place in the output; files
// run at once already keep the cores busy.
bool reads_ahead(uint32_t jobs) {
  if (jobs > 1 || !nmb_log_lines_capturable()) return false;
  const char* read_ahead = nmb_getenv("NMB_READ_AHEAD");
  return read_ahead == nullptr || nmb_env_is_true(read_ahead);
}

// What files waiting for their turn may hold in memory, per thread
// (NMB_JOB_BUFFER_SIZE, in bytes, lets tests make it small).
size_t job_buffer_cap() {
  const char* text = std::getenv("NMB_JOB_BUFFER_SIZE");
  uint64_t cap = 0;
  if (text == nullptr || !nmb_parse_uint64(text, cap) || cap == 0) return NMB_JOB_BUFFER_CAP;
  return static_cast<size_t>(cap);
}

// The json document names each file's array by the file's base name (up to
// its first '.'), and puts ',' before every file's key but the run's first
// file's: what the rules keep there makes a document that is not JSON, or
// one that jq reads with arrays lost. Said once per run, after the files.
void warn_about_json_document(const std::vector<std::string>& paths, const bool* begun) {
  for (size_t i = 1; i < paths.size() && !begun[0]; ++i) {
    if (!begun[i]) continue;
    NMB_LOG(NMB_LOG_WARNING,
            "The json output is no valid JSON: the run's first file, %s, failed before its "
            "records, and the next file's key follows '{' with ','. Use -f ndjson",
            paths[0].c_str());
    break;
  }
  std::unordered_map<std::string_view, size_t> first_with_key;
  for (size_t i = 0; i < paths.size(); ++i) {
    if (!begun[i]) continue;
    auto [at, added] = first_with_key.emplace(nmb::json_file_key(paths[i]), i);
    if (added) continue;
    NMB_LOG(
        NMB_LOG_WARNING,
        "The json output names each file's records by its base name: %s and %s are both "
        "\"%.*s\", and a JSON reader such as jq keeps only the last. Use -f ndjson, or files of "
        "different names",
        paths[at->second].c_str(), paths[i].c_str(), static_cast<int>(at->first.size()),
        at->first.data());
    return;
  }
}

}  // namespace

bool nmb_parse_sort_order(const char* text, nmb_sort_order_t& order) {
  static constexpr std::string_view kBlanks = " \t\n\r\f\v";
  nmb_sort_order_t parsed;
  parsed.count = 0;
  std::string_view rest = text != nullptr ? text : "";
  for (;;) {
    size_t comma = rest.find(',');
    std::string_view token = rest.substr(0, comma);
    size_t begin = token.find_first_not_of(kBlanks);
    if (begin != std::string_view::npos) {
      token = token.substr(begin, token.find_last_not_of(kBlanks) - begin + 1);
      if (parsed.count == NMB_MAX_SORT_KEYS) break;  // later tokens are not looked at
      nmb_sort_key_t key;
      if (token == "source_id") {
        key = NMB_SORT_KEY_SOURCE_ID;
      } else if (token == "source_tag") {
        key = NMB_SORT_KEY_SOURCE_TAG;
      } else if (token == "first_timestamp") {
        key = NMB_SORT_KEY_FIRST_TIMESTAMP;
      } else {
        NMB_LOG(NMB_LOG_ERROR, "[sort] Unknown sort key: '%.*s'", static_cast<int>(token.size()),
                token.data());
        return false;
      }
      parsed.keys[parsed.count++] = key;
    }
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  if (parsed.count == 0) return false;
  order = parsed;
  return true;
}

int nmb_run(const nmb_read_options_t& options) {
  nmb::OutputBuffer& out = nmb::stdout_buffer();
  const uint32_t jobs = jobs_for(options);
  nmb_reader_settings_t settings = nmb_reader_settings_from(options);
  if (reads_ahead(jobs)) settings.walk_chunks = nmb_reader_walk_chunks_ahead;
  const nmb::ExportSettings export_with = nmb_export_settings_from(options);
  std::unique_ptr<nmb::BlockSink> sink = nmb_make_block_sink(options.format, export_with, out);
  if (!sink) return 1;  // nothing is written, no file is processed
  nmb_checkpoint_t checkpoint;
  if (!options.checkpoint.empty()) {
    std::optional<nmb_checkpoint_t> read = nmb_checkpoint_read(options.checkpoint);
    if (!read) return -1;  // nothing is written, no file is processed
    checkpoint = std::move(*read);
  }
  sink->begin_run();
  int failed = 0;
  bool completed = true;
  std::vector<std::string> paths;
  if (options.sort_files) {
    completed = sort_files(options, paths, failed);
  } else {
    paths = options.files;
  }
  if (options.shard_count != 0)
    paths = nmb_shard_paths(paths, options.shard_index, options.shard_count);
  nmb::RunProgress progress(paths.size());
  // Which files reached their records (each written by its own job).
  std::unique_ptr<bool[]> begun = std::make_unique<bool[]>(paths.size());
  if (options.follow || !options.checkpoint.empty()) {
    // From the checkpoint on, whole chunks only, one file at a time.
    failed += nmb_run_followed(options, paths, settings, export_with, *sink, std::move(checkpoint));
  } else if (jobs <= 1) {
    // A failed write to standard output ends the run: no further file.
    for (size_t i = 0; i < paths.size() && nmb::output_error() == 0; ++i) {
      if (!nmb_process_file(paths[i].c_str(), settings, *sink, i == 0, &begun[i])) ++failed;
      progress.file_done();
    }
  } else {
    // Each file gets a sink of its own, writing to the file's own buffer.
    failed += nmb_run_file_jobs(
        paths.size(), jobs, job_buffer_cap(), [&](size_t index, nmb::OutputBuffer& file_out) {
          std::unique_ptr<nmb::BlockSink> file_sink =
              nmb_make_block_sink(options.format, export_with, file_out);
          const bool ok = nmb_process_file(paths[index].c_str(), settings, *file_sink, index == 0,
                                           &begun[index]);
          progress.file_done();
          return ok;
        });
  }
  if (options.format == NMB_FORMAT_JSON) warn_about_json_document(paths, begun.get());
  sink->end_run(completed);
  out.flush();
  return failed;
}
