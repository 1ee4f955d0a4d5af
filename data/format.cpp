#include "data/format.h"

#include <cinttypes>
#include <cstring>

#include "nmb_version.h"
#include "utils/log.h"

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
