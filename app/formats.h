// The output formats of -f: one table, one row per format. Option parsing,
// the help text and the choice of block sink all read it; adding a format is
// adding its row (and its sink in export/).
// Stage: driver.
#pragma once

#include <memory>
#include <span>

namespace nmb {
class BlockSink;
struct ExportSettings;
class OutputBuffer;
}  // namespace nmb

// Output format codes: the index of the format's row in the table.
enum nmb_output_format_t : int {
  NMB_FORMAT_JSON = 0,
  NMB_FORMAT_NDJSON = 1,
  NMB_FORMAT_TXT = 2,
  NMB_FORMAT_CSV = 3,
  NMB_FORMAT_INFLUX = 4,
  NMB_FORMAT_BIN = 5,
  NMB_FORMAT_OPENMETRICS = 6,
};

struct nmb_output_format_entry_t {
  nmb_output_format_t code;
  const char* name;  // the argument of -f
  // The sink of a run (or of one file under -j) writing to `out`.
  std::unique_ptr<nmb::BlockSink> (*make_sink)(const nmb::ExportSettings& settings,
                                               nmb::OutputBuffer& out);
  // Writes record by record, with nothing to close at the end of the run
  // (json closes its document; bin finishes data files).
  bool streaming;
  bool in_help;  // named in the -f line of the help text
  // Writes into the -o folder, which must exist.
  bool writes_files;
  // One sink holds state across the files of a run (bin appends pages of
  // many input files to the same output files): files run one at a time
  // whatever -j says.
  bool one_sink_per_run;
  // Can write what a followed file gains as it grows (--follow): every
  // record stands alone, with nothing to close per file.
  bool follows;
};

// Every format, in code order.
std::span<const nmb_output_format_entry_t> nmb_output_formats();
// The row of `code`; nullptr for an unknown code.
const nmb_output_format_entry_t* nmb_output_format(int code);

// The row's writes_files / one_sink_per_run / follows; false for an unknown
// code.
bool nmb_output_format_writes_files(int code);
bool nmb_output_format_one_sink_per_run(int code);
bool nmb_output_format_follows(int code);

// -1 for an unknown name.
int nmb_output_format_from_name(const char* name);
// nullptr for an unknown code.
const char* nmb_output_format_name(int format);
