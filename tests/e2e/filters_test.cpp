// Counter set (-C) and field set (-F) files as nmb_read applies them: the
// counters and fields kept, the rule that one filter file without the other
// excludes the other kind (unless -I), filter files that cannot be loaded,
// and hostile filter files.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;

constexpr uint64_t kT0 = 1700000000000000;

class FiltersE2E : public E2ETest {
 protected:
  void SetUp() override {
    CounterGroup node("node");
    node.counter("port_rcv").counter("port_xmit").counter("temp");
    SchemaId counters = write_schema_file(dir_.file("schema"), CountersSchema().group(node));
    EventType port("port");
    port.field("rcv_data", "uint64_t", 8).field("xmit_data", "uint64_t", 8);
    EventType fan("fan");
    fan.field("speed", "uint32_t", 4);
    SchemaId events = write_schema_file(dir_.file("schema"), EventSchema().type(port).type(fan));
    DataFile file;
    file.block_size(256).times(kT0, kT0 + 100).counters_schema(counters).event_schema(0, events);
    file.chunk(Chunk().counters(kT0, Bytes().u64(1).u64(2).u64(3)));
    file.chunk(Chunk().events(kT0, 0, 0, 1, Bytes().u64(10).u64(20)));
    data_ = file.write(dir_.file("data.bin"));
  }

  std::string filter_file(const std::string& name, std::string_view text) {
    const std::string path = dir_.file(name);
    write_text_file(path, text);
    return path;
  }

  // The data file as ndjson with the given filter options.
  RunResult run(std::vector<std::string> args) const {
    args.insert(args.begin(), {"-f", "ndjson"});
    args.push_back(data_);
    return E2ETest::run(std::move(args));
  }

  static constexpr const char* kCounters =
      R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000","groups":[)"
      R"({"granularity":"NODE","name":"node","counter_sets":[{)";
  static constexpr const char* kEventTime =
      R"("header_timestamp":1700000000000000,"@header_timestamp":"2023-11-14 22:13:20.000"})";

  std::string data_;
};

TEST_F(FiltersE2E, CounterSetKeepsMatchingCountersAndNoEvents) {
  RunResult r = run({"-C", filter_file("c.cset", "# ports only\n^port-temp\n")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, std::string(kCounters) + R"("port_rcv":1,"port_xmit":2}]}]})"
                                            "\n");
  EXPECT_EQ(r.err, "[info] Tokens from file '" + dir_.file("c.cset") +
                       "':\n"
                       "[info] " +
                       dir_.file("c.cset") + "[0] = ^port-temp\n");
}

TEST_F(FiltersE2E, CounterSetWithIgnoreMissingFilterKeepsEvents) {
  RunResult r = run({"-v", "3", "-I", "-C", filter_file("c.cset", "temp$\n")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, std::string(kCounters) +
                       R"("temp":1}]}]})"
                       "\n" +
                       R"({"rcv_data":10,"xmit_data":20,)" + kEventTime + "\n");
}

TEST_F(FiltersE2E, FieldSetKeepsMatchingFieldsAndNoCounters) {
  RunResult r = run({"-F", filter_file("f.fset", "[port]\nrcv ; received\n")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, std::string(R"({"rcv_data":10,)") + kEventTime + "\n");
  EXPECT_EQ(r.err, "");
}

TEST_F(FiltersE2E, BothFilterFiles) {
  RunResult r = run({"-C", filter_file("c.cset", "xmit\n"), "-F",
                     filter_file("f.fset", "[fan]\nspeed\n[port]\nxmit\n"), "-v", "3"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, std::string(kCounters) +
                       R"("port_xmit":1}]}]})"
                       "\n" +
                       R"({"xmit_data":20,)" + kEventTime + "\n");
}

TEST_F(FiltersE2E, FilterFileThatCannotBeReadFailsEveryDataFile) {
  const std::string folder = dir_.file("schema");
  RunResult r = run({"-C", folder, data_});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  const std::string once =
      "[error] Cannot open counterset file '" + folder + "'\n" +
      "[error] [nmb_provider_counter_set_create] failed to read cset file '" + folder + "'\n" +
      "[error] Failed to load provider counter set from file: " + folder + "\n" +
      "Failed processing file " + data_ + ": Failed to load type system\n";
  EXPECT_EQ(r.err, once + once + "Failed to read 2 of 2 files\n");

  r = run({"-F", folder});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "[warning] Cannot open field set file " + folder + "\n" +
                       "[error] [nmb_provider_field_set_create_from_file] failed to initialize "
                       "FieldSet from '" +
                       folder + "'\n" + "[error] Failed to load provider field set from file: " +
                       folder + "\n" + "Failed processing file " + data_ +
                       ": Failed to load type system\n" + "Failed to read 1 of 1 files\n");
}

// Hostile counter set and field set files load and apply in time and give
// their messages: a megabyte line, thousands of terms and lines, NUL bytes
// and no trailing newline.
TEST_F(FiltersE2E, HostileFilterFiles) {
  std::string terms;
  for (int i = 0; i < 5000; ++i) terms += "+t" + std::to_string(i);
  std::string many_lines;
  for (int i = 0; i < 20000; ++i) many_lines += "x" + std::to_string(i) + "=y=z\n";
  std::string header = "[";
  for (int i = 0; i < 50000; ++i) header += "port,";
  // Lines: a 1 MiB term after a short one, 5000 terms, a NUL byte inside a
  // line, a header naming one type 50000 times, 20000 lines of three parts,
  // and a last line without newline.
  std::string text = "nothing+" + std::string(1 << 20, 'p') + "\n" + terms + "\n" +
                     std::string("xmit\0rcv\n", 10) + header + "]\n" + many_lines + "temp";
  RunResult r =
      run({"-v", "3", "-C", filter_file("c.cset", text), "-F", filter_file("f.fset", text)});
  EXPECT_EQ(r.status, 0) << r.err.substr(0, 2000);
  EXPECT_EQ(r.out, std::string(kCounters) +
                       R"("port_xmit":1,"temp":2}]}]})"
                       "\n" +
                       R"({"xmit_data":20,)" + kEventTime + "\n");
  // Per counter: the long line, the 33rd term, and every line of three parts.
  const std::string per_counter =
      "[error] Token of size 1048576 is too long to keep in the tokens "
      "array\n[error] Cannot handle more than 32 tokens\n";
  EXPECT_EQ(r.err.rfind(per_counter, 0), 0u);
  size_t unparsable = 0;
  for (size_t at = r.err.find("Unable to parse counterset token x"); at != std::string::npos;
       at = r.err.find("Unable to parse counterset token x", at + 1)) {
    ++unparsable;
  }
  EXPECT_EQ(unparsable, 3u * 20000u);
}

}  // namespace
