#include "export/bin_sink.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <exception>

#include "data/file_header.h"
#include "data/packed_page.h"
#include "utils/log.h"
#include "utils/output.h"

namespace nmb {

namespace {

// A page the writer cannot place: its first 1024 bytes in hex on standard
// output, after the writer's warnings.
void show_page(const DataPage& page) {
  OutputBuffer& out = stdout_buffer();
  char line[100];
  const size_t dump = std::min<size_t>(page.size(), 1024);
  for (size_t start = 0; start < dump; start += 16) {
    nmb_format_hex_dump_line(page.data() + start, std::min<size_t>(16, dump - start), line,
                             sizeof line);
    out.write(line);
    out.put('\n');
  }
  out.commit();
}

}  // namespace

BinSink::BinSink(const ExportSettings& settings, OutputBuffer& buffer,
                 DataWriterConfig writer_config, int format_code)
    : TextSink(settings, buffer),
      writer_config_(std::move(writer_config)),
      format_code_(format_code) {
  writer_config_.made_by_run = std::make_shared<std::set<std::string>>();
}

bool BinSink::file_opened(const char* path) {
  writer_.reset();
  if (!nmb_client_id_create(client_id_)) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to allocate client ID");
    return false;
  }
  DataWriterConfig config = writer_config_;
  config.node = client_id_.host_name;
  config.port = client_id_.port;
  writer_ = std::make_unique<DataWriter>(std::move(config));
  std::memset(counters_schema_id_, 0, sizeof counters_schema_id_);
  plain_blocks_ = 0;
  return TextSink::file_opened(path);
}

void BinSink::header_checked(const nmb_file_header_t& header) {
  // Pages carry no schema ids of their own: the files written from them name
  // the schemas of the file they come from.
  std::memcpy(counters_schema_id_, header.counters_schema_id, NMB_SCHEMA_ID_SIZE);
  file_block_size_ = header.block_size;
  if (writer_)
    writer_->set_initial_schema_ids(header.counters_schema_id, header.event_schema_ids[0]);
}

bool BinSink::counters_block(ByteView block) {
  ++plain_blocks_;
  return TextSink::counters_block(block);
}

size_t BinSink::events_block(ByteView area) {
  ++plain_blocks_;
  return TextSink::events_block(area);
}

bool BinSink::metrics_block(ByteView block) {
  ++plain_blocks_;
  return TextSink::metrics_block(block);
}

void BinSink::end_data(bool ok) {
  TextSink::end_data(ok);
  if (plain_blocks_ != 0) {
    NMB_LOG(NMB_LOG_WARNING,
            "%s holds %" PRIu64
            " blocks outside packed pages: -f bin writes the blocks of packed pages only, so "
            "these are in no output file (counters blocks were printed as txt tables instead)",
            output().path(), plain_blocks_);
  }
  if (writer_) {
    const DataWriter::Losses& file = writer_->losses();
    if (losses_.lost == 0 && file.lost > 0) losses_.first = file.first;
    losses_.pages += file.pages;
    losses_.lost += file.lost;
  }
  writer_.reset();  // finishes the headers of the files written
}

void BinSink::end_run(bool completed) {
  TextSink::end_run(completed);
  // Each failed page was logged where it failed (the first of a series of
  // failures in one file only): the tally says how much is missing.
  if (losses_.lost == 0) return;
  NMB_LOG(NMB_LOG_WARNING, "[data_writer] %lu of %lu pages were not written; the first: %s",
          static_cast<unsigned long>(losses_.lost), static_cast<unsigned long>(losses_.pages),
          losses_.first.c_str());
}

bool BinSink::write_event(const nmb_event_plan_t& /*plan*/, ByteView /*record*/,
                          const nmb_header_timestamp_t& /*ts*/) {
  // Event records of plain chunks go to no data file; the refusal names the
  // format by its code.
  output().report("Unknown output format %d", format_code_);
  return false;
}

bool BinSink::data_page(std::span<const uint8_t> payload, ByteView page) {
  if (!writer_) return true;
  const size_t size = page.size() + NMB_DATA_PAGE_HEADER_SIZE;
  page_.reset(size);
  if (page_.free_space() < page.size()) {
    NMB_LOG(
        NMB_LOG_ERROR, "Invalid allocated data page size %lu is smaller than available space %lu",
        static_cast<unsigned long>(page_.free_space()), static_cast<unsigned long>(page.size()));
    return false;
  }
  std::memcpy(page_.data() + NMB_DATA_PAGE_HEADER_SIZE, page.data(), page.size());
  page_.set_version(NMB_FILE_VERSION_MAJOR, NMB_FILE_VERSION_MINOR);
  page_.set_filled(size);
  // Chunks that read back as the page's blocks: one counters block a chunk,
  // and other pages in chunks of the file's block size when they fit one
  // (the usual case, so that pages of one source share a file), else whole.
  const size_t pieces = nmb_decoded_page_block_length(page);
  if (pieces < page.size()) {
    page_.set_block_size(static_cast<uint32_t>(pieces));
  } else if (page.size() <= file_block_size_) {
    page_.set_block_size(file_block_size_);
  }
  // The packed page's identity and time span.
  nmb_page_identity_t identity;
  const size_t header_size = payload.empty() ? 0 : std::min<size_t>(payload[0], payload.size());
  nmb_nmbp_header_copy_identity(payload.data(), header_size, identity);
  uint64_t first = 0, last = 0;
  if (payload.size() >= NMB_NMBP_FIXED_SIZE) {
    first = nmb_load_u64(payload.data() + NMB_NMBP_FIRST_TIMESTAMP_OFFSET);
    last = nmb_load_u64(payload.data() + NMB_NMBP_LAST_TIMESTAMP_OFFSET);
  }
  page_.set_times(first, last);
  page_.set_source(identity.source_id, sizeof identity.source_id, identity.source_tag,
                   sizeof identity.source_tag);
  page_.set_counters_schema_id(counters_schema_id_);
  try {
    if (!writer_->save_page(page_, type_system())) show_page(page_);
  } catch (const std::exception& e) {
    NMB_LOG(NMB_LOG_ERROR, "[data_writer] %s", e.what());
    return false;
  }
  return true;
}

}  // namespace nmb
