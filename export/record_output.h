// What every exporter writes through: the export settings, the file being
// exported (named in per-file reports), the count of records written for it
// (which drives the json ",\n" separator) and the output buffer.
// Stage: writer.
#pragma once

#include <cstdint>
#include <string>

#include "utils/output.h"
#include "utils/string_array.h"

namespace nmb {

struct ExportSettings {
  bool print_headers = false;
  bool microsecond_precision = false;
  uint64_t timestamp_gt = 0;
  uint64_t timestamp_lt = UINT64_MAX;
  std::string output_dir = "output";  // -o, for -f bin
  // Event type selection (-i/-e); borrowed, empty when not set.
  const nmb_string_array_t* include = nullptr;
  const nmb_string_array_t* exclude = nullptr;
};

class RecordOutput {
 public:
  // `json_separators`: records of a file are separated by ",\n" (json).
  RecordOutput(const ExportSettings& settings, OutputBuffer& buffer, bool json_separators)
      : settings_(settings), buffer_(buffer), json_separators_(json_separators) {}

  const ExportSettings& settings() const { return settings_; }
  OutputBuffer& buffer() { return buffer_; }
  std::string& text() { return buffer_.text(); }

  // A new file: its path for reports, and no record written yet.
  void start_file(const char* path) {
    path_ = path;
    records_written_ = 0;
  }
  const char* path() const { return path_; }
  uint32_t records_written() const { return records_written_; }

  // Starts one JSON record: ",\n" unless it is the file's first (json only).
  void begin_record() {
    if (json_separators_ && records_written_ != 0) buffer_.write(",\n");
  }
  // Counts a record (also one that only reported, or wrote nothing) and lets
  // the buffer flush at this record boundary.
  void count_record() {
    ++records_written_;
    buffer_.commit();
  }

  // The per-file report: "Failed processing file <path>: <message>".
  void report(const char* format, ...) __attribute__((format(printf, 2, 3)));

 private:
  const ExportSettings& settings_;
  OutputBuffer& buffer_;
  const bool json_separators_;
  const char* path_ = "";
  uint32_t records_written_ = 0;
};

}  // namespace nmb
