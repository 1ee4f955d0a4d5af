// Counters blocks as nmb_read writes them: json and ndjson objects with every
// data type and string format, json separators, the time filter bounds, the
// text tables, the GUID switch and the reports of the unsupported formats.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;

constexpr uint64_t kT0 = 1700000000000000;  // 2023-11-14 22:13:20 UTC

class CountersE2E : public E2ETest {
 protected:
  // Writes the schema and a file of the given counters blocks.
  std::string write(const CountersSchema& schema, const std::vector<Chunk>& chunks,
                    uint32_t block_size = 256) {
    SchemaId id = write_schema_file(dir_.file("schema"), schema);
    DataFile file;
    file.block_size(block_size).times(kT0, kT0 + 100).counters_schema(id);
    for (const auto& chunk : chunks) file.chunk(chunk);
    return file.write(dir_.file("data.bin"));
  }
};

// Every type and string format is rendered as the counters export test
// shows; here what only a run shows: the group granularity and name, the
// format warnings on standard error, -u.
TEST_F(CountersE2E, NdjsonGroupsWarningsAndMicroseconds) {
  CounterGroup node("node");
  node.add(make_counter("uuid64", "UINT64", "UUID")).add(make_counter("wide", "UINT128"));
  CounterGroup cpu;
  cpu.granularity = "CPU";
  cpu.counter("a");
  ByteVec values = Bytes().u64(77).u128(0x0706050403020100, 0x0f0e0d0c0b0a0908).u64(5);
  std::string path =
      write(CountersSchema().group(node).group(cpu), {Chunk().counters(kT0 + 1500, values)});
  RunResult r = run({"-f", "ndjson", path});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            R"({"timestamp":1700000000001500,"@timestamp":"2023-11-14 22:13:20.001","groups":[)"
            R"({"granularity":"NODE","name":"node","counter_sets":[{"uuid64":"77",)"
            R"("wide":"000102030405060708090a0b0c0d0e0f"}]},)"
            R"({"granularity":"CPU","name":"unset","counter_sets":[{"a":5}]}]})"
            "\n");
  EXPECT_NE(r.err.find("UUID format is only supported for 128-bit types, using DECIMAL for uint64"),
            std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("Decimal format not fully supported for 128-bit types"), std::string::npos);

  RunResult micro = run({"-f", "ndjson", "-u", path});
  EXPECT_NE(micro.out.find(R"("@timestamp":"2023-11-14 22:13:20.001500")"), std::string::npos);
}

TEST_F(CountersE2E, JsonRecordsAreSeparatedInTheFileArray) {
  CounterGroup g("g");
  g.counter("a");
  std::string path = write(CountersSchema().group(g), {Chunk().counters(kT0, Bytes().u64(1)),
                                                       Chunk().counters(kT0 + 1, Bytes().u64(2))});
  RunResult r = run({path});
  EXPECT_EQ(r.status, 0) << r.err;
  auto record = [](uint64_t ts, const char* at, int value) {
    return "{\n    \"timestamp\": " + std::to_string(ts) + ",\n    \"@timestamp\": \"" + at +
           "\",\n    \"groups\": [\n        {\n            \"granularity\": \"NODE\",\n"
           "            \"name\": \"g\",\n            \"counter_sets\": [\n                {\n"
           "                    \"a\": " +
           std::to_string(value) + "\n                }\n            ]\n        }\n    ]\n}";
  };
  EXPECT_EQ(r.out, "{\"data\":[" + record(kT0, "2023-11-14 22:13:20.000", 1) + ",\n" +
                       record(kT0 + 1, "2023-11-14 22:13:20.000", 2) + "]}");
}

TEST_F(CountersE2E, TimeFilterBoundsAreInclusiveAndSkippedBlocksCount) {
  CounterGroup g("g");
  g.counter("a");
  std::string path = write(
      CountersSchema().group(g),
      {Chunk().counters(kT0 + 10, Bytes().u64(1)), Chunk().counters(kT0 + 20, Bytes().u64(2)),
       Chunk().counters(kT0 + 30, Bytes().u64(3)), Chunk().counters(kT0 + 40, Bytes().u64(4))});
  RunResult nd =
      run({"-f", "ndjson", "-g", std::to_string(kT0 + 20), "-l", std::to_string(kT0 + 30), path});
  EXPECT_EQ(nd.status, 0) << nd.err;
  EXPECT_EQ(nd.out.find("\"a\":1"), std::string::npos);
  EXPECT_NE(nd.out.find("\"a\":2"), std::string::npos);
  EXPECT_NE(nd.out.find("\"a\":3"), std::string::npos);
  EXPECT_EQ(nd.out.find("\"a\":4"), std::string::npos);

  // A block skipped before the first written one still counts for the
  // separator.
  RunResult js = run({"-g", std::to_string(kT0 + 40), path});
  EXPECT_EQ(js.status, 0) << js.err;
  EXPECT_EQ(js.out.rfind("{\"data\":[,\n{\n", 0), 0u) << js.out;
}

TEST_F(CountersE2E, TextTables) {
  CounterGroup g("g");
  g.add(make_counter("count", "UINT64"))
      .add(make_counter("flags", "BIT64"))
      .add(make_counter("bytes", "Undefined"));
  std::string path = write(CountersSchema().group(g),
                           {Chunk().counters(kT0, Bytes().u64(5).u64(255).u64(123456))});
  RunResult r = run({"-f", "txt", path});
  EXPECT_EQ(r.status, 0) << r.err;
  const std::string rule = std::string(77, '-') + "\n";
  EXPECT_EQ(
      r.out,
      "Data collected at 2023-11-14 22:13:20.000\n" + rule + "| Counter values per NODE" +
          std::string(50, ' ') + " |\n" + rule +
          "| NODE |                count |                flags |                bytes |\n" + rule +
          "|    0 |                    5 |   0x00000000000000ff |                123 k |\n" + rule);
}

// A schema counts its counters only when every group has one counter set:
// otherwise (even a claim of billions of sets) its blocks are skipped, each
// with the error of the count.
TEST_F(CountersE2E, GroupsOfOtherThanOneCounterSetSkipTheBlocks) {
  CounterGroup one("one");
  one.counter("a");
  CounterGroup huge("huge");
  huge.num_counter_sets = 4294967295u;
  huge.counter("b");
  std::string path = write(CountersSchema().group(one).group(huge),
                           {Chunk().counters(kT0, Bytes().u64(7).u64(8)),
                            Chunk().counters(kT0 + 1, Bytes().u64(7).u64(8))});
  RunResult r = run({"-f", "json", path});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "{\"data\":[]}");
  const std::string line =
      "[error] [nmb_counters_schema_number_of_counters] num_counter_sets should be 1, not -1\n";
  EXPECT_EQ(r.err, line + line);
}

// A decoded page is cut at the next counters magic, even one inside a value:
// the counters after the cut read the rest of the page, not zeros; only past
// the page's end do reads give zeros.
TEST_F(CountersE2E, PiecesOfAPageReadTheRestOfThePage) {
  CounterGroup g("g");
  g.counter("a").counter("b").counter("c");
  ByteVec page = counters_block(kT0, Bytes().text("NMBD").zeros(4).u64(2).u64(3).vec());
  std::string path =
      write(CountersSchema().group(g), {Chunk().page(PackedPage('G').content(page))});
  RunResult r = run({"-f", "ndjson", path});
  EXPECT_EQ(r.status, 0) << r.err;
  const std::string groups = R"(,"groups":[{"granularity":"NODE","name":"g","counter_sets":[)";
  EXPECT_EQ(r.out, R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000")" +
                       groups + R"({"a":1145195854,"b":2,"c":3}]}]})" + "\n" +
                       R"({"timestamp":2,"@timestamp":"1970-01-01 00:00:00.000")" + groups +
                       R"({"a":3,"b":0,"c":0}]}]})" + "\n");
}

TEST_F(CountersE2E, ZeroLengthStringCounter) {
  CounterGroup g("g");
  g.add(make_counter("a", "UINT64"))
      .add(make_counter("s", "STRING"))
      .add(make_counter("b", "UINT64"));
  std::string path =
      write(CountersSchema().group(g), {Chunk().counters(kT0, Bytes().u64(1).u64(2))});
  RunResult r = run({"-f", "ndjson", path});
  EXPECT_EQ(r.status, 0) << r.err;
  // Offsets stop at the STRING: it and "b" keep offset 0 from the document.
  EXPECT_NE(r.out.find(R"({"a":1,"s":"","b":1})"), std::string::npos) << r.out;
  EXPECT_NE(r.err.find("received 0 length string counter s"), std::string::npos) << r.err;
}

TEST_F(CountersE2E, GuidSwitchAndHeaderPrint) {
  CounterGroup g("g");
  g.add(make_counter("node_guid", "FP64", "DECIMAL"));
  std::string path = write(CountersSchema().group(g), {Chunk().counters(kT0, Bytes().f64(2.0))});
  RunResult on = run({"-f", "ndjson", path});
  EXPECT_NE(on.out.find(R"({"node_guid":"0x4000000000000000"})"), std::string::npos) << on.out;
  RunOptions off;
  off.env.emplace_back("NMB_CONVERT_GUID_TO_HEX_STRING", "false");
  RunResult number = run({"-f", "ndjson", path}, off);
  EXPECT_NE(number.out.find(R"({"node_guid":2})"), std::string::npos) << number.out;

  RunResult printed = run({"-p", "-f", "ndjson", path});
  EXPECT_EQ(printed.status, 0);
  EXPECT_NE(printed.out.find("Data block\n magic number         = NMBD\n last timestamp       = " +
                             std::to_string(kT0) + "\n"),
            std::string::npos);
  EXPECT_EQ(printed.out.find("node_guid"), std::string::npos) << "-p prints no values";
}

TEST_F(CountersE2E, CsvAndInfluxAreReportedButSucceed) {
  CounterGroup g("g");
  g.counter("a");
  std::string path = write(CountersSchema().group(g), {Chunk().counters(kT0, Bytes().u64(1))});
  RunResult csv = run({"-f", "csv", path});
  EXPECT_EQ(csv.status, 0);
  EXPECT_EQ(csv.out, "");
  EXPECT_NE(csv.err.find("Failed processing file " + path + ": CSV output is not supported yet\n"),
            std::string::npos);
  RunResult influx = run({"-f", "influx", path});
  EXPECT_EQ(influx.status, 0);
  EXPECT_NE(influx.err.find("Influx line API output is not yet supported for counters data"),
            std::string::npos);
}

TEST_F(CountersE2E, ValueThatCannotBeBuiltFailsTheFile) {
  CounterGroup g("g");
  g.add(make_counter("s", "STRING", "", 2));
  std::string path =
      write(CountersSchema().group(g), {Chunk().counters(kT0, Bytes().raw({0xc3, 0x28}))});
  RunResult r = run({"-f", "ndjson", path});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("Failed processing file " + path + ": Failed to JSONify event values\n"),
            std::string::npos)
      << r.err;
}

}  // namespace
