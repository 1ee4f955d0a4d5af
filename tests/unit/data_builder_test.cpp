// The test-data builder itself: bytes land at the offsets of the file format,
// packed pages decode back to their content.
#include "tests/support/data_builder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

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

TEST(DataBuilder, WrongHeaderValuesAreWrittenAsGiven) {
  ByteVec bytes = DataFile().magic("XMBF").magic_end("abcd").file_size(255).version(2, 0).bytes();
  ASSERT_EQ(bytes.size(), 256u);
  EXPECT_EQ(text_at(bytes, 0, 4), "XMBF");
  EXPECT_EQ(text_at(bytes, 252, 4), "abcd");
  EXPECT_EQ(load_le(bytes, 8, 8), 255u);
  EXPECT_EQ(bytes[4], 2);
  EXPECT_EQ(DataFile().truncate(100).bytes().size(), 100u);
}

TEST(DataBuilder, BlockLayouts) {
  ByteVec e = event_block(0xabcdef, 3, 0x0102, 2, Bytes().u32(7).u32(8));
  EXPECT_EQ(text_at(e, 0, 4), "NMBE");
  EXPECT_EQ(load_le(e, 4, 8), 0xabcdefu);
  EXPECT_EQ(e[12], 3);
  EXPECT_EQ(load_le(e, 13, 2), 0x0102u);
  EXPECT_EQ(e[15], 2);
  EXPECT_EQ(e.size(), 24u);

  ByteVec s = schemas_block({schema_id_filled(1), schema_id_filled(2)});
  EXPECT_EQ(text_at(s, 0, 4), "NMBS");
  EXPECT_EQ(load_le(s, 4, 2), 48u);
  EXPECT_EQ(load_le(s, 6, 2), 2u);
  EXPECT_EQ(s[16], 1);
  EXPECT_EQ(s[32], 2);
  EXPECT_EQ(load_le(schemas_block({}, 300, 15), 4, 4), 300u + (15u << 16));

  ByteVec b = blob_block(9, Bytes().text("xyz"));
  EXPECT_EQ(text_at(b, 0, 4), "NMBB");
  EXPECT_EQ(load_le(b, 12, 8), 3u);
  EXPECT_EQ(text_at(b, 20, 3), "xyz");
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

TEST(DataBuilder, PackedPageIdentityIsCutToItsLimits) {
  ByteVec header = PackedPage('S').source(std::string(70, 'i'), std::string(20, 't')).header();
  EXPECT_EQ(header[0], 104);
  EXPECT_EQ(header.size(), 104u);
  EXPECT_EQ(PackedPage('G').source("", "").header().size(), 24u);
  ByteVec corrupt = PackedPage('G').content({1, 2, 3}).trailer("xxxx").stream_size(7).bytes();
  EXPECT_EQ(load_le(corrupt, 6, 4), 7u);
  EXPECT_EQ(text_at(corrupt, corrupt.size() - 4, 4), "xxxx");
}

TEST(DataBuilder, GzippedFileAndSchemaFiles) {
  TempDir dir;
  DataFile file;
  file.chunk(Chunk().counters(1, Bytes().u64(1)));
  std::string path = file.gzipped().write(dir.file("data.bin.gz"));
  ByteVec on_disk = read_file(path);
  EXPECT_EQ(on_disk[0], 0x1f);
  EXPECT_EQ(gunzip_bytes(on_disk), file.plain_bytes());

  std::string schema_dir = dir.file("schema");
  SchemaId counters_id = write_schema_file(
      schema_dir, CountersSchema().group(CounterGroup("g").counter("a").counter("s", "STRING", 4)));
  EventSchema events;
  events.type(EventType("ev").field("x", "uint32_t", 4).field("v", "uint16_t", 2, 3));
  SchemaId events_id = write_schema_file(schema_dir, events);
  EXPECT_EQ(events_id, schema_id_of(events.json()));
  ASSERT_TRUE(std::filesystem::exists(schema_file_path(schema_dir, counters_id)));
  auto doc = nlohmann::json::parse(events.json());
  EXPECT_EQ(doc["types"][0]["size"], 10);
  EXPECT_EQ(doc["types"][0]["fields"][1]["offset"], 4);
  EXPECT_EQ(doc["types"][0]["fields"][1]["array_length"], 3);
  EXPECT_FALSE(doc["types"][0]["fields"][0].contains("array_length"));
  EXPECT_EQ(schema_id_hex(schema_id_from_hex("00112233445566778899aabbccddeeff")),
            "00112233445566778899aabbccddeeff");
}

}  // namespace
