// A block sink that writes json or ndjson through the reference renderer:
// the reader hands it the same blocks it hands the tool's sinks, so the two
// outputs of one data file can be compared byte for byte.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "data/block_sink.h"
#include "tests/support/reference_render.h"

namespace nmb::test::reference {

class ReferenceSink : public nmb::BlockSink {
 public:
  // `metadata` is what the metadata file of the run holds, used when the
  // reader finds it (-M).
  ReferenceSink(bool pretty, Settings settings, std::vector<MetadataEntry> metadata = {})
      : pretty_(pretty), settings_(settings), metadata_(std::move(metadata)) {}

  const std::string& text() const { return out_; }

  void begin_run() override;
  void end_run(bool completed) override;
  bool file_opened(const char* path) override;
  void schemas_loaded(const nmb_type_system_t* ts) override { ts_ = ts; }
  void metadata_loaded(const nmb_metadata_t* metadata) override { enrich_ = metadata != nullptr; }
  void begin_data(const char* path, bool first) override;
  void end_data(bool ok) override;
  bool counters_block(nmb::ByteView block) override;
  size_t events_block(nmb::ByteView area) override;
  bool metrics_block(nmb::ByteView /*block*/) override { return true; }

 private:
  bool put(const std::optional<Value>& record);

  bool pretty_;
  Settings settings_;
  std::vector<MetadataEntry> metadata_;
  const nmb_type_system_t* ts_ = nullptr;
  bool enrich_ = false;
  uint64_t records_ = 0;  // records of the file so far (json separators)
  std::string out_;
};

}  // namespace nmb::test::reference
