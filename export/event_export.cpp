#include "export/event_export.h"

#include "data/events_block.h"
#include "data/format.h"
#include "data/type_system.h"
#include "export/event_plan.h"
#include "export/record_output.h"
#include "export/value_format.h"
#include "utils/log.h"

size_t nmb_export_events_block(nmb::RecordOutput& out, const nmb_type_system_t* ts,
                               const nmb_event_plans_t& plans, nmb::ByteView area,
                               nmb_event_writer_t& writer) {
  const nmb::ExportSettings& settings = out.settings();
  const nmb_events_block_t block = nmb_events_block_read(area);
  if (settings.print_headers) nmb_print_event_block_header(block.header);
  const nmb_type_definition_t* type = nmb_events_block_type(ts, block);
  const nmb_event_plan_t* plan =
      type != nullptr ? plans.find(block.schema_index, block.type_index) : nullptr;
  if (plan == nullptr) return 0;

  nmb_header_timestamp_t stamp;
  stamp.value = block.timestamp;
  if (plan->selected) {
    stamp.formatted_length = nmb_format_timestamp_into(stamp.value, settings.microsecond_precision,
                                                       stamp.formatted, sizeof stamp.formatted);
  }
  return nmb_events_block_for_each(block, type->size, area, [&](nmb::ByteView record) {
    if (!plan->selected) return true;
    if (writer.write_event(*plan, record, stamp)) return true;
    NMB_LOG(NMB_LOG_ERROR, "Failed to print");
    return false;
  });
}
