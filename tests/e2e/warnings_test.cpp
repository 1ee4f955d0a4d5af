// The warnings that say when a behaviour the rules keep is about to mislead.
// Each case checks the warning, and that standard output and the exit status
// are those of the same run with warnings silenced (-v 3): the warning is
// all that changes.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"

namespace {

using namespace nmb::test;

constexpr uint64_t kT0 = 1700000000000000;

class WarningsE2E : public E2ETest {
 protected:
  void SetUp() override { std::filesystem::create_directories(schema_dir_); }

  // Runs `args` and requires `warning` on standard error, with standard
  // output and exit status as under -v 3.
  RunResult expect_warning(const std::vector<std::string>& args, const std::string& warning) {
    RunResult r = run(args);
    EXPECT_NE(r.err.find("[warning] " + warning + "\n"), std::string::npos) << r.err;
    std::vector<std::string> quiet = args;
    quiet.insert(quiet.begin(), {"-v", "3"});
    RunResult q = run(quiet);
    EXPECT_EQ(q.err.find("[warning]"), std::string::npos) << q.err;
    EXPECT_EQ(r.out, q.out);
    EXPECT_EQ(r.status, q.status);
    return r;
  }

  SchemaId counters(const CounterGroup& a, const CounterGroup& b = CounterGroup()) {
    CountersSchema schema;
    schema.group(a);
    if (!b.counters.empty()) schema.group(b);
    return write_schema_file(schema_dir_, schema);
  }
};

TEST_F(WarningsE2E, AFieldSetThatMovesTypesNamesThem) {
  EventType port("port_sample");
  port.field("port", "uint32_t", 4);
  EventType cpu("cpu_sample");
  cpu.field("cpu", "uint32_t", 4);
  const SchemaId id = write_schema_file(schema_dir_, EventSchema().type(port).type(cpu));
  write_text_file(dir_.file("cpu.fset"), "[cpu_sample]\n+cpu\n");
  const std::string path = DataFile()
                               .block_size(256)
                               .event_schema(0, id)
                               .chunk(Chunk().events(kT0, 0, 0, 1, Bytes().u32(16384).vec()))
                               .write(dir_.file("data.bin"));
  RunResult r = expect_warning(
      {"-f", "ndjson", "-F", dir_.file("cpu.fset"), "-I", path},
      "The field set leaves types of schema 'test_provider' out, which moves the types after "
      "them: blocks are read in place of others ('port_sample' as 'cpu_sample'). Keep every type "
      "of the schema in the field set and leave types out of the output with -e instead");
  EXPECT_NE(r.out.find("\"cpu\":16384"), std::string::npos);
}

TEST_F(WarningsE2E, TimeBoundsCountTheRecordsTheyDoNotBound) {
  EventType t("t");
  t.field("v", "uint32_t", 4);
  const SchemaId id = write_schema_file(schema_dir_, EventSchema().type(t));
  const std::string path = DataFile()
                               .block_size(256)
                               .event_schema(0, id)
                               .chunk(Chunk().events(kT0, 0, 0, 2, Bytes().u32(1).u32(2).vec()))
                               .chunk(Chunk().events(kT0 + 9, 0, 0, 1, Bytes().u32(3).vec()))
                               .write(dir_.file("data.bin"));
  expect_warning({"-f", "ndjson", "-g", std::to_string(kT0 + 5), path},
                 "2 event records and 0 metrics batches of " + path +
                     " lie outside -g/-l and were exported all the same: the time bounds select "
                     "counters blocks only. Filter records by their time with jq "
                     "(\"header_timestamp\", \"timestamp\"), or use -f openmetrics, which bounds "
                     "every sample");
}

TEST_F(WarningsE2E, TxtTablesThatShowOtherCountersBytes) {
  CounterGroup first("first");
  first.counter("a").counter("b");
  CounterGroup second("second");
  second.counter("c");
  const std::string path = DataFile()
                               .block_size(256)
                               .counters_schema(counters(first, second))
                               .chunk(Chunk().counters(kT0, Bytes().u64(1).u64(2).u64(3).vec()))
                               .write(dir_.file("data.bin"));
  expect_warning({"-f", "txt", path},
                 "The txt tables of " + path +
                     " read a counter from the 8-byte word of its place in its group, not from "
                     "where its value lies: counter 'c' of group 'second' shows the bytes at 0, "
                     "its value is at 16 (and other counters after it may be off too). Use -f "
                     "ndjson or -f json for the values");
}

TEST_F(WarningsE2E, JsonThatIsNotJsonOrLosesArrays) {
  const std::string cut = DataFile().truncate(100).write(dir_.file("cut.bin"));
  const std::string good = DataFile().write(dir_.file("good.bin"));
  expect_warning({cut, good},
                 "The json output is no valid JSON: the run's first file, " + cut +
                     ", failed before its records, and the next file's key follows '{' with ','. "
                     "Use -f ndjson");
  std::filesystem::create_directories(dir_.file("a"));
  std::filesystem::create_directories(dir_.file("b"));
  const std::string a = DataFile().write(dir_.file("a/node.bin"));
  const std::string b = DataFile().write(dir_.file("b/node.1.bin"));
  expect_warning({a, b}, "The json output names each file's records by its base name: " + a +
                             " and " + b +
                             " are both \"node\", and a JSON reader such as jq keeps only the "
                             "last. Use -f ndjson, or files of different names");
}

TEST_F(WarningsE2E, ASchemaFolderFoundInsteadOfTheOneNamed) {
  const std::string path = DataFile().write(dir_.file("data.bin"));
  RunResult r = run_binary(NMB_READ_BINARY, {"-s", dir_.file("shema"), "-f", "ndjson", path});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(strip_log_timestamps(r.err),
            "[warning] Schema folder '" + dir_.file("shema") + "' does not exist: using '" +
                schema_dir_ + "', found near " + path + ". Name an existing folder with -s\n");
}

TEST_F(WarningsE2E, BinAppendingToFilesOfAnEarlierRun) {
  CounterGroup g("g");
  g.counter("a");
  const ByteVec page = counters_block(kT0, Bytes().u64(1).vec());
  const std::string path = DataFile()
                               .block_size(512)
                               .counters_schema(counters(g))
                               .chunk(Chunk().page(PackedPage('G').content(page).times(kT0, kT0)))
                               .write(dir_.file("data.bin"));
  std::filesystem::create_directories(dir_.file("out"));
  RunResult first = run({"-f", "bin", "-o", dir_.file("out"), path});
  EXPECT_EQ(first.err, "");
  RunResult again = expect_warning({"-f", "bin", "-o", dir_.file("out"), path},
                                   "[data_file] " + dir_.file("out") +
                                       "/2023/1114/node1/tag/node1_tag_1700000000000000.bin was "
                                       "there before this run: its pages are appended to it, so "
                                       "a second export into the same -o folder holds its pages "
                                       "twice. Use an empty -o folder");
}

TEST_F(WarningsE2E, CountersBlocksShorterThanTheirSchema) {
  CounterGroup g("g");
  for (const char* name : {"a", "b", "c", "d", "e", "f", "g", "h"}) g.counter(name);
  const std::string path = DataFile()
                               .block_size(48)
                               .counters_schema(counters(g))
                               .chunk(Chunk().counters(kT0, Bytes().u64(1).u64(2).u64(3).vec()))
                               .write(dir_.file("data.bin"));
  expect_warning({"-f", "ndjson", path},
                 "A counters block of " + path +
                     " holds 32 value bytes, fewer than the 64 its counters schema lays out: the "
                     "counters past them read as 0. A counter set (-C) fits only data collected "
                     "with it");
}

}  // namespace
