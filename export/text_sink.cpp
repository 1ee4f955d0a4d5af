#include "export/text_sink.h"

#include "counters/counters_text.h"

namespace nmb {

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
