#include "data/data_page.h"

#include <cstring>

#include "data/format.h"

namespace nmb {

void DataPage::reset(size_t size) {
  if (size < NMB_DATA_PAGE_HEADER_SIZE) size = NMB_DATA_PAGE_HEADER_SIZE;
  if (bytes_.size() != size) {
    bytes_.clear();
    bytes_.shrink_to_fit();
    bytes_.resize(size);
  }
  std::memset(bytes_.data(), 0, NMB_DATA_PAGE_HEADER_SIZE);
  nmb_store_u64(bytes_.data() + NMB_DP_PAGE_SIZE, size);
  nmb_store_u64(bytes_.data() + NMB_DP_FILLED, NMB_DATA_PAGE_HEADER_SIZE);
}

size_t DataPage::free_space() const {
  return bytes_.size() - NMB_DATA_PAGE_HEADER_SIZE;
}

void DataPage::set_version(uint8_t major, uint8_t minor) {
  bytes_[NMB_DP_VERSION_MAJOR] = major;
  bytes_[NMB_DP_VERSION_MINOR] = minor;
}

void DataPage::set_filled(uint64_t filled) {
  nmb_store_u64(bytes_.data() + NMB_DP_FILLED, filled);
}

void DataPage::set_block_size(uint32_t block_size) {
  nmb_store_u32(bytes_.data() + NMB_DP_BLOCK_SIZE, block_size);
}

void DataPage::set_times(uint64_t first, uint64_t last) {
  nmb_store_u64(bytes_.data() + NMB_DP_FIRST_TIMESTAMP, first);
  nmb_store_u64(bytes_.data() + NMB_DP_LAST_TIMESTAMP, last);
}

void DataPage::set_counters_schema_id(const uint8_t* id16) {
  std::memcpy(bytes_.data() + NMB_DP_COUNTERS_SCHEMA_ID, id16, NMB_SCHEMA_ID_SIZE);
}

void DataPage::set_source(const char* source_id, size_t id_length, const char* source_tag,
                          size_t tag_length) {
  auto copy = [this](size_t at, size_t room, const char* text, size_t length) {
    size_t n = strnlen(text, length < room - 1 ? length : room - 1);
    std::memset(bytes_.data() + at, 0, room);
    std::memcpy(bytes_.data() + at, text, n);
  };
  copy(NMB_DP_SOURCE_ID, NMB_DP_SOURCE_ID_SIZE, source_id, id_length);
  copy(NMB_DP_SOURCE_TAG, NMB_DP_SOURCE_TAG_SIZE, source_tag, tag_length);
}

}  // namespace nmb
