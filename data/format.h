// The on-disk layout of data files: the 256-byte file header, the block
// kinds and their headers, and the version rule (export/header_print prints
// them for -p).
// Stage: model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

inline constexpr size_t NMB_FILE_HEADER_SIZE = 256;

// The format version this reader writes and understands (1.7.0). Files of the
// same major and a minor not above ours are compatible; the patch is ignored.
inline constexpr uint8_t NMB_FILE_VERSION_MAJOR = 1;
inline constexpr uint8_t NMB_FILE_VERSION_MINOR = 7;
inline constexpr uint16_t NMB_FILE_VERSION_PATCH = 0;

// Data chunk sizes accepted by the reader: 16 up to (not including) the bound.
inline constexpr uint32_t NMB_MIN_BLOCK_SIZE = 16;
inline constexpr uint32_t NMB_MAX_BLOCK_SIZE_BOUND = 125829120;

// Block type codes, decided by the fourth magic byte.
enum nmb_block_type_t : int {
  NMB_COUNTERS_BLOCK = 0,  // "NMBD"
  NMB_EVENTS_BLOCK = 1,    // "NMBE"
  NMB_SCHEMAS_BLOCK = 2,   // "NMBS"
  NMB_BLOB_BLOCK = 3,      // "NMBB"
  NMB_UNKNOWN_BLOCK = 4,   // any other fourth byte
  NMB_PAGE_BLOCK = 5,      // "NMBP"
  NMB_CNTX_BLOCK = 6,      // "NMBX", metrics
};

// File header field offsets.
inline constexpr size_t NMB_FH_MAGIC = 0;
inline constexpr size_t NMB_FH_VERSION = 4;  // major, minor, patch (u16)
inline constexpr size_t NMB_FH_FILE_SIZE = 8;
inline constexpr size_t NMB_FH_SOURCE_ID = 16;
inline constexpr size_t NMB_FH_SOURCE_ID_SIZE = 64;
inline constexpr size_t NMB_FH_SOURCE_TAG = 80;
inline constexpr size_t NMB_FH_SOURCE_TAG_SIZE = 16;
inline constexpr size_t NMB_FH_FIRST_TIMESTAMP = 96;
inline constexpr size_t NMB_FH_LAST_TIMESTAMP = 104;
inline constexpr size_t NMB_FH_BLOCK_SIZE = 112;
inline constexpr size_t NMB_FH_COUNTERS_SCHEMA_ID = 116;
inline constexpr size_t NMB_FH_EVENT_SCHEMA_IDS = 132;
inline constexpr size_t NMB_FH_EVENT_SCHEMA_COUNT = 7;
inline constexpr size_t NMB_FH_BYTE_ORDER = 244;
inline constexpr size_t NMB_FH_PADDING = 245;
inline constexpr size_t NMB_FH_MAGIC_END = 252;

inline constexpr size_t NMB_SCHEMA_ID_SIZE = 16;
inline constexpr size_t NMB_SCHEMA_ID_TEXT_SIZE = 33;  // 32 digits and a NUL

// Counters block: magic, padding, timestamp, values.
inline constexpr size_t NMB_COUNTERS_BLOCK_TIMESTAMP = 8;
inline constexpr size_t NMB_COUNTERS_BLOCK_HEADER_SIZE = 16;

// Event block: magic, timestamp, schema index, type index, event count, records.
inline constexpr size_t NMB_EVENT_BLOCK_TIMESTAMP = 4;
inline constexpr size_t NMB_EVENT_BLOCK_SCHEMA_INDEX = 12;
inline constexpr size_t NMB_EVENT_BLOCK_TYPE_INDEX = 13;
inline constexpr size_t NMB_EVENT_BLOCK_NUM_EVENTS = 15;
inline constexpr size_t NMB_EVENT_BLOCK_HEADER_SIZE = 16;

// Schemas block: magic, length (u16), count (u16), 8 unread bytes, ids.
inline constexpr size_t NMB_SCHEMAS_BLOCK_LENGTH = 4;
inline constexpr size_t NMB_SCHEMAS_BLOCK_COUNT = 6;
inline constexpr size_t NMB_SCHEMAS_BLOCK_IDS = 16;
inline constexpr size_t NMB_SCHEMAS_BLOCK_MIN_ROOM = 256;
inline constexpr size_t NMB_SCHEMAS_BLOCK_MAX_IDS = 14;

// Blob block: magic, timestamp, data size, data.
inline constexpr size_t NMB_BLOB_BLOCK_TIMESTAMP = 4;
inline constexpr size_t NMB_BLOB_BLOCK_DATA_SIZE = 12;
inline constexpr size_t NMB_BLOB_BLOCK_HEADER_SIZE = 20;

// Unaligned little-endian loads (data files are read as little-endian).
inline uint16_t nmb_load_u16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
inline uint32_t nmb_load_u32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}
inline uint64_t nmb_load_u64(const uint8_t* p) {
  return static_cast<uint64_t>(nmb_load_u32(p)) | static_cast<uint64_t>(nmb_load_u32(p + 4)) << 32;
}
inline void nmb_store_u16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
inline void nmb_store_u32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
inline void nmb_store_u64(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

// Block type of the block starting at `block` (four readable bytes); only
// the fourth byte counts, so "XYZD" is a counters block and zeros are 4.
nmb_block_type_t nmb_classify_block(const uint8_t* block);
// "NMB_COUNTERS_BLOCK" ... ; "Unknown block" for any other code.
const char* nmb_block_type_name(int type);

// The 32 lower-case hex digits of a 16-byte schema id into `out`.
void nmb_schema_id_to_text(const uint8_t* id, char (&out)[NMB_SCHEMA_ID_TEXT_SIZE]);
std::string nmb_schema_id_to_string(const uint8_t* id);
// True for the all-zero id, which means "no schema".
bool nmb_schema_id_is_zero(const uint8_t* id);

// Checks magic, version and file size of a 256-byte header, logging why a
// header is refused.
bool nmb_check_file_header(const uint8_t* header);
// The version rule alone.
bool nmb_file_version_is_compatible(uint8_t major, uint8_t minor);

// Header field accessors (header must hold NMB_FILE_HEADER_SIZE bytes).
inline uint64_t nmb_header_file_size(const uint8_t* h) {
  return nmb_load_u64(h + NMB_FH_FILE_SIZE);
}
inline uint64_t nmb_header_first_timestamp(const uint8_t* h) {
  return nmb_load_u64(h + NMB_FH_FIRST_TIMESTAMP);
}
inline uint64_t nmb_header_last_timestamp(const uint8_t* h) {
  return nmb_load_u64(h + NMB_FH_LAST_TIMESTAMP);
}
inline uint32_t nmb_header_block_size(const uint8_t* h) {
  return nmb_load_u32(h + NMB_FH_BLOCK_SIZE);
}
