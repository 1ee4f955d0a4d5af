#include "export/text_sink.h"

#include "counters/counters_schema.h"
#include "counters/counters_text.h"
#include "utils/log.h"

namespace nmb {

bool TextSink::file_opened(const char* path) {
  layout_warned_ = false;
  return RecordSink::file_opened(path);
}

void TextSink::schemas_loaded(const nmb_type_system_t* ts) {
  RecordSink::schemas_loaded(ts);
  const nmb_counters_schema_t* schema = counters_schema();
  if (schema == nullptr || layout_warned_) return;
  for (const nmb_counter_group_t& group : schema->groups) {
    if (group.num_counter_sets == 0) continue;
    for (size_t j = 0; j < group.counters.size(); ++j) {
      const nmb_counter_info_t& counter = group.counters[j];
      if (counter.offset == 8 * j) continue;
      layout_warned_ = true;
      NMB_LOG(NMB_LOG_WARNING,
              "The txt tables of %s read a counter from the 8-byte word of its place in its "
              "group, not from where its value lies: counter '%s' of group '%s' shows the bytes "
              "at %zu, its value is at %u (and other counters after it may be off too). Use -f "
              "ndjson or -f json for the values",
              output().path(), counter.name.c_str(), group.has_name ? group.name.c_str() : "",
              8 * j, counter.offset);
      return;
    }
  }
}

bool TextSink::write_counters(ByteView block) {
  nmb_print_counters_block_text(output().text(), block, *counters_schema(),
                                output().settings().microsecond_precision);
  return true;
}

bool TextSink::write_event(const nmb_event_plan_t& /*plan*/, ByteView /*record*/,
                           const nmb_header_timestamp_t& /*ts*/) {
  // The message names counters although it stands for events.
  output().report("Text output is not yet supported for counters data");
  return true;
}

}  // namespace nmb
