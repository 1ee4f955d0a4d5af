// The test-data builder itself: bytes land at the offsets of the file format,
// packed pages decode back to their content.
#include "tests/support/data_builder.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace nmb::test;

std::string text_at(const ByteVec& bytes, size_t offset, size_t size) {
  return std::string(bytes.begin() + offset, bytes.begin() + offset + size);
}

TEST(DataBuilder, FileHeaderFieldsSitAtTheirOffsets) {
  SchemaId counters = schema_id_filled(0xc1);
  SchemaId events = schema_id_filled(0xe7);
  ByteVec bytes = DataFile()
                      .version(1, 6, 513)
                      .source("node-a", "tagX")
                      .times(0x0102030405060708, 0x1112131415161718)
                      .block_size(64)
                      .counters_schema(counters)
                      .event_schema(6, events)
                      .byte_order(1)
                      .chunk(Chunk().counters(5, Bytes().u64(9)))
                      .chunk(Chunk().counters(6, Bytes().u64(9)).unpadded())
                      .bytes();
  ASSERT_EQ(bytes.size(), 256u + 64 + 24);
  EXPECT_EQ(text_at(bytes, 0, 4), "NMBF");
  EXPECT_EQ(bytes[4], 1);
  EXPECT_EQ(bytes[5], 6);
  EXPECT_EQ(load_le(bytes, 6, 2), 513u);
  EXPECT_EQ(load_le(bytes, kHeaderOffsetFileSize, 8), bytes.size());
  EXPECT_EQ(text_at(bytes, 16, 7), std::string("node-a\0", 7));
  EXPECT_EQ(bytes[16 + 63], 0);
  EXPECT_EQ(text_at(bytes, 80, 5), std::string("tagX\0", 5));
  EXPECT_EQ(load_le(bytes, 96, 8), 0x0102030405060708u);
  EXPECT_EQ(load_le(bytes, 104, 8), 0x1112131415161718u);
  EXPECT_EQ(load_le(bytes, 112, 4), 64u);
  EXPECT_EQ(bytes[116], 0xc1);
  EXPECT_EQ(bytes[131], 0xc1);
  EXPECT_EQ(bytes[132], 0);              // slot 0 unused
  EXPECT_EQ(bytes[132 + 6 * 16], 0xe7);  // slot 6
  EXPECT_EQ(bytes[243], 0xe7);
  EXPECT_EQ(bytes[244], 1);
  EXPECT_EQ(text_at(bytes, 245, 7), std::string(7, '\0'));
  EXPECT_EQ(text_at(bytes, 252, 4), "nmbf");
  // First chunk padded to the block size, the last one short.
  EXPECT_EQ(text_at(bytes, 256, 4), "NMBD");
  EXPECT_EQ(load_le(bytes, 256 + 8, 8), 5u);
  EXPECT_EQ(bytes[256 + 24], 0);
  EXPECT_EQ(text_at(bytes, 256 + 64, 4), "NMBD");
}

TEST(DataBuilder, PackedPagesDecodeBackToTheirContent) {
  ByteVec content = Chunk().counters(42, Bytes().u64(1).u64(2)).bytes(128);
  for (char encoding : {'G', 'S'}) {
    SCOPED_TRACE(encoding);
    PackedPage page(encoding);
    page.content(content).source("src", "tg").times(10, 20);
    ByteVec bytes = page.bytes();
    ASSERT_GT(bytes.size(), 4u + 29 + 4);
    EXPECT_EQ(text_at(bytes, 0, 4), "NMBP");
    size_t header_size = bytes[4];
    EXPECT_EQ(header_size, 24u + 3 + 2);
    EXPECT_EQ(bytes[5], static_cast<uint8_t>(encoding));
    size_t stream_size = load_le(bytes, 6, 4);
    EXPECT_EQ(load_le(bytes, 10, 8), 10u);
    EXPECT_EQ(load_le(bytes, 18, 8), 20u);
    EXPECT_EQ(bytes[26], 3);
    EXPECT_EQ(text_at(bytes, 27, 3), "src");
    EXPECT_EQ(bytes[30], 2);
    EXPECT_EQ(text_at(bytes, 31, 2), "tg");
    ASSERT_EQ(bytes.size(), 4 + header_size + stream_size + 4);
    EXPECT_EQ(text_at(bytes, bytes.size() - 4, 4), "nmbp");
    ByteVec stream(bytes.begin() + 4 + header_size, bytes.end() - 4);
    EXPECT_EQ(encoding == 'G' ? gunzip_bytes(stream) : unsnappy_bytes(stream), content);
  }
}

}  // namespace
