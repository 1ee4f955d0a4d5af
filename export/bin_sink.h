// -f bin: every decoded packed page is written, decoded, into data files under
// the output folder by the data file writer; blocks of plain chunks print as
// under -f txt, except event records, which no binary output takes, and
// metrics blocks, which are refused.
// Stage: writer.
#pragma once

#include <memory>
#include <span>
#include <string>

#include "data/data_page.h"
#include "data/data_writer.h"
#include "export/text_sink.h"
#include "utils/hca_info.h"

namespace nmb {

class BinSink : public TextSink {
 public:
  // `format_code`: the -f code this sink writes, named when an event record
  // is refused.
  BinSink(const ExportSettings& settings, OutputBuffer& buffer, DataWriterConfig writer_config,
          int format_code);

  bool file_opened(const char* path) override;
  void header_checked(const nmb_file_header_t& header) override;
  void end_data(bool ok) override;
  void end_run(bool completed) override;

  // Plain blocks (outside packed pages) are counted, then taken as txt
  // takes them.
  bool counters_block(ByteView block) override;
  size_t events_block(ByteView area) override;
  bool metrics_block(ByteView block) override;

  bool takes_pages() const override { return true; }
  bool data_page(std::span<const uint8_t> payload, ByteView page) override;

 protected:
  bool write_event(const nmb_event_plan_t& plan, ByteView record,
                   const nmb_header_timestamp_t& ts) override;

 private:
  DataWriterConfig writer_config_;
  const int format_code_;
  nmb_client_id_t client_id_{};
  std::unique_ptr<DataWriter> writer_;  // one per file
  DataPage page_;                       // reused while the page size repeats
  uint8_t counters_schema_id_[NMB_SCHEMA_ID_SIZE] = {};
  uint32_t file_block_size_ = 0;
  DataWriter::Losses losses_;  // of the run's files
  uint64_t plain_blocks_ = 0;  // of the current file
};

}  // namespace nmb
