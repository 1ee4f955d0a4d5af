// libFuzzer target: arbitrary bytes read by nmb_read as a data file, exported
// as json (through the run driver, with -S), ndjson and, with -p, as text.
// The file names a counters schema and event schemas from a folder written at
// start-up, so the counters and events paths are reached.
#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "app/options.h"
#include "app/run.h"
#include "data/reader.h"
#include "fuzz/fuzz_inputs.h"
#include "utils/log.h"
#include "utils/output.h"

namespace {

std::string g_work_dir;
std::string g_data_path;
nmb_read_options_t g_json;
nmb_read_options_t g_ndjson;
nmb_read_options_t g_headers;
nmb_read_options_t g_openmetrics;

nmb_read_options_t options_for(const std::string& schema_dir, int format) {
  nmb_read_options_t options;
  options.schema_path = schema_dir;
  options.format = format;
  nmb_string_array_append(options.include, "*");
  return options;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_work_dir = nmb::fuzz::quiet_fuzz_setup("nmb_fuzz");
  std::string schema_dir = g_work_dir + "/schema";
  nmb::fuzz::write_fuzz_schemas(schema_dir);
  g_data_path = g_work_dir + "/input.bin";

  g_json = options_for(schema_dir, NMB_FORMAT_JSON);
  g_json.sort_files = true;
  g_json.sort_order = "source_tag, first_timestamp";
  nmb_string_array_append(g_json.files, g_data_path.c_str());
  g_ndjson = options_for(schema_dir, NMB_FORMAT_NDJSON);
  nmb_string_array_append(g_ndjson.exclude, "out*");
  g_headers = options_for(schema_dir, NMB_FORMAT_TXT);
  g_headers.print_headers = true;
  g_headers.timestamp_gt = 1700000000000001;
  g_openmetrics = options_for(schema_dir, NMB_FORMAT_OPENMETRICS);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* file = std::fopen(g_data_path.c_str(), "wb");
  if (!file) std::abort();
  if (size && std::fwrite(data, 1, size, file) != size) std::abort();
  std::fclose(file);

  nmb_run(g_json);
  for (const nmb_read_options_t* options : {&g_ndjson, &g_headers, &g_openmetrics}) {
    const nmb_reader_settings_t settings = nmb_reader_settings_from(*options);
    const nmb::ExportSettings export_with = nmb_export_settings_from(*options);
    auto sink = nmb_make_block_sink(options->format, export_with, nmb::stdout_buffer());
    nmb_process_file(g_data_path.c_str(), settings, *sink, true);
  }
  nmb::stdout_buffer().flush();
  return 0;
}
