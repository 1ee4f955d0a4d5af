// Output that cannot be delivered ends the run: one line on standard error,
// no further file, exit status 1. Pages -f bin cannot write are tallied.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;

class WriteError : public E2ETest {
 protected:
  void SetUp() override {
    CountersSchema schema;
    schema.group(CounterGroup("g").counter("a").counter("b"));
    const SchemaId id = write_schema_file(dir_.file("schema"), schema);
    // Some megabytes of output in every format: the failure is met while
    // the file is read, not only when the run ends.
    DataFile big;
    big.block_size(64).counters_schema(id).source("host", "big").times(1, 2);
    for (uint64_t i = 0; i < 50000; ++i)
      big.chunk(Chunk().counters(1700000000000000 + i, Bytes().u64(i).u64(i * 3)));
    write_file(dir_.file("big.bin"), big.bytes());
    DataFile small;
    small.block_size(64).counters_schema(id).source("host", "small").times(1, 2);
    small.chunk(Chunk().counters(1700000000000000, Bytes().u64(1).u64(2)));
    write_file(dir_.file("small.bin"), small.bytes());
    // Were it read, its error would be logged.
    write_text_file(dir_.file("after.bin"), std::string(300, 'x'));
  }

  RunResult run(const std::string& format, const std::string& input, const RunOptions& options,
                const std::string& jobs = "1") const {
    return E2ETest::run({"-f", format, "-j", jobs, dir_.file(input), dir_.file("after.bin")},
                        options);
  }
};

TEST_F(WriteError, FullDeviceOrClosedPipeEndsTheRunWithOneLine) {
  RunOptions full;
  full.stdout_path = "/dev/full";
  RunOptions closed_pipe;
  closed_pipe.stdout_closed_pipe = true;
  RunOptions full_no_read_ahead = full;
  full_no_read_ahead.env = {{"NMB_READ_AHEAD", "0"}};
  const std::string no_space = "nmb_read: write error: No space left on device\n";
  const std::string broken = "nmb_read: write error: Broken pipe\n";
  for (const char* format : {"json", "ndjson", "txt"}) {
    for (const char* jobs : {"1", "2"}) {
      SCOPED_TRACE(std::string(format) + " -j " + jobs);
      RunResult result = run(format, "big.bin", full, jobs);
      EXPECT_EQ(result.status, 1);
      EXPECT_EQ(result.err, no_space);
      result = run(format, "big.bin", closed_pipe, jobs);
      EXPECT_EQ(result.status, 1);
      EXPECT_EQ(result.err, broken);
    }
    RunResult result = run(format, "big.bin", full_no_read_ahead);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, no_space);
    // Output small enough to be held to the end fails when written at exit;
    // the files were all read by then.
    result = run(format, "small.bin", full);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("after.bin"), std::string::npos);
    EXPECT_TRUE(result.err.ends_with(no_space)) << result.err;
  }
}

TEST_F(WriteError, BinPagesThatCannotBeWrittenAreTalliedAtTheEnd) {
  auto made = run_binary(NMB_MAKE_SAMPLE_BINARY, {dir_.path()});
  ASSERT_EQ(made.status, 0) << made.err;
  // A folder where the first output file would go.
  const std::string out = dir_.file("out");
  std::filesystem::create_directories(
      out + "/2023/1114/node01/packed_gzip/node01_packed_gzip_1700000000000000.bin");
  RunResult result =
      run_binary(NMB_READ_BINARY, {"-s", dir_.file("schema"), "-f", "bin", "-o", out,
                                   dir_.file("packed_gzip.bin"), dir_.file("packed_snappy.bin")});
  EXPECT_EQ(result.status, 0);  // a page lost is logged, not a failed file
  EXPECT_TRUE(strip_log_timestamps(result.err)
                  .ends_with("[warning] [data_writer] 1 of 4 pages were not written; the first: "
                             "no output file for source 'node01' tag 'packed_gzip'\n"))
      << result.err;
}

}  // namespace
