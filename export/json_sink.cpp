#include "export/json_sink.h"

#include <cstring>
#include <stdexcept>

#include "utils/json_writer.h"
#include "utils/log.h"

namespace nmb {

std::string_view json_file_key(std::string_view path) {
  const std::string_view base = path.substr(path.rfind('/') + 1);
  return base.substr(0, base.find('.'));
}

JsonSink::JsonSink(const ExportSettings& settings, OutputBuffer& buffer, bool pretty)
    : RecordSink(settings, buffer, pretty), pretty_(pretty) {
  events_unbounded_ = true;
  metrics_unbounded_ = true;
}

void JsonSink::schemas_loaded(const nmb_type_system_t* ts) {
  RecordSink::schemas_loaded(ts);
  layouts_.compile(event_plans());
}

void JsonSink::begin_run() {
  if (pretty_) output().buffer().put('{');
}

void JsonSink::end_run(bool completed) {
  // A run that stopped before any file leaves the document open.
  if (pretty_ && completed) output().buffer().put('}');
}

void JsonSink::begin_data(const char* path, bool first) {
  if (!pretty_) return;
  OutputBuffer& out = output().buffer();
  if (!first) out.put(',');
  const std::string_view key = json_file_key(path);
  out.printf("\"%.*s\":[", static_cast<int>(key.size()), key.data());
  out.commit();
}

void JsonSink::end_data(bool ok) {
  RecordSink::end_data(ok);
  if (!pretty_) return;
  // A file that failed leaves its array open.
  if (ok) output().buffer().put(']');
  output().buffer().commit();
  if (!ok) {
    NMB_LOG(NMB_LOG_WARNING,
            "%s failed with its array open, which is kept: the json output is no valid JSON from "
            "here on. Use -f ndjson, whose every line stands alone",
            output().path());
  }
}

bool JsonSink::write_counters(ByteView block) {
  RecordOutput& out = output();
  std::string& text = out.text();
  const size_t mark = text.size();
  out.begin_record();
  if (!nmb_counters_block_to_json(text, block, *counters_plan(),
                                  out.settings().microsecond_precision, pretty_)) {
    text.resize(mark);
    out.report("Failed to JSONify event values");
    return false;
  }
  if (!pretty_) text.push_back('\n');
  return true;
}

bool JsonSink::write_event(const nmb_event_plan_t& plan, ByteView record,
                           const nmb_header_timestamp_t& ts) {
  RecordOutput& out = output();
  std::string& text = out.text();
  const size_t mark = text.size();
  out.begin_record();
  if (refuse_unsafe_plan(plan) ||
      !nmb_event_record_to_json(text, plan, layouts_, record, ts, pretty_)) {
    text.resize(mark);  // the record is taken back whole
    out.report("Failed to JSONify event values");
    return false;
  }
  if (!pretty_) text.push_back('\n');
  return true;
}

bool JsonSink::write_metrics(const metrics::MetricsTables& tables) {
  RecordOutput& out = output();
  std::string& text = out.text();
  const size_t mark = text.size();
  try {
    out.begin_record();
    JsonWriter w(text, pretty_);
    if (!nmb_metrics_to_json(w, tables, out.settings().microsecond_precision)) {
      text.resize(mark);
      out.report("Failed to JSONify metric values");
      return false;
    }
  } catch (const std::exception& e) {
    // Labels or names the block cannot resolve: a malformed block.
    text.resize(mark);
    NMB_LOG(NMB_LOG_ERROR, "failed to parse full block: %s", e.what());
    return false;
  }
  if (!pretty_) text.push_back('\n');
  return true;
}

}  // namespace nmb
