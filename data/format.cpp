#include "data/format.h"

#include <cinttypes>
#include <cstring>

#include "nmb_version.h"
#include "utils/log.h"
#include "utils/output.h"

namespace {

// Block type by fourth magic byte minus 'B'; 'B'..'X' covers 23 letters.
constexpr nmb_block_type_t kBlockTypeByLetter[23] = {
    NMB_BLOB_BLOCK,      // B
    NMB_UNKNOWN_BLOCK,   // C
    NMB_COUNTERS_BLOCK,  // D
    NMB_EVENTS_BLOCK,    // E
    NMB_UNKNOWN_BLOCK,   // F
    NMB_UNKNOWN_BLOCK,   // G
    NMB_UNKNOWN_BLOCK,   // H
    NMB_UNKNOWN_BLOCK,   // I
    NMB_UNKNOWN_BLOCK,   // J
    NMB_UNKNOWN_BLOCK,   // K
    NMB_UNKNOWN_BLOCK,   // L
    NMB_UNKNOWN_BLOCK,   // M
    NMB_UNKNOWN_BLOCK,   // N
    NMB_UNKNOWN_BLOCK,   // O
    NMB_PAGE_BLOCK,      // P
    NMB_UNKNOWN_BLOCK,   // Q
    NMB_UNKNOWN_BLOCK,   // R
    NMB_SCHEMAS_BLOCK,   // S
    NMB_UNKNOWN_BLOCK,   // T
    NMB_UNKNOWN_BLOCK,   // U
    NMB_UNKNOWN_BLOCK,   // V
    NMB_UNKNOWN_BLOCK,   // W
    NMB_CNTX_BLOCK,      // X
};

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
void print_magic(nmb::OutputBuffer& out, const char* label, const uint8_t* magic) {
  out.printf(" %-20s = %4.4s\n", label, reinterpret_cast<const char*>(magic));
}

// A fixed-size, NUL-padded text field of the header, never read past its end.
void print_text_field(nmb::OutputBuffer& out, const char* label, const uint8_t* text, size_t size) {
  out.printf(" %-20s = %.*s\n", label,
             static_cast<int>(strnlen(reinterpret_cast<const char*>(text), size)),
             reinterpret_cast<const char*>(text));
}

}  // namespace

nmb_block_type_t nmb_classify_block(const uint8_t* block) {
  uint8_t index = static_cast<uint8_t>(block[3] - 'B');
  if (index > 22) return NMB_UNKNOWN_BLOCK;
  return kBlockTypeByLetter[index];
}

const char* nmb_block_type_name(int type) {
  switch (type) {
    case NMB_COUNTERS_BLOCK:
      return "NMB_COUNTERS_BLOCK";
    case NMB_EVENTS_BLOCK:
      return "NMB_EVENTS_BLOCK";
    case NMB_SCHEMAS_BLOCK:
      return "NMB_SCHEMAS_BLOCK";
    case NMB_BLOB_BLOCK:
      return "NMB_BLOB_BLOCK";
    case NMB_PAGE_BLOCK:
      return "NMB_PAGE_BLOCK";
    case NMB_CNTX_BLOCK:
      return "NMB_CNTX_BLOCK";
    default:
      return "Unknown block";
  }
}

void nmb_schema_id_to_text(const uint8_t* id, char (&out)[NMB_SCHEMA_ID_TEXT_SIZE]) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (size_t i = 0; i < NMB_SCHEMA_ID_SIZE; ++i) {
    out[2 * i] = kDigits[id[i] >> 4];
    out[2 * i + 1] = kDigits[id[i] & 0x0F];
  }
  out[2 * NMB_SCHEMA_ID_SIZE] = '\0';
}

std::string nmb_schema_id_to_string(const uint8_t* id) {
  char text[NMB_SCHEMA_ID_TEXT_SIZE];
  nmb_schema_id_to_text(id, text);
  return std::string(text, 2 * NMB_SCHEMA_ID_SIZE);
}

bool nmb_schema_id_is_zero(const uint8_t* id) {
  for (size_t i = 0; i < NMB_SCHEMA_ID_SIZE; ++i) {
    if (id[i] != 0) return false;
  }
  return true;
}

bool nmb_file_version_is_compatible(uint8_t major, uint8_t minor) {
  return major == NMB_FILE_VERSION_MAJOR && minor <= NMB_FILE_VERSION_MINOR;
}

bool nmb_check_file_header(const uint8_t* header) {
  if (std::memcmp(header, "NMBF", 4) != 0) {
    NMB_LOG(NMB_LOG_ERROR, "Wrong data page magic number.");
    return false;
  }
  uint8_t major = header[NMB_FH_VERSION];
  uint8_t minor = header[NMB_FH_VERSION + 1];
  uint16_t patch = nmb_load_u16(header + NMB_FH_VERSION + 2);
  if (!nmb_file_version_is_compatible(major, minor)) {
    NMB_LOG(NMB_LOG_ERROR, "Version of data page %u.%u.%u is incompatible with Nimbrel version %s",
            major, minor, patch, NMB_VERSION_STRING);
    return false;
  }
  uint64_t file_size = nmb_header_file_size(header);
  if (file_size < NMB_FILE_HEADER_SIZE) {
    NMB_LOG(NMB_LOG_ERROR, "Wrong data file size %ld is less then file header size %zu",
            static_cast<long>(file_size), NMB_FILE_HEADER_SIZE);
    return false;
  }
  return true;
}

void nmb_print_file_header(const uint8_t* h) {
  nmb::OutputBuffer& out = nmb::stdout_buffer();
  out.printf("Data file header\n");
  print_magic(out, "magic number", h + NMB_FH_MAGIC);
  out.printf(" %-20s = %u.%u.%u\n", "version", h[NMB_FH_VERSION], h[NMB_FH_VERSION + 1],
             nmb_load_u16(h + NMB_FH_VERSION + 2));
  out.printf(" %-20s = %" PRIu64 "\n", "file size", nmb_header_file_size(h));
  print_text_field(out, "source id", h + NMB_FH_SOURCE_ID, NMB_FH_SOURCE_ID_SIZE);
  print_text_field(out, "source tag", h + NMB_FH_SOURCE_TAG, NMB_FH_SOURCE_TAG_SIZE);
  out.printf(" %-20s = %" PRIu64 "\n", "first timestamp", nmb_header_first_timestamp(h));
  out.printf(" %-20s = %" PRIu64 "\n", "last timestamp", nmb_header_last_timestamp(h));
  out.printf(" %-20s = %u\n", "data block size", nmb_header_block_size(h));
  char id[NMB_SCHEMA_ID_TEXT_SIZE];
  nmb_schema_id_to_text(h + NMB_FH_COUNTERS_SCHEMA_ID, id);
  out.printf(" %-20s = %s\n", "counters schema id", id);
  for (int i = 0; i < static_cast<int>(NMB_FH_EVENT_SCHEMA_COUNT); ++i) {
    nmb_schema_id_to_text(h + NMB_FH_EVENT_SCHEMA_IDS + NMB_SCHEMA_ID_SIZE * static_cast<size_t>(i),
                          id);
    out.printf(" schema id[%d]         = %s\n", i, id);
  }
  uint8_t order = h[NMB_FH_BYTE_ORDER];
  out.printf(" %-20s = %u (%s)\n", "byte order", order, order != 0 ? "BE" : "LE");
  print_magic(out, "end magic number", h + NMB_FH_MAGIC_END);
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
