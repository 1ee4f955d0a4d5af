#include "data/format.h"
#include "export/header_print.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

#include "utils/log.h"
#include "utils/output.h"

namespace {

using Header = std::array<uint8_t, NMB_FILE_HEADER_SIZE>;

Header valid_header(uint8_t major = 1, uint8_t minor = 7, uint16_t patch = 0) {
  Header h{};
  std::memcpy(h.data(), "NMBF", 4);
  h[NMB_FH_VERSION] = major;
  h[NMB_FH_VERSION + 1] = minor;
  nmb_store_u16(h.data() + NMB_FH_VERSION + 2, patch);
  nmb_store_u64(h.data() + NMB_FH_FILE_SIZE, 256);
  std::memcpy(h.data() + NMB_FH_MAGIC_END, "nmbf", 4);
  return h;
}

TEST(BlockClassification, OnlyTheFourthByteCounts) {
  auto classify = [](const char* magic) {
    return nmb_classify_block(reinterpret_cast<const uint8_t*>(magic));
  };
  EXPECT_EQ(classify("NMBD"), NMB_COUNTERS_BLOCK);
  EXPECT_EQ(classify("XYZD"), NMB_COUNTERS_BLOCK);
  EXPECT_EQ(classify("NMBE"), NMB_EVENTS_BLOCK);
  EXPECT_EQ(classify("NMBS"), NMB_SCHEMAS_BLOCK);
  EXPECT_EQ(classify("NMBB"), NMB_BLOB_BLOCK);
  EXPECT_EQ(classify("NMBP"), NMB_PAGE_BLOCK);
  EXPECT_EQ(classify("NMBX"), NMB_CNTX_BLOCK);
  // The table's edges and beyond it, and the file header's own letter.
  EXPECT_EQ(classify("NMBC"), NMB_UNKNOWN_BLOCK);
  EXPECT_EQ(classify("NMBF"), NMB_UNKNOWN_BLOCK);
  EXPECT_EQ(classify("NMBA"), NMB_UNKNOWN_BLOCK);
  EXPECT_EQ(classify("NMBY"), NMB_UNKNOWN_BLOCK);
  EXPECT_EQ(classify("NMBd"), NMB_UNKNOWN_BLOCK);
  const uint8_t zeros[4] = {};
  EXPECT_EQ(nmb_classify_block(zeros), NMB_UNKNOWN_BLOCK);
  const uint8_t high[4] = {0, 0, 0, 0xFF};
  EXPECT_EQ(nmb_classify_block(high), NMB_UNKNOWN_BLOCK);
}

TEST(BlockClassification, TypeNames) {
  EXPECT_STREQ(nmb_block_type_name(NMB_COUNTERS_BLOCK), "NMB_COUNTERS_BLOCK");
  EXPECT_STREQ(nmb_block_type_name(NMB_EVENTS_BLOCK), "NMB_EVENTS_BLOCK");
  EXPECT_STREQ(nmb_block_type_name(NMB_SCHEMAS_BLOCK), "NMB_SCHEMAS_BLOCK");
  EXPECT_STREQ(nmb_block_type_name(NMB_BLOB_BLOCK), "NMB_BLOB_BLOCK");
  EXPECT_STREQ(nmb_block_type_name(NMB_PAGE_BLOCK), "NMB_PAGE_BLOCK");
  EXPECT_STREQ(nmb_block_type_name(NMB_CNTX_BLOCK), "NMB_CNTX_BLOCK");
  EXPECT_STREQ(nmb_block_type_name(NMB_UNKNOWN_BLOCK), "Unknown block");
  EXPECT_STREQ(nmb_block_type_name(-1), "Unknown block");
  EXPECT_STREQ(nmb_block_type_name(7), "Unknown block");
}

TEST(SchemaId, TextIsLowerCaseHexInStorageOrder) {
  uint8_t id[16];
  for (int i = 0; i < 16; ++i) id[i] = static_cast<uint8_t>(i * 17 + 10);
  EXPECT_EQ(nmb_schema_id_to_string(id), "0a1b2c3d4e5f708192a3b4c5d6e7f809");
  EXPECT_FALSE(nmb_schema_id_is_zero(id));
  uint8_t zero[16] = {};
  EXPECT_TRUE(nmb_schema_id_is_zero(zero));
  EXPECT_EQ(nmb_schema_id_to_string(zero), std::string(32, '0'));
}

// Takes what the prints appended to the standard output buffer.
std::string take_stdout() {
  std::string text = nmb::stdout_buffer().text();
  nmb::stdout_buffer().text().clear();
  return text;
}

TEST(HeaderPrints, BlockHeaders) {
  take_stdout();
  uint8_t block[32] = {'N', 'M', 'B', 'D'};
  nmb_store_u64(block + 8, 123456789);
  nmb_print_counters_block_header(block);
  EXPECT_EQ(take_stdout(),
            "Data block\n"
            " magic number         = NMBD\n"
            " last timestamp       = 123456789\n");

  uint8_t event[16] = {'N', 'M', 'B', 'E'};
  nmb_store_u64(event + 4, 42);
  event[12] = 3;
  nmb_store_u16(event + 13, 513);
  event[15] = 255;
  nmb_print_event_block_header(event);
  EXPECT_EQ(take_stdout(),
            "Event header\n"
            " magic number         = NMBE\n"
            " schema index         = 3\n"
            " type index           = 513\n"
            " number of events     = 255\n");

  uint8_t blob[20] = {'N', 'M', 'B', 'B'};
  nmb_store_u64(blob + 4, 7);
  nmb_store_u64(blob + 12, 1000);
  nmb_print_blob_block_header(blob);
  EXPECT_EQ(take_stdout(),
            "Blob block\n"
            " magic number         = NMBB\n"
            " timestamp            = 7\n"
            " data size            = 1000\n");
}

TEST(HeaderPrints, FieldTables) {
  take_stdout();
  nmb_print_counters_block_fields();
  EXPECT_EQ(take_stdout(),
            "Field                       Offset    Size\n"
            " header.magic               0         4\n"
            " padding                    4         4\n"
            " timestamp                  8         8\n"
            " values[]                   16      \n");
  nmb_print_file_header_fields();
  std::string table = take_stdout();
  EXPECT_NE(table.find(" event_schema_ids           132       112\n"), std::string::npos);
  EXPECT_NE(table.find(" magic_end                  252       4\n"), std::string::npos);
  nmb_print_event_block_fields();
  EXPECT_NE(take_stdout().find(" type_index                 13        2\n"), std::string::npos);
  nmb_print_blob_block_fields();
  EXPECT_NE(take_stdout().find(" data_size                  12        8\n"), std::string::npos);
}

}  // namespace
