#include "export/header_print.h"

#include <cinttypes>
#include <iterator>

#include "utils/output.h"

namespace {

struct field_row_t {
  const char* name;
  unsigned long offset;
  unsigned long size;  // 0: a trailing array without a size
};

void print_fields(const field_row_t* rows, size_t count) {
  nmb::OutputBuffer& out = nmb::stdout_buffer();
  out.printf("Field                       Offset    Size\n");
  for (size_t i = 0; i < count; ++i) {
    if (rows[i].size == 0) {
      out.printf(" %-25s  %-8lu\n", rows[i].name, rows[i].offset);
    } else {
      out.printf(" %-25s  %-8lu  %-lu\n", rows[i].name, rows[i].offset, rows[i].size);
    }
  }
  out.commit();
}

// Magic bytes as text: at most four characters, stopping at a NUL.
void print_magic(nmb::OutputBuffer& out, const char* label, const void* magic) {
  out.printf(" %-20s = %4.4s\n", label, static_cast<const char*>(magic));
}

}  // namespace

void nmb_print_file_header(const nmb_file_header_t& h) {
  nmb::OutputBuffer& out = nmb::stdout_buffer();
  out.printf("Data file header\n");
  print_magic(out, "magic number", h.magic);
  out.printf(" %-20s = %u.%u.%u\n", "version", h.version_major, h.version_minor, h.version_patch);
  out.printf(" %-20s = %" PRIu64 "\n", "file size", h.file_size);
  out.printf(" %-20s = %s\n", "source id", h.source_id.c_str());
  out.printf(" %-20s = %s\n", "source tag", h.source_tag.c_str());
  out.printf(" %-20s = %" PRIu64 "\n", "first timestamp", h.first_timestamp);
  out.printf(" %-20s = %" PRIu64 "\n", "last timestamp", h.last_timestamp);
  out.printf(" %-20s = %u\n", "data block size", h.block_size);
  char id[NMB_SCHEMA_ID_TEXT_SIZE];
  nmb_schema_id_to_text(h.counters_schema_id, id);
  out.printf(" %-20s = %s\n", "counters schema id", id);
  for (int i = 0; i < static_cast<int>(NMB_FH_EVENT_SCHEMA_COUNT); ++i) {
    nmb_schema_id_to_text(h.event_schema_ids[i], id);
    out.printf(" schema id[%d]         = %s\n", i, id);
  }
  out.printf(" %-20s = %u (%s)\n", "byte order", h.byte_order, h.byte_order != 0 ? "BE" : "LE");
  print_magic(out, "end magic number", h.magic_end);
  out.commit();
}

void nmb_print_counters_block_header(const uint8_t* block) {
  nmb::OutputBuffer& out = nmb::stdout_buffer();
  out.printf("Data block\n");
  print_magic(out, "magic number", block);
  // The block's only timestamp carries the label "last timestamp".
  out.printf(" %-20s = %" PRIu64 "\n", "last timestamp",
             nmb_load_u64(block + NMB_COUNTERS_BLOCK_TIMESTAMP));
  out.commit();
}

void nmb_print_event_block_header(const uint8_t* block) {
  nmb::OutputBuffer& out = nmb::stdout_buffer();
  out.printf("Event header\n");
  print_magic(out, "magic number", block);
  out.printf(" %-20s = %u\n", "schema index", block[NMB_EVENT_BLOCK_SCHEMA_INDEX]);
  out.printf(" %-20s = %u\n", "type index", nmb_load_u16(block + NMB_EVENT_BLOCK_TYPE_INDEX));
  out.printf(" %-20s = %u\n", "number of events", block[NMB_EVENT_BLOCK_NUM_EVENTS]);
  out.commit();
}

void nmb_print_blob_block_header(const uint8_t* block) {
  nmb::OutputBuffer& out = nmb::stdout_buffer();
  out.printf("Blob block\n");
  print_magic(out, "magic number", block);
  out.printf(" %-20s = %" PRIu64 "\n", "timestamp", nmb_load_u64(block + NMB_BLOB_BLOCK_TIMESTAMP));
  out.printf(" %-20s = %" PRIu64 "\n", "data size", nmb_load_u64(block + NMB_BLOB_BLOCK_DATA_SIZE));
  out.commit();
}

void nmb_print_file_header_fields() {
  static constexpr field_row_t kRows[] = {
      {"magic", NMB_FH_MAGIC, 4},
      {"version", NMB_FH_VERSION, 4},
      {"file_size", NMB_FH_FILE_SIZE, 8},
      {"source_id", NMB_FH_SOURCE_ID, NMB_FH_SOURCE_ID_SIZE},
      {"source_tag", NMB_FH_SOURCE_TAG, NMB_FH_SOURCE_TAG_SIZE},
      {"first_timestamp", NMB_FH_FIRST_TIMESTAMP, 8},
      {"last_timestamp", NMB_FH_LAST_TIMESTAMP, 8},
      {"block_size", NMB_FH_BLOCK_SIZE, 4},
      {"counters_schema_id", NMB_FH_COUNTERS_SCHEMA_ID, NMB_SCHEMA_ID_SIZE},
      {"event_schema_ids", NMB_FH_EVENT_SCHEMA_IDS, NMB_SCHEMA_ID_SIZE * NMB_FH_EVENT_SCHEMA_COUNT},
      {"byte_order", NMB_FH_BYTE_ORDER, 1},
      {"padding", NMB_FH_PADDING, 7},
      {"magic_end", NMB_FH_MAGIC_END, 4},
  };
  print_fields(kRows, std::size(kRows));
}

void nmb_print_counters_block_fields() {
  static constexpr field_row_t kRows[] = {
      {"header.magic", 0, 4},
      {"padding", 4, 4},
      {"timestamp", NMB_COUNTERS_BLOCK_TIMESTAMP, 8},
      {"values[]", NMB_COUNTERS_BLOCK_HEADER_SIZE, 0},
  };
  print_fields(kRows, std::size(kRows));
}

void nmb_print_event_block_fields() {
  static constexpr field_row_t kRows[] = {
      {"magic", 0, 4},
      {"timestamp", NMB_EVENT_BLOCK_TIMESTAMP, 8},
      {"schema_index", NMB_EVENT_BLOCK_SCHEMA_INDEX, 1},
      {"type_index", NMB_EVENT_BLOCK_TYPE_INDEX, 2},
      {"num_events", NMB_EVENT_BLOCK_NUM_EVENTS, 1},
  };
  print_fields(kRows, std::size(kRows));
}

void nmb_print_blob_block_fields() {
  static constexpr field_row_t kRows[] = {
      {"header.magic", 0, 4},
      {"timestamp", NMB_BLOB_BLOCK_TIMESTAMP, 8},
      {"data_size", NMB_BLOB_BLOCK_DATA_SIZE, 8},
  };
  print_fields(kRows, std::size(kRows));
}
