#include "app/formats.h"

#include <cstddef>
#include <cstring>
#include <iterator>
#include <utility>

#include "export/bin_sink.h"
#include "export/csv_sink.h"
#include "export/influx_sink.h"
#include "export/json_sink.h"
#include "export/openmetrics_sink.h"
#include "export/text_sink.h"
#include "utils/env.h"

namespace {

// The sink class `Sink` built from the settings, the buffer and `extra`.
template <class Sink, auto... extra>
std::unique_ptr<nmb::BlockSink> make(const nmb::ExportSettings& settings, nmb::OutputBuffer& out) {
  return std::make_unique<Sink>(settings, out, extra...);
}

// -f bin: the data file writer takes its switches from the environment.
std::unique_ptr<nmb::BlockSink> make_bin_sink(const nmb::ExportSettings& settings,
                                              nmb::OutputBuffer& out) {
  nmb::DataWriterConfig writer;
  writer.output_dir = settings.output_dir;
  const char* node_info = nmb_getenv("NMB_NODE_INFO");
  writer.node_info = node_info != nullptr && nmb_env_is_true(node_info);
  if (const char* root = nmb_getenv("NMB_INFINIBAND_ROOT")) writer.infiniband_root = root;
  return std::make_unique<nmb::BinSink>(settings, out, std::move(writer), NMB_FORMAT_BIN);
}

// code, name, sink, streaming, in help, writes files, one sink per run, follows
constexpr nmb_output_format_entry_t kFormats[] = {
    {NMB_FORMAT_JSON, "json", make<nmb::JsonSink, true>, false, true, false, false, false},
    {NMB_FORMAT_NDJSON, "ndjson", make<nmb::JsonSink, false>, true, true, false, false, true},
    {NMB_FORMAT_TXT, "txt", make<nmb::TextSink>, true, true, false, false, true},
    {NMB_FORMAT_CSV, "csv", make<nmb::CsvSink>, true, true, false, false, true},
    {NMB_FORMAT_INFLUX, "influx", make<nmb::InfluxSink>, true, true, false, false, true},
    {NMB_FORMAT_BIN, "bin", make_bin_sink, false, true, true, true, false},
    {NMB_FORMAT_OPENMETRICS, "openmetrics", make<nmb::OpenMetricsSink>, false, false, false, true,
     true},
};

constexpr bool codes_are_row_indexes() {
  for (size_t i = 0; i < std::size(kFormats); ++i) {
    if (kFormats[i].code != static_cast<int>(i)) return false;
  }
  return true;
}
static_assert(codes_are_row_indexes(), "a format's code is the index of its row");

}  // namespace

std::span<const nmb_output_format_entry_t> nmb_output_formats() {
  return kFormats;
}

const nmb_output_format_entry_t* nmb_output_format(int code) {
  const bool known = code >= 0 && static_cast<size_t>(code) < std::size(kFormats);
  return known ? &kFormats[code] : nullptr;
}

bool nmb_output_format_writes_files(int code) {
  const nmb_output_format_entry_t* format = nmb_output_format(code);
  return format != nullptr && format->writes_files;
}

bool nmb_output_format_one_sink_per_run(int code) {
  const nmb_output_format_entry_t* format = nmb_output_format(code);
  return format != nullptr && format->one_sink_per_run;
}

bool nmb_output_format_follows(int code) {
  const nmb_output_format_entry_t* format = nmb_output_format(code);
  return format != nullptr && format->follows;
}

int nmb_output_format_from_name(const char* name) {
  if (name == nullptr) return -1;
  for (const nmb_output_format_entry_t& format : kFormats) {
    if (std::strcmp(name, format.name) == 0) return format.code;
  }
  return -1;
}

const char* nmb_output_format_name(int format) {
  const nmb_output_format_entry_t* entry = nmb_output_format(format);
  return entry != nullptr ? entry->name : nullptr;
}
