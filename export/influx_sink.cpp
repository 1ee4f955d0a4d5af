#include "export/influx_sink.h"

#include "export/event_influx.h"

namespace nmb {

bool InfluxSink::write_counters(ByteView /*block*/) {
  output().report("Influx line API output is not yet supported for counters data");
  return true;
}

bool InfluxSink::write_event(const nmb_event_plan_t& plan, ByteView record,
                             const nmb_header_timestamp_t& ts) {
  nmb_event_guid_conversion_on();  // read on the first record built
  if (refuse_unsafe_plan(plan) ||
      !nmb_event_record_to_influx(output().text(), plan, record, ts.value, key_prefix_)) {
    output().report("Failed to serialize event data to Influx line API format");
    return false;
  }
  output().count_record();
  return true;
}

}  // namespace nmb
