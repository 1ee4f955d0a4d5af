// -f bin as users run it: packed pages re-exported into data files under the
// output folder, read back by nmb_read record for record; a schemas block
// that changes an event schema id starts a new file; source ids and tags
// built to escape the output folder stay inside it.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"
#include "tests/support/metrics_builder.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;

constexpr uint64_t kT0 = 1700000000000000;

class BinE2E : public E2ETest {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(dir_.file("out"));
    CounterGroup g("g");
    g.counter("a").counter("b");
    counters_id_ = write_schema_file(dir_.file("schema"), CountersSchema().group(g));
    EventType port("port");
    port.field("port", "uint16_t", 2).field("rx", "uint64_t", 8);
    events_id_ = write_schema_file(dir_.file("schema"), EventSchema().type(port));
  }

  // The host name the written files are named after.
  RunResult run(std::vector<std::string> args) const {
    RunOptions options;
    options.env.emplace_back("NMB_HOST_NAME", "testhost");
    return E2ETest::run(std::move(args), options);
  }

  // Every file under the output folder, sorted by path.
  std::vector<std::string> outputs() const {
    std::vector<std::string> files;
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir_.file("out")))
      if (e.is_regular_file()) files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
    return files;
  }

  // A file of one source whose chunks hold gzip and snappy pages of
  // counters blocks, event blocks and metrics blocks.
  std::string source_file(const std::string& name, const std::string& source, uint64_t t0) {
    DataFile file;
    file.block_size(1024).source(source, "tag").times(t0, t0 + 10).counters_schema(counters_id_);
    file.event_schema(0, events_id_);
    ByteVec counters;
    for (uint64_t i = 0; i < 3; ++i) {
      ByteVec block = counters_block(t0 + i, Bytes().u64(i).u64(100 + i).vec());
      counters.insert(counters.end(), block.begin(), block.end());
    }
    ByteVec events = Chunk()
                         .events(t0 + 5, 0, 0, 2, Bytes().u16(1).u64(10).u16(2).u64(20).vec())
                         .events(t0 + 6, 0, 0, 1, Bytes().u16(3).u64(30).vec())
                         .content();
    ByteVec metrics = MetricsPayload()
                          .label_names({"port"})
                          .label_values({"1"})
                          .metric_names({"rx"})
                          .batch(Batch(t0 + 7).sample(0, 5).labels(LabelsBlock('L', 0).id(0)))
                          .bytes();
    file.chunk(
        Chunk()
            .page(PackedPage('G').content(counters).source(source, "tag").times(t0, t0 + 2))
            .page(PackedPage('S').content(events).source(source, "tag").times(t0 + 5, t0 + 6)));
    file.chunk(
        Chunk().page(PackedPage('S').content(metrics).source(source, "tag").times(t0 + 7, t0 + 7)));
    return file.write(dir_.file(name));
  }

  SchemaId counters_id_{};
  SchemaId events_id_{};
};

TEST_F(BinE2E, PagesOfTwoSourcesReadBackRecordForRecord) {
  const std::string a = source_file("a.bin", "node_a", kT0);
  const std::string b = source_file("b.bin", "node_b", kT0 + 100);
  RunResult written = run({"-f", "bin", "-o", dir_.file("out"), a, b});
  ASSERT_EQ(written.status, 0) << written.err;
  EXPECT_EQ(written.out, "");

  // Per source a file of counters blocks (a chunk per block) and, from the
  // first page with another layout on, a file of the event and metrics pages.
  const std::string folder = dir_.file("out/2023/1114/");
  EXPECT_EQ(outputs(), (std::vector<std::string>{
                           folder + "node_a/tag/node_a_tag_1700000000000000.bin",
                           folder + "node_a/tag/node_a_tag_1700000000000005.bin",
                           folder + "node_b/tag/node_b_tag_1700000000000100.bin",
                           folder + "node_b/tag/node_b_tag_1700000000000105.bin",
                       }));
  for (const std::string& source : {std::string("a"), std::string("b")}) {
    RunResult original = run({"-f", "ndjson", source == "a" ? a : b});
    RunResult back = run({"-v", "4", "-f", "ndjson", "-S", "-d", folder + "node_" + source});
    ASSERT_EQ(back.status, 0) << back.err;
    EXPECT_EQ(back.err, "");
    // 3 counters blocks, 3 events and a metrics object.
    EXPECT_EQ(std::count(back.out.begin(), back.out.end(), '\n'), 7) << back.out;
    EXPECT_EQ(back.out, original.out);
  }
}

TEST_F(BinE2E, ASchemasBlockWithANewIdStartsANewFile) {
  SchemaId other = write_schema_file(dir_.file("schema"), EventSchema().type(EventType("x")));
  DataFile file;
  file.block_size(1024).source("n", "t").times(kT0, kT0).event_schema(0, events_id_);
  ByteVec same =
      Chunk().schemas({events_id_}).events(kT0, 0, 0, 1, Bytes().u16(1).u64(2).vec()).content();
  ByteVec changed = Chunk().schemas({events_id_, other}).content();
  file.chunk(Chunk()
                 .page(PackedPage('G').content(same).source("n", "t").times(kT0, kT0))
                 .page(PackedPage('G').content(changed).source("n", "t").times(kT0 + 1, kT0 + 1)));
  RunResult r = run({"-f", "bin", "-o", dir_.file("out"), file.write(dir_.file("s.bin"))});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> files = outputs();
  ASSERT_EQ(files.size(), 2u);
  std::ifstream in(files[1], std::ios::binary);
  ByteVec header(256);
  in.read(reinterpret_cast<char*>(header.data()), 256);
  EXPECT_TRUE(std::equal(other.begin(), other.end(), header.begin() + 132 + 16))
      << "the second event schema id of the new file";
  EXPECT_TRUE(std::equal(events_id_.begin(), events_id_.end(), header.begin() + 132));
}

TEST_F(BinE2E, EventRecordsOfPlainChunksFailTheFile) {
  DataFile file;
  file.block_size(1024).source("n", "t").times(kT0, kT0).event_schema(0, events_id_);
  file.chunk(Chunk().events(kT0, 0, 0, 1, Bytes().u16(1).u64(2).vec()));
  const std::string path = file.write(dir_.file("plain.bin"));
  RunResult r = run({"-f", "bin", "-o", dir_.file("out"), path});
  EXPECT_EQ(r.status, 1);
  // The refusal names the format by its code.
  EXPECT_NE(r.err.find("Failed processing file " + path + ": Unknown output format 5\n"),
            std::string::npos)
      << r.err;
  EXPECT_TRUE(outputs().empty());
}

// A page whose first block no data file holds (a blob) is shown, its first
// 1024 bytes in hex on standard output, and not written.
TEST_F(BinE2E, APageOfNoKnownBlockIsShownNotWritten) {
  DataFile file;
  file.block_size(4096).source("n", "t").times(kT0, kT0);
  const ByteVec blob = Bytes().text("NMBB").zeros(2000).vec();
  file.chunk(Chunk().page(PackedPage('G').content(blob).source("n", "t").times(kT0, kT0)));
  RunResult r = run({"-f", "bin", "-o", dir_.file("out"), file.write(dir_.file("blob.bin"))});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 64) << r.out;
  EXPECT_NE(r.err.find("Unrecognized type of data page"), std::string::npos) << r.err;
  EXPECT_TRUE(outputs().empty());
}

TEST_F(BinE2E, HostileSourcesStayInsideTheOutputFolder) {
  const std::vector<std::pair<std::string, std::string>> sources = {
      {"../../../escaped", ".."},
      {"/etc/cron.d/x", "/"},
      {".", "\x01\x02\n"},
      {std::string(64, 'z'), std::string(16, '.')},  // no terminator
      {"", ""},
  };
  DataFile file;
  file.block_size(1024).times(kT0, kT0).event_schema(0, events_id_);
  Chunk chunk;
  uint64_t t = kT0;
  for (const auto& [source, tag] : sources) {
    ByteVec events = Chunk().events(t, 0, 0, 1, Bytes().u16(1).u64(2).vec()).content();
    chunk.page(PackedPage('S').content(events).source(source, tag).times(t, t));
    ++t;
  }
  file.chunk(chunk);
  RunResult r = run({"-f", "bin", "-o", dir_.file("out"), file.write(dir_.file("h.bin"))});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> files = outputs();
  EXPECT_EQ(files.size(), sources.size());
  const std::string root = dir_.file("out") + "/";
  for (const std::string& path : files) {
    EXPECT_EQ(path.rfind(root, 0), 0u) << path;
    EXPECT_EQ(path.find("/."), std::string::npos) << path;
    EXPECT_EQ(run({"-f", "ndjson", path}).status, 0) << path;
  }
  // Nothing was created beside the output folder.
  size_t entries = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir_.path())) {
    (void)e;
    ++entries;
  }
  EXPECT_EQ(entries, 3u) << "schema, out and the input file";
}

}  // namespace
