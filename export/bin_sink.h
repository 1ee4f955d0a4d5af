// -f bin: decoded packed pages are re-packed into data files under the output
// folder (passed over until the data file writer exists); blocks of plain
// chunks print as under -f txt, except event records, which no binary output
// takes.
#pragma once

#include "export/text_sink.h"

namespace nmb {

class BinSink : public TextSink {
 public:
  BinSink(const ExportSettings& settings, OutputBuffer& buffer) : TextSink(settings, buffer) {}

  bool write_event(const nmb_event_plan_t& /*plan*/, ByteView /*record*/,
                   const nmb_header_timestamp_t& /*ts*/) override {
    output().report("Unknown output format %d", 5);
    return false;
  }
  bool takes_pages() const override { return true; }
  bool data_page(std::span<const uint8_t> /*payload*/, ByteView /*page*/) override { return true; }
};

}  // namespace nmb
