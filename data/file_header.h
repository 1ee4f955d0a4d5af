// The 256-byte file header, decoded once per file: what the reader, the
// sinks and the -S sort read of it. Decoding never fails (every field is
// taken as it stands); nmb_check_file_header (data/format.h) decides whether
// the file can be read.
// Stage: model.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "data/format.h"

struct nmb_file_header_t {
  char magic[4] = {};
  uint8_t version_major = 0;
  uint8_t version_minor = 0;
  uint16_t version_patch = 0;
  uint64_t file_size = 0;
  // The text of the fixed-size fields, up to their first zero byte.
  std::string source_id;
  std::string source_tag;
  uint64_t first_timestamp = 0;
  uint64_t last_timestamp = 0;
  uint32_t block_size = 0;
  uint8_t counters_schema_id[NMB_SCHEMA_ID_SIZE] = {};
  uint8_t event_schema_ids[NMB_FH_EVENT_SCHEMA_COUNT][NMB_SCHEMA_ID_SIZE] = {};
  uint8_t byte_order = 0;
  char magic_end[4] = {};
};

nmb_file_header_t nmb_file_header_decode(std::span<const uint8_t, NMB_FILE_HEADER_SIZE> raw);
