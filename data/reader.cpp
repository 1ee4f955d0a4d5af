#include "data/reader.h"

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <new>
#include <string>

#include "counters/counters_schema.h"
#include "data/packed_page.h"
#include "data/schema_json.h"
#include "data/type_system.h"
#include "filter/metadata.h"
#include "filter/provider_counter_set.h"
#include "filter/provider_field_set.h"
#include "utils/log.h"
#include "utils/output.h"
#include "utils/report.h"

namespace {

// The block type named by the four bytes at `offset` (bytes past the buffer
// read as zeros).
nmb_block_type_t classify_at(nmb::ByteView view, size_t offset) {
  uint8_t magic[4];
  view.copy(offset, magic, sizeof magic);
  return nmb_classify_block(magic);
}

std::string schema_file_path(const nmb_reader_settings_t& options, const uint8_t* id) {
  char text[NMB_SCHEMA_ID_TEXT_SIZE];
  nmb_schema_id_to_text(id, text);
  std::string path = options.schema_path;
  path += "/schema_";
  path += text;
  path += ".json";
  return path;
}

bool has_event_schemas(const nmb_reader_context_t& reader) {
  return reader.type_system != nullptr && reader.type_system->num_schemas > 0;
}

bool has_counters(const nmb_reader_context_t& reader) {
  return reader.type_system != nullptr && reader.type_system->counters_schema != nullptr &&
         nmb_counters_schema_number_of_counters(*reader.type_system->counters_schema) > 0;
}

// The events and schemas blocks of one block area, one after the other.
bool process_event_area(nmb_reader_context_t& reader, nmb::ByteView area) {
  const size_t length = area.size();
  size_t offset = 0;
  while (offset + 4 < length) {
    const uint8_t* at = area.data() + offset;
    nmb_block_type_t type = nmb_classify_block(at);
    size_t advance = 0;
    if (type == NMB_SCHEMAS_BLOCK) {
      // Room for the largest schemas block, and a length and count that fit.
      size_t left = length - offset;
      if (left >= NMB_SCHEMAS_BLOCK_MIN_ROOM) {
        uint16_t block_length = nmb_load_u16(at + NMB_SCHEMAS_BLOCK_LENGTH);
        uint16_t count = nmb_load_u16(at + NMB_SCHEMAS_BLOCK_COUNT);
        if (block_length <= left && count <= NMB_SCHEMAS_BLOCK_MAX_IDS &&
            nmb_reader_load_type_system(reader, at + NMB_SCHEMAS_BLOCK_IDS, count)) {
          advance = block_length;
        }
      }
    } else if (type == NMB_EVENTS_BLOCK) {
      advance = reader.sink->events_block(area.from(offset));
    } else {
      // Zero padding after the last event block ends the walk this way.
      NMB_LOG(NMB_LOG_DEBUG, "Unexpected block type %d at offset %zu", type, offset);
      return true;
    }
    if (advance == 0) {
      NMB_LOG(NMB_LOG_ERROR, "Failed to process block of type %d at offset %zu", type, offset);
      return false;
    }
    offset = advance > length - offset ? length : offset + advance;
  }
  return true;
}

}  // namespace

namespace {

// What went wrong in the last gzread: zlib's own message for corrupt or cut
// compressed input, the system error text otherwise.
const char* read_error_text(gzFile file, const char* path) {
  int error = Z_OK;
  const char* message = gzerror(file, &error);
  if (error == Z_OK || error == Z_ERRNO) return std::strerror(errno);
  // zlib puts "<path>: " before its message; the report names the path already.
  size_t length = std::strlen(path);
  if (std::strncmp(message, path, length) == 0 && std::strncmp(message + length, ": ", 2) == 0) {
    message += length + 2;
  }
  return message;
}

// A whole-file gzip that is cut short reads as an early end of file; zlib
// marks it with a buffer error, and the file must fail instead of ending
// quietly with part of its data.
bool compressed_input_cut_short(gzFile file) {
  int error = Z_OK;
  gzerror(file, &error);
  return error == Z_BUF_ERROR;
}

}  // namespace

nmb_reader_context_t::nmb_reader_context_t() = default;

nmb_reader_context_t::~nmb_reader_context_t() {
  if (file != nullptr) gzclose(file);
}

void nmb_reader_report(nmb_reader_context_t& reader, const char* format, ...) {
  va_list args;
  va_start(args, format);
  nmb_report_file_failure(reader.path, format, args);
  va_end(args);
}

bool nmb_reader_open(nmb_reader_context_t& reader, const char* path,
                     const nmb_reader_settings_t& settings, nmb::BlockSink& sink) {
  reader.settings = &settings;
  reader.sink = &sink;
  reader.path = path;
  errno = 0;
  reader.file = gzopen(path, "rb");
  if (reader.file == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to open data file %s: %s", path, std::strerror(errno));
    return false;
  }
  // Fewer, larger reads of plain files; must precede the first read.
  gzbuffer(reader.file, 128 * 1024);
  return sink.file_opened(path);
}

bool nmb_read_header_only(const char* path, nmb_file_header_t& header) {
  errno = 0;
  gzFile file = gzopen(path, "rb");
  if (file == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to open data file %s: %s", path, std::strerror(errno));
    NMB_LOG(NMB_LOG_ERROR, "Failed to initialize reader context");
    return false;
  }
  uint8_t read[NMB_FILE_HEADER_SIZE];
  const int n = gzread(file, read, NMB_FILE_HEADER_SIZE);
  gzclose(file);
  if (n != static_cast<int>(NMB_FILE_HEADER_SIZE)) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to read header from file: %s", path);
    return false;
  }
  if (!nmb_check_file_header(read)) {
    NMB_LOG(NMB_LOG_ERROR, "Invalid header in file: %s", path);
    return false;
  }
  header = nmb_file_header_decode(read);
  return true;
}

namespace {

bool load_type_system(nmb_reader_context_t& reader, const uint8_t* ids, size_t count) {
  const nmb_reader_settings_t& settings = *reader.settings;
  const bool have_cset = !settings.cset_file.empty();
  const bool have_fset = !settings.fset_file.empty();
  // The filter files are read afresh for every load and released after it;
  // the loaded schemas keep only what the filters let through.
  std::unique_ptr<nmb_provider_field_set_t> fset;
  if (have_fset) {
    fset = nmb_provider_field_set_create_from_file(settings.fset_file.c_str());
    if (fset == nullptr) {
      NMB_LOG(NMB_LOG_ERROR, "Failed to load provider field set from file: %s",
              settings.fset_file.c_str());
      return false;
    }
  }
  std::unique_ptr<nmb_provider_counter_set_t> cset;
  if (have_cset) {
    cset = nmb_provider_counter_set_create(settings.cset_file.c_str());
    if (cset == nullptr) {
      NMB_LOG(NMB_LOG_ERROR, "Failed to load provider counter set from file: %s",
              settings.cset_file.c_str());
      return false;
    }
  }
  nmb_event_field_filter_t field_filter;
  if (fset != nullptr) field_filter = nmb_provider_field_set_filter(*fset);
  nmb_counter_filter_t counter_filter;
  if (cset != nullptr) counter_filter = nmb_provider_counter_set_filter(*cset);

  std::unique_ptr<nmb_type_system_t> ts = nmb_type_system_create();
  if (ts == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to create type system object: %s", std::strerror(errno));
    return false;
  }

  // A counter set without a field set excludes all events (unless -I).
  if (!(have_cset && !have_fset && !settings.ignore_missing_filter)) {
    for (size_t i = 0; i < count; ++i) {
      const uint8_t* id = ids + i * NMB_SCHEMA_ID_SIZE;
      if (nmb_schema_id_is_zero(id)) continue;
      std::string path = schema_file_path(settings, id);
      bool skipped = false;
      if (nmb_type_system_load_schema(*ts, path.c_str(), &skipped,
                                      fset != nullptr ? &field_filter : nullptr) == nullptr &&
          !skipped) {
        NMB_LOG(NMB_LOG_ERROR, "Failed to load schema from file: %s", path.c_str());
        return false;
      }
    }
  }

  // A field set without a counter set excludes all counters (unless -I).
  const uint8_t* counters_id = reader.header.counters_schema_id;
  if (!(have_fset && !have_cset && !settings.ignore_missing_filter) &&
      !nmb_schema_id_is_zero(counters_id)) {
    std::string path = schema_file_path(settings, counters_id);
    ts->counters_schema.reset();
    ts->counters_schema =
        nmb_counters_schema_load_file(path.c_str(), cset != nullptr ? &counter_filter : nullptr);
    if (ts->counters_schema == nullptr) {
      NMB_LOG(NMB_LOG_ERROR, "Failed to load counters schema from file: %s", path.c_str());
      return false;
    }
  }
  reader.type_system = std::move(ts);
  return true;
}

}  // namespace

bool nmb_reader_load_type_system(nmb_reader_context_t& reader, const uint8_t* ids, size_t count) {
  reader.type_system.reset();
  const bool ok = load_type_system(reader, ids, count);
  reader.sink->schemas_loaded(reader.type_system.get());
  return ok;
}

bool nmb_reader_process_block(nmb_reader_context_t& reader, nmb::ByteView block,
                              bool in_compressed_block) {
  nmb_block_type_t type = classify_at(block, 0);
  switch (type) {
    case NMB_COUNTERS_BLOCK:
      if (!has_counters(reader)) return true;
      return reader.sink->counters_block(block);
    case NMB_EVENTS_BLOCK:
    case NMB_SCHEMAS_BLOCK:
      if (!has_event_schemas(reader)) return true;
      return process_event_area(reader, block);
    case NMB_CNTX_BLOCK:
      return reader.sink->metrics_block(block);
    default: {
      char magic[5] = {};
      block.copy(0, magic, 4);
      NMB_LOG(NMB_LOG_ERROR, "Reached unknown block type %d '%s'. Magic value '%s'", type,
              in_compressed_block ? "in compressed data block" : "", magic);
      return false;
    }
  }
}

bool nmb_next_packed_page(std::span<const uint8_t> chunk, size_t& offset,
                          std::span<const uint8_t>& payload) {
  const uint8_t* data = chunk.data();
  const size_t n = chunk.size();
  const size_t p = offset;
  // A packed page needs magic, the size and stream size fields and a
  // trailer: fewer than 10 bytes can never hold one.
  if (p >= n || n - p < 10 || nmb_classify_block(data + p) != NMB_PAGE_BLOCK) return false;
  const size_t header_size = data[p + 4];
  const uint64_t stream_size = nmb_load_u32(data + p + 4 + NMB_NMBP_STREAM_SIZE_OFFSET);
  const uint64_t packed_size =
      NMB_NMBP_MAGIC_SIZE + header_size + stream_size + NMB_NMBP_TRAILER_SIZE;
  // A page that does not fit or lacks its trailer ends this chunk quietly.
  // The whole page, trailer included, must lie inside the chunk: a trailer
  // reaching past the chunk's end is never read.
  if (packed_size > n - p) return false;
  const size_t trailer = p + NMB_NMBP_MAGIC_SIZE + header_size + stream_size;
  if (std::memcmp(data + trailer, "nmbp", 4) != 0) return false;
  payload = chunk.subspan(p + NMB_NMBP_MAGIC_SIZE, header_size + static_cast<size_t>(stream_size));
  offset = p + static_cast<size_t>(packed_size);
  return true;
}

bool nmb_decode_packed_page(std::span<const uint8_t> payload, std::unique_ptr<uint8_t[]>& buffer,
                            size_t& capacity, size_t& page_size) {
  uint64_t size = nmb_encoded_payload_decoded_size(payload);
  if (size > NMB_MAX_DECODED_PAGE_SIZE) return nmb_reader_allocation_failed(size);
  page_size = static_cast<size_t>(size);
  if (page_size > capacity || !buffer) {
    buffer.reset();
    capacity = 0;
    try {
      // Left unfilled: decoding writes every byte of a page it accepts.
      buffer = std::make_unique_for_overwrite<uint8_t[]>(page_size + 1);
    } catch (const std::bad_alloc&) {
      return nmb_reader_allocation_failed(size);
    }
    capacity = page_size;
  }
  return nmb_decode_payload_into_buffer(payload, buffer.get(), page_size);
}

bool nmb_reader_process_page(nmb_reader_context_t& reader, std::span<const uint8_t> payload,
                             nmb::ByteView page) {
  if (reader.sink->takes_pages()) return reader.sink->data_page(payload, page);
  const size_t page_size = page.size();
  const size_t length = nmb_decoded_page_block_length(page);
  // An empty decoded page (empty content, or a stream that decodes to
  // nothing) holds no block; a piece length of 0 would never advance.
  for (size_t start = 0; length > 0 && length <= page_size - start; start += length) {
    if (!nmb_reader_process_block(reader, page.from(start).first(length), true)) return false;
  }
  return true;
}

bool nmb_reader_process_page_chunk(nmb_reader_context_t& reader, std::span<const uint8_t> chunk) {
  size_t offset = 0;
  std::span<const uint8_t> payload;
  while (nmb_next_packed_page(chunk, offset, payload)) {
    if (nmb::output_error() != 0) return true;  // nothing more reaches the user
    size_t page_size = 0;
    if (!nmb_decode_packed_page(payload, reader.page_buffer, reader.page_capacity, page_size))
      return false;
    // What follows a piece of the page is the rest of the page; past the
    // page's end reads give zeros.
    const nmb::ByteView page(reader.page_buffer.get(), page_size, page_size);
    if (!nmb_reader_process_page(reader, payload, page)) return false;
  }
  return true;
}

namespace {

// Warns once per file that it ends before `expected` bytes.
void report_truncation(nmb_reader_context_t& reader, uint64_t expected) {
  if (reader.truncation_reported || reader.bytes_found >= expected) return;
  reader.truncation_reported = true;
  NMB_LOG(NMB_LOG_WARNING, "Data file %s is truncated: %lu bytes expected, %lu bytes found",
          reader.path, static_cast<unsigned long>(expected),
          static_cast<unsigned long>(reader.bytes_found));
}

}  // namespace

nmb_chunk_read_t nmb_reader_read_chunk(nmb_reader_context_t& reader, uint8_t* chunk, size_t& size) {
  const uint32_t block_size = reader.header.block_size;
  errno = 0;
  int n = gzread(reader.file, chunk, block_size);
  if (n < 0 || (static_cast<uint32_t>(n) < block_size && compressed_input_cut_short(reader.file))) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to read data file %s: %s", reader.path,
            read_error_text(reader.file, reader.path));
    return NMB_CHUNK_FAILED;
  }
  if (n == 0 && gzeof(reader.file)) {
    report_truncation(reader, reader.header.file_size);
    return NMB_CHUNK_END;
  }
  if (n < 4) {
    NMB_LOG(NMB_LOG_ERROR, "No data block header read from the file %s", reader.path);
    return NMB_CHUNK_FAILED;
  }
  size = static_cast<size_t>(n);
  if (size < block_size && !gzeof(reader.file)) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to read data file %s: %s", reader.path,
            read_error_text(reader.file, reader.path));
    return NMB_CHUNK_FAILED;
  }
  reader.bytes_found += size;
  if (size < block_size) {
    report_truncation(reader,
                      std::max(reader.header.file_size, reader.bytes_found - size + block_size));
  }
  return NMB_CHUNK_READ;
}

bool nmb_reader_process_chunks(nmb_reader_context_t& reader) {
  const nmb_reader_settings_t& settings = *reader.settings;
  const uint64_t first = reader.header.first_timestamp;
  const uint64_t last = reader.header.last_timestamp;
  const uint64_t gt = settings.timestamp_gt;
  const uint64_t lt = settings.timestamp_lt;
  // Kept as it has always been: this compound test never holds with the
  // default upper bound, and blocks are filtered one by one anyway.
  if (first < gt && last < gt && first > lt && last > lt) {
    NMB_LOG(NMB_LOG_DEBUG, "File content is out of date range");
    return true;
  }
  return settings.walk_chunks != nullptr ? settings.walk_chunks(reader)
                                         : nmb_reader_walk_chunks(reader);
}

bool nmb_reader_walk_chunks(nmb_reader_context_t& reader) {
  const uint32_t block_size = reader.header.block_size;
  reader.chunk.reset(static_cast<uint8_t*>(std::calloc(block_size, 1)));
  if (!reader.chunk) {
    return nmb_reader_allocation_failed(block_size);
  }
  uint8_t* const chunk = reader.chunk.get();

  for (;;) {
    // Once standard output has failed, the file ends here quietly: the run
    // stops after it and says why once.
    if (nmb::output_error() != 0) return true;
    size_t size = 0;
    const nmb_chunk_read_t read = nmb_reader_read_chunk(reader, chunk, size);
    if (read != NMB_CHUNK_READ) return read == NMB_CHUNK_END;
    if (!nmb_reader_process_chunk(reader, chunk, size)) return false;
  }
}

bool nmb_reader_process_chunk(nmb_reader_context_t& reader, const uint8_t* chunk, size_t size) {
  return nmb_classify_block(chunk) == NMB_PAGE_BLOCK
             ? nmb_reader_process_page_chunk(reader, std::span<const uint8_t>(chunk, size))
             : nmb_reader_process_block(
                   reader, nmb::ByteView(chunk, size, reader.header.block_size), false);
}

bool nmb_reader_allocation_failed(uint64_t size) {
  NMB_LOG(NMB_LOG_ERROR, "Failed to allocate data block of size %lu: %s",
          static_cast<unsigned long>(size), std::strerror(ENOMEM));
  return false;
}

bool nmb_process_file(const char* path, const nmb_reader_settings_t& settings, nmb::BlockSink& sink,
                      bool first, bool* data_begun) {
  nmb_reader_context_t reader;
  if (!nmb_reader_begin_file(reader, path, settings, sink, first)) return false;
  if (data_begun != nullptr) *data_begun = true;
  const bool ok = nmb_reader_process_chunks(reader);
  sink.end_data(ok);
  if (!ok) {
    nmb_reader_report(reader, "Failed to process data file %s", path);
    return false;
  }
  return true;
}

bool nmb_reader_begin_file(nmb_reader_context_t& reader, const char* path,
                           const nmb_reader_settings_t& settings, nmb::BlockSink& sink,
                           bool first) {
  if (!nmb_reader_open(reader, path, settings, sink)) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to initialize reader context");
    return false;
  }
  NMB_LOG(NMB_LOG_DEBUG, "Processing data file %s", path);

  errno = 0;
  uint8_t raw[NMB_FILE_HEADER_SIZE];
  const int got = gzread(reader.file, raw, NMB_FILE_HEADER_SIZE);
  if (got != static_cast<int>(NMB_FILE_HEADER_SIZE)) {
    nmb_reader_report(reader, "Failed reading data file header: %s", std::strerror(errno));
    // The line above names errno, which a short file leaves at "Success".
    if (got >= 0) {
      NMB_LOG(NMB_LOG_WARNING, "%s holds %d bytes, fewer than the %zu of a data file header", path,
              got, NMB_FILE_HEADER_SIZE);
    }
    return false;
  }
  reader.header = nmb_file_header_decode(raw);
  sink.header_read(reader.header);
  if (!nmb_check_file_header(raw)) {
    nmb_reader_report(reader, "Invalid data file header");
    return false;
  }
  sink.header_checked(reader.header);
  const uint32_t block_size = reader.header.block_size;
  if (block_size < NMB_MIN_BLOCK_SIZE || block_size >= NMB_MAX_BLOCK_SIZE_BOUND) {
    nmb_reader_report(reader, "Block size %d must be in range between %zu and %d bytes ",
                      static_cast<int>(block_size), static_cast<size_t>(NMB_MIN_BLOCK_SIZE),
                      static_cast<int>(NMB_MAX_BLOCK_SIZE_BOUND));
    return false;
  }
  if (!nmb_reader_load_type_system(reader, reader.header.event_schema_ids[0],
                                   NMB_FH_EVENT_SCHEMA_COUNT)) {
    nmb_reader_report(reader, "Failed to load type system");
    return false;
  }
  if (settings.metadata) {
    // Missing metadata is no error: the file is exported without it.
    char id[NMB_SCHEMA_ID_TEXT_SIZE];
    nmb_schema_id_to_text(reader.header.counters_schema_id, id);
    reader.metadata = nmb_metadata_locate(settings.schema_path, id);
  }
  sink.metadata_loaded(reader.metadata.get());

  sink.begin_data(path, first);
  return true;
}
