// The reader's walk over event and schema blocks, in plain chunks and in
// packed pages.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/e2e/reader_fixture.h"

namespace {

using namespace nmb::test;

// The reader's walk over event and schema blocks.
class EventsPathE2E : public ReaderE2E {
 protected:
  void SetUp() override {
    ReaderE2E::SetUp();
    events_id_ = write_schema_file(
        schema_dir_,
        EventSchema().type(EventType("ev").field("id", "uint32_t", 4).field("v", "uint16_t", 2)));
    EventSchema more;
    more.provider_name = "more";
    more_id_ = write_schema_file(schema_dir_, more.type(EventType("m").field("x", "uint8_t", 1)));
  }

  DataFile events_file(uint32_t block_size = 512) const {
    DataFile file;
    file.block_size(block_size).event_schema(0, events_id_);
    return file;
  }

  static ByteVec ev(uint32_t id, uint16_t v) { return Bytes().u32(id).u16(v); }
  static std::string ev_line(uint32_t id, uint16_t v) {
    return "{\"id\":" + std::to_string(id) + ",\"v\":" + std::to_string(v) +
           ",\"header_timestamp\":1700000000000000,\"@header_timestamp\":\"2023-11-14 "
           "22:13:20.000\"}\n";
  }

  SchemaId events_id_;
  SchemaId more_id_;
};

TEST_F(EventsPathE2E, SchemasBlockReplacesTheEventSchemas) {
  std::string path =
      events_file()
          .chunk(Chunk()
                     .events(kT0, 0, 0, 2, Bytes().raw(ev(1, 2)).raw(ev(3, 4)))
                     .schemas({more_id_})
                     .events(kT0, 0, 0, 1, Bytes().u8(7)))
          .chunk(Chunk().events(kT0, 0, 0, 1, Bytes().u8(8)))  // the next chunk still sees them
          .write(dir_.file("announce.bin"));
  auto result = run({"-f", "ndjson", path});
  EXPECT_EQ(result.out, ev_line(1, 2) + ev_line(3, 4) +
                            "{\"x\":7,\"header_timestamp\":1700000000000000,\"@header_timestamp\":"
                            "\"2023-11-14 22:13:20.000\"}\n"
                            "{\"x\":8,\"header_timestamp\":1700000000000000,\"@header_timestamp\":"
                            "\"2023-11-14 22:13:20.000\"}\n");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.status, 0);
}

TEST_F(EventsPathE2E, RefusedSchemasBlocksAndMissingTypesFailTheFile) {
  struct Case {
    const char* name;
    Chunk chunk;
    std::string log;
  };
  const ByteVec one = ev(1, 2);
  std::vector<Case> cases;
  cases.push_back({"count15", Chunk().events(kT0, 0, 0, 1, one).schemas({more_id_}, {}, 15),
                   "[error] Failed to process block of type 2 at offset 22\n"});
  // Starts 255 bytes before the end of its chunk.
  cases.push_back({"late",
                   Chunk().raw(event_block(kT0, 0, 0, 39, ByteVec(39 * 6, 1))).schemas({more_id_}),
                   "[error] Failed to process block of type 2 at offset 250\n"});
  cases.push_back({"long", Chunk().schemas({more_id_}, 513),
                   "[error] Failed to process block of type 2 at offset 0\n"});
  cases.push_back({"type", Chunk().events(kT0, 0, 0, 1, one).events(kT0, 0, 5, 1, one),
                   "[error] Type definition 0:5 not found\n"
                   "[error] Failed to process block of type 1 at offset 22\n"});
  cases.push_back({"schema", Chunk().events(kT0, 1, 0, 1, one),
                   "[error] Type definition 1:0 not found\n"
                   "[error] Failed to process block of type 1 at offset 0\n"});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string path =
        events_file(505).chunk(c.chunk).write(dir_.file(std::string(c.name) + ".bin"));
    auto result = run({"-f", "ndjson", path});
    EXPECT_EQ(result.err, c.log + failed(path, "Failed to process data file " + path) +
                              "Failed to read 1 of 1 files\n");
    EXPECT_EQ(result.status, 1);
  }
}

TEST_F(EventsPathE2E, EventBlocksWithoutEventSchemasArePassedOver) {
  std::string path = DataFile()
                         .block_size(128)
                         .chunk(Chunk().events(kT0, 0, 0, 1, ev(1, 2)).schemas({more_id_}, 300, 20))
                         .write(dir_.file("none.bin"));
  auto result = run({path});
  EXPECT_EQ(result.out, "{\"none\":[]}");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.status, 0);
}

TEST_F(EventsPathE2E, EventsInPackedPagesExportLikePlainChunks) {
  ByteVec records = Bytes().raw(ev(1, 2)).raw(ev(3, 4)).raw(ev(5, 6));
  DataFile plain = events_file(128);
  plain.chunk(Chunk().events(kT0, 0, 0, 3, records)).chunk(Chunk().events(kT0, 0, 0, 1, ev(7, 8)));
  DataFile packed = events_file(1024);
  packed.chunk(
      Chunk()
          .page(PackedPage('S').content(Chunk().events(kT0, 0, 0, 3, records).bytes(128)))
          .page(PackedPage('G').content(Chunk().events(kT0, 0, 0, 1, ev(7, 8)).bytes(64))));
  auto a = run({"-f", "ndjson", plain.write(dir_.file("plain.bin"))});
  auto b = run({"-f", "ndjson", packed.write(dir_.file("packed.bin"))});
  EXPECT_EQ(a.out, ev_line(1, 2) + ev_line(3, 4) + ev_line(5, 6) + ev_line(7, 8));
  EXPECT_EQ(b.out, a.out);
  EXPECT_EQ(b.err, "");
  EXPECT_EQ(b.status, 0);
}

}  // namespace
