// Data pages as the data file writer takes them: a 720-byte page header
// (version, sizes, time span, counters schema id, source id and tag) followed
// by the page's blocks, in one buffer.
// Stage: model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

inline constexpr size_t NMB_DATA_PAGE_HEADER_SIZE = 720;

// Page header field offsets (little-endian).
inline constexpr size_t NMB_DP_VERSION_MAJOR = 0;
inline constexpr size_t NMB_DP_VERSION_MINOR = 1;
inline constexpr size_t NMB_DP_PAGE_SIZE = 8;
inline constexpr size_t NMB_DP_FILLED = 16;
inline constexpr size_t NMB_DP_BLOCK_SIZE = 24;
inline constexpr size_t NMB_DP_FIRST_TIMESTAMP = 32;
inline constexpr size_t NMB_DP_LAST_TIMESTAMP = 40;
inline constexpr size_t NMB_DP_COUNTERS_SCHEMA_ID = 48;
inline constexpr size_t NMB_DP_SOURCE_ID = 64;
inline constexpr size_t NMB_DP_SOURCE_ID_SIZE = 64;
inline constexpr size_t NMB_DP_SOURCE_TAG = 128;
inline constexpr size_t NMB_DP_SOURCE_TAG_SIZE = 16;

namespace nmb {

// One page buffer, reused while pages keep the same size.
class DataPage {
 public:
  // Makes the page `size` bytes (header included) and clears its header;
  // the buffer is kept when the size repeats.
  void reset(size_t size);

  uint8_t* data() { return bytes_.data(); }
  const uint8_t* data() const { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }
  // Room for data after the header.
  size_t free_space() const;

  // The header fields.
  void set_version(uint8_t major, uint8_t minor);
  void set_filled(uint64_t filled);
  void set_block_size(uint32_t block_size);
  void set_times(uint64_t first, uint64_t last);
  void set_counters_schema_id(const uint8_t* id16);
  // Texts are copied up to their first zero byte or the field's size less
  // one, and end with a zero byte.
  void set_source(const char* source_id, size_t id_length, const char* source_tag,
                  size_t tag_length);

 private:
  std::vector<uint8_t> bytes_;
};

}  // namespace nmb
