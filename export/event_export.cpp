#include "export/event_export.h"

#include "data/events_block.h"
#include "data/format.h"
#include "data/type_system.h"
#include "export/record_sink.h"
#include "export/value_format.h"
#include "utils/log.h"

size_t nmb_export_events_block(nmb::RecordSink& sink, nmb::ByteView area) {
  const nmb::ExportSettings& settings = sink.output().settings();
  const nmb_events_block_t block = nmb_events_block_read(area);
  if (settings.print_headers) nmb_print_event_block_header(block.header);
  const nmb_type_definition_t* type = nmb_events_block_type(sink.type_system(), block);
  const nmb_event_plan_t* plan =
      type != nullptr ? sink.event_plans().find(block.schema_index, block.type_index) : nullptr;
  if (plan == nullptr) return 0;

  nmb_header_timestamp_t ts;
  ts.value = block.timestamp;
  if (plan->selected) {
    ts.formatted_length = nmb_format_timestamp_into(ts.value, settings.microsecond_precision,
                                                    ts.formatted, sizeof ts.formatted);
  }
  return nmb_events_block_for_each(block, type->size, area, [&](nmb::ByteView record) {
    if (!plan->selected) return true;
    if (sink.write_event(*plan, record, ts)) return true;
    NMB_LOG(NMB_LOG_ERROR, "Failed to print");
    return false;
  });
}
