#include "data/reader.h"

#include <zlib.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "counters/counters_export.h"
#include "counters/counters_schema.h"
#include "data/packed_page.h"
#include "data/type_system.h"
#include "export/event_export.h"
#include "utils/log.h"
#include "utils/output.h"

namespace {

// Block type of a block that may be shorter than its magic: missing bytes
// count as zeros.
nmb_block_type_t classify_bounded(std::span<const uint8_t> block) {
  if (block.size() >= 4) return nmb_classify_block(block.data());
  uint8_t magic[4] = {};
  std::memcpy(magic, block.data(), block.size());
  return nmb_classify_block(magic);
}

std::string schema_file_path(const nmb_read_options_t& options, const uint8_t* id) {
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
         nmb_counters_schema_has_counters(*reader.type_system->counters_schema);
}

// The events and schemas blocks of one block area, one after the other.
bool process_event_area(nmb_reader_context_t& reader, std::span<const uint8_t> area) {
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
      advance = nmb_export_events_block(reader, area.subspan(offset));
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

// The size of the blocks a decoded page holds: a page of counters blocks is
// cut at the next counters magic, any other page is one block.
size_t decoded_page_block_length(const uint8_t* page, size_t size) {
  if (size > NMB_COUNTERS_BLOCK_HEADER_SIZE && nmb_classify_block(page) == NMB_COUNTERS_BLOCK) {
    // Reads up to 3 bytes past `size`, into the buffer's zero slack.
    for (size_t offset = NMB_COUNTERS_BLOCK_HEADER_SIZE; offset < size; offset += 4) {
      if (nmb_classify_block(page + offset) == NMB_COUNTERS_BLOCK) return offset;
    }
  }
  return size;
}

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

bool allocation_failed(uint64_t size) {
  NMB_LOG(NMB_LOG_ERROR, "Failed to allocate data block of size %lu: %s",
          static_cast<unsigned long>(size), std::strerror(ENOMEM));
  return false;
}

}  // namespace

nmb_reader_context_t::nmb_reader_context_t() = default;

nmb_reader_context_t::~nmb_reader_context_t() {
  if (file != nullptr) gzclose(file);
}

void nmb_reader_report(nmb_reader_context_t& reader, const char* format, ...) {
  std::fprintf(stderr, "Failed processing file %s: ", reader.path);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fputc('\n', stderr);
  std::fflush(stderr);
}

void nmb_reader_begin_json_record(nmb_reader_context_t& reader) {
  if (reader.options->format == NMB_FORMAT_JSON && reader.records_written != 0) {
    nmb::stdout_buffer().write(",\n");
  }
}

bool nmb_reader_open(nmb_reader_context_t& reader, const char* path,
                     const nmb_read_options_t& options) {
  reader.options = &options;
  reader.path = path;
  errno = 0;
  reader.file = gzopen(path, "rb");
  if (reader.file == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to open data file %s: %s", path, std::strerror(errno));
    return false;
  }
  // Fewer, larger reads of plain files; must precede the first read.
  gzbuffer(reader.file, 128 * 1024);
  if (options.format == NMB_FORMAT_BIN) {
    // -f bin: the client id and the data file writer (output folder) are
    // created here once the writer exists.
  }
  return true;
}

bool nmb_read_header_only(const char* path, const nmb_read_options_t& options,
                          uint8_t (&header)[NMB_FILE_HEADER_SIZE]) {
  nmb_reader_context_t reader;
  if (!nmb_reader_open(reader, path, options)) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to initialize reader context");
    return false;
  }
  if (gzread(reader.file, reader.header, NMB_FILE_HEADER_SIZE) !=
      static_cast<int>(NMB_FILE_HEADER_SIZE)) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to read header from file: %s", path);
    return false;
  }
  if (!nmb_check_file_header(reader.header)) {
    NMB_LOG(NMB_LOG_ERROR, "Invalid header in file: %s", path);
    return false;
  }
  std::memcpy(header, reader.header, NMB_FILE_HEADER_SIZE);
  return true;
}

bool nmb_reader_load_type_system(nmb_reader_context_t& reader, const uint8_t* ids, size_t count) {
  const nmb_read_options_t& options = *reader.options;
  reader.type_system.reset();

  const bool have_cset = !options.cset_file.empty();
  const bool have_fset = !options.fset_file.empty();
  // The -F field set and -C counter set files are loaded here, fresh for
  // every load, and handed to the schema loads below once they exist.

  std::unique_ptr<nmb_type_system_t> ts = nmb_type_system_create();
  if (ts == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to create type system object: %s", std::strerror(errno));
    return false;
  }

  // A counter set without a field set excludes all events (unless -I).
  if (!(have_cset && !have_fset && !options.ignore_missing_filter)) {
    for (size_t i = 0; i < count; ++i) {
      const uint8_t* id = ids + i * NMB_SCHEMA_ID_SIZE;
      if (nmb_schema_id_is_zero(id)) continue;
      std::string path = schema_file_path(options, id);
      bool skipped = false;
      if (nmb_type_system_load_schema(*ts, path.c_str(), &skipped) == nullptr && !skipped) {
        NMB_LOG(NMB_LOG_ERROR, "Failed to load schema from file: %s", path.c_str());
        return false;
      }
    }
  }

  // A field set without a counter set excludes all counters (unless -I).
  const uint8_t* counters_id = reader.header + NMB_FH_COUNTERS_SCHEMA_ID;
  if (!(have_fset && !have_cset && !options.ignore_missing_filter) &&
      !nmb_schema_id_is_zero(counters_id)) {
    std::string path = schema_file_path(options, counters_id);
    ts->counters_schema.reset();
    ts->counters_schema = nmb_counters_schema_load_file(path.c_str());
    if (ts->counters_schema == nullptr) {
      NMB_LOG(NMB_LOG_ERROR, "Failed to load counters schema from file: %s", path.c_str());
      return false;
    }
  }
  reader.type_system = std::move(ts);
  return true;
}

bool nmb_reader_process_block(nmb_reader_context_t& reader, std::span<const uint8_t> block,
                              bool in_compressed_block) {
  nmb_block_type_t type = classify_bounded(block);
  switch (type) {
    case NMB_COUNTERS_BLOCK: {
      if (!has_counters(reader)) return true;
      int result = nmb_export_counters_block(reader, block);
      // Counted whatever the export did (skipped by the time filter or only
      // printed as a header too), so the next json record gets its separator.
      reader.records_written++;
      return result != 0;
    }
    case NMB_EVENTS_BLOCK:
    case NMB_SCHEMAS_BLOCK:
      if (!has_event_schemas(reader)) return true;
      return process_event_area(reader, block);
    case NMB_CNTX_BLOCK:
      // Metrics blocks are passed over until their exporter is wired in here.
      reader.records_written++;
      return true;
    default: {
      char magic[5] = {};
      std::memcpy(magic, block.data(), std::min<size_t>(block.size(), 4));
      NMB_LOG(NMB_LOG_ERROR, "Reached unknown block type %d '%s'. Magic value '%s'", type,
              in_compressed_block ? "in compressed data block" : "", magic);
      return false;
    }
  }
}

bool nmb_reader_process_page_chunk(nmb_reader_context_t& reader, std::span<const uint8_t> chunk) {
  const uint8_t* data = chunk.data();
  const size_t n = chunk.size();
  size_t p = 0;
  // A packed page needs magic, the size and stream size fields and a
  // trailer: fewer than 10 bytes can never hold one.
  while (p < n && n - p >= 10 && nmb_classify_block(data + p) == NMB_PAGE_BLOCK) {
    const size_t header_size = data[p + 4];
    const uint64_t stream_size = nmb_load_u32(data + p + 4 + NMB_NMBP_STREAM_SIZE_OFFSET);
    const uint64_t packed_size =
        NMB_NMBP_MAGIC_SIZE + header_size + stream_size + NMB_NMBP_TRAILER_SIZE;
    // A page that does not fit or lacks its trailer ends this chunk quietly.
    // The whole page, trailer included, must lie inside the chunk: a trailer
    // reaching past the chunk's end is never read.
    if (packed_size > n - p) break;
    const size_t trailer = p + NMB_NMBP_MAGIC_SIZE + header_size + stream_size;
    if (std::memcmp(data + trailer, "nmbp", 4) != 0) break;

    std::span<const uint8_t> payload(data + p + NMB_NMBP_MAGIC_SIZE,
                                     header_size + static_cast<size_t>(stream_size));
    uint64_t size = nmb_encoded_payload_decoded_size(payload);
    if (size > NMB_MAX_DECODED_PAGE_SIZE) return allocation_failed(size);
    const size_t page_size = static_cast<size_t>(size);
    if (page_size + NMB_READER_BUFFER_SLACK > reader.page_capacity) {
      reader.page_buffer.reset();
      reader.page_capacity = 0;
      try {
        // Left unfilled: decoding writes every byte of a page it accepts.
        reader.page_buffer =
            std::make_unique_for_overwrite<uint8_t[]>(page_size + NMB_READER_BUFFER_SLACK);
      } catch (const std::bad_alloc&) {
        return allocation_failed(size);
      }
      reader.page_capacity = page_size + NMB_READER_BUFFER_SLACK;
    }
    uint8_t* const page = reader.page_buffer.get();
    if (!nmb_decode_payload_into_buffer(payload, page, page_size)) return false;
    std::memset(page + page_size, 0, NMB_READER_BUFFER_SLACK);

    if (reader.options->format == NMB_FORMAT_BIN) {
      // -f bin: the decoded page goes to the data file writer here, once it
      // exists; until then the page is passed over.
    } else {
      const size_t length = decoded_page_block_length(page, page_size);
      // An empty decoded page (empty content, or a stream that decodes to
      // nothing) holds no block; a piece length of 0 would never advance.
      for (size_t start = 0; length > 0 && length <= page_size - start; start += length) {
        if (!nmb_reader_process_block(reader, std::span<const uint8_t>(page + start, length),
                                      true)) {
          return false;
        }
      }
    }
    p += static_cast<size_t>(packed_size);
  }
  return true;
}

bool nmb_reader_process_chunks(nmb_reader_context_t& reader) {
  const nmb_read_options_t& options = *reader.options;
  const uint64_t first = nmb_header_first_timestamp(reader.header);
  const uint64_t last = nmb_header_last_timestamp(reader.header);
  const uint64_t gt = options.timestamp_gt;
  const uint64_t lt = options.timestamp_lt;
  // Kept as it has always been: this compound test never holds with the
  // default upper bound, and blocks are filtered one by one anyway.
  if (first < gt && last < gt && first > lt && last > lt) {
    NMB_LOG(NMB_LOG_DEBUG, "File content is out of date range");
    return true;
  }

  const uint32_t block_size = nmb_header_block_size(reader.header);
  // Not filled ahead: only the bytes read and the zero slack after them are
  // ever looked at, so a small file announcing a large block size costs
  // what it holds, not the block size.
  std::unique_ptr<uint8_t[]> chunk;
  try {
    chunk = std::make_unique_for_overwrite<uint8_t[]>(static_cast<size_t>(block_size) +
                                                      NMB_READER_BUFFER_SLACK);
  } catch (const std::bad_alloc&) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to allocate data block of size %u: %s", block_size,
            std::strerror(ENOMEM));
    return false;
  }

  for (;;) {
    errno = 0;
    int n = gzread(reader.file, chunk.get(), block_size);
    if (n < 0 ||
        (static_cast<uint32_t>(n) < block_size && compressed_input_cut_short(reader.file))) {
      NMB_LOG(NMB_LOG_ERROR, "Failed to read data file %s: %s", reader.path,
              read_error_text(reader.file, reader.path));
      return false;
    }
    if (n == 0 && gzeof(reader.file)) return true;
    if (n < 4) {
      NMB_LOG(NMB_LOG_ERROR, "No data block header read from the file %s", reader.path);
      return false;
    }
    const size_t size = static_cast<size_t>(n);
    if (size < block_size && !gzeof(reader.file)) {
      NMB_LOG(NMB_LOG_ERROR, "Failed to read data file %s: %s", reader.path,
              read_error_text(reader.file, reader.path));
      return false;
    }
    std::memset(chunk.get() + size, 0, NMB_READER_BUFFER_SLACK);
    std::span<const uint8_t> block(chunk.get(), size);
    bool ok = nmb_classify_block(block.data()) == NMB_PAGE_BLOCK
                  ? nmb_reader_process_page_chunk(reader, block)
                  : nmb_reader_process_block(reader, block, false);
    if (!ok) return false;
  }
}

bool nmb_process_file(const char* path, const nmb_read_options_t& options, bool first) {
  nmb_reader_context_t reader;
  if (!nmb_reader_open(reader, path, options)) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to initialize reader context");
    return false;
  }
  NMB_LOG(NMB_LOG_DEBUG, "Processing data file %s", path);

  errno = 0;
  if (gzread(reader.file, reader.header, NMB_FILE_HEADER_SIZE) !=
      static_cast<int>(NMB_FILE_HEADER_SIZE)) {
    nmb_reader_report(reader, "Failed reading data file header: %s", std::strerror(errno));
    return false;
  }
  if (options.print_headers) nmb_print_file_header(reader.header);
  if (!nmb_check_file_header(reader.header)) {
    nmb_reader_report(reader, "Invalid data file header");
    return false;
  }
  const uint32_t block_size = nmb_header_block_size(reader.header);
  if (block_size < NMB_MIN_BLOCK_SIZE || block_size >= NMB_MAX_BLOCK_SIZE_BOUND) {
    nmb_reader_report(reader, "Block size %d must be in range between %zu and %d bytes ",
                      static_cast<int>(block_size), static_cast<size_t>(NMB_MIN_BLOCK_SIZE),
                      static_cast<int>(NMB_MAX_BLOCK_SIZE_BOUND));
    return false;
  }
  if (!nmb_reader_load_type_system(reader, reader.header + NMB_FH_EVENT_SCHEMA_IDS,
                                   NMB_FH_EVENT_SCHEMA_COUNT)) {
    nmb_reader_report(reader, "Failed to load type system");
    return false;
  }
  if (options.metadata) {
    // -M: the metadata of the counters schema id (or the folder-wide lookup)
    // is loaded into the context here; missing metadata is no error.
  }

  bool ok;
  if (options.format == NMB_FORMAT_JSON) {
    nmb::OutputBuffer& out = nmb::stdout_buffer();
    if (!first) out.put(',');
    const char* base = std::strrchr(path, '/');
    base = base != nullptr ? base + 1 : path;
    out.printf("\"%.*s\":[", static_cast<int>(std::strcspn(base, ".")), base);
    out.commit();
    ok = nmb_reader_process_chunks(reader);
    if (ok) out.put(']');
    out.commit();
  } else {
    ok = nmb_reader_process_chunks(reader);
  }
  if (!ok) {
    nmb_reader_report(reader, "Failed to process data file %s", path);
    return false;
  }
  return true;
}
