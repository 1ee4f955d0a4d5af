// -j: files processed at once write what one file at a time writes, byte for
// byte on both streams, with the same exit status and the same -f bin trees.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;
namespace fs = std::filesystem;

// Every file under `root` by its relative path, with its bytes.
std::map<std::string, ByteVec> read_tree(const std::string& root) {
  std::map<std::string, ByteVec> files;
  if (!fs::exists(root)) return files;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (entry.is_regular_file())
      files[fs::relative(entry.path(), root).string()] = read_file(entry.path().string());
  }
  return files;
}

// Debug lines name schemas by their address, which depends on the thread.
std::string without_schema_addresses(std::string text) {
  static constexpr std::string_view kMark = "schema: 0x";
  for (size_t at = text.find(kMark); at != std::string::npos; at = text.find(kMark, at)) {
    at += kMark.size();
    size_t end = text.find_first_not_of("0123456789abcdef", at);
    text.replace(at, end - at, "?");
  }
  return text;
}

class Jobs : public ::testing::TestWithParam<std::tuple<const char*, bool>> {
 protected:
  void SetUp() override {
    auto made = run_binary(NMB_MAKE_SAMPLE_BINARY, {dir_.path()});
    ASSERT_EQ(made.status, 0) << made.err;
    for (const char* name : {"counters", "events", "packed_gzip", "packed_snappy", "metrics"})
      files_.push_back(dir_.file(std::string(name) + ".bin"));

    // A whole-file gzip input, the same cut short, an empty and a foreign file
    // (-S stops at a header it cannot read, so sorted runs leave those two out).
    CountersSchema schema;
    schema.group(CounterGroup("g").counter("a").counter("b"));
    SchemaId id = write_schema_file(dir_.file("schema"), schema);
    DataFile file;
    file.block_size(64).counters_schema(id).source("host", "gz").times(100, 400);
    for (uint64_t i = 0; i < 300; ++i)
      file.chunk(Chunk().counters(1700000000000000 + i, Bytes().u64(i).u64(i * 7919)));
    ByteVec whole = file.gzipped().bytes();
    write_file(dir_.file("whole.bin"), whole);
    write_file(dir_.file("cut.bin"), ByteVec(whole.begin(), whole.begin() + whole.size() / 2));
    write_file(dir_.file("empty.bin"), {});
    write_text_file(dir_.file("foreign.bin"), std::string(300, 'x'));
    for (std::string name : {"whole", "cut", "empty", "foreign"}) {
      const bool header_unreadable = name == "empty" || name == "foreign";
      if (std::get<1>(GetParam()) && header_unreadable) continue;
      files_.insert(files_.begin() + 2, dir_.file(name + ".bin"));
    }
  }

  // Runs into a fresh -f bin output folder of the same name each time (the
  // paths it writes are logged).
  RunResult run(const std::string& jobs,
                const std::vector<std::pair<std::string, std::string>>& env = {}) const {
    const auto [format, sort] = GetParam();
    const std::string out_dir = dir_.file("out");
    fs::remove_all(out_dir);
    fs::create_directories(out_dir);
    std::vector<std::string> args = {"-v",    "7",  "-s", dir_.file("schema"), "-f", format, "-o",
                                     out_dir, "-j", jobs};
    if (sort) args.push_back("-S");
    args.insert(args.end(), files_.begin(), files_.end());
    RunOptions options;
    options.env = env;
    RunResult result = run_binary(NMB_READ_BINARY, args, options);
    result.err = without_schema_addresses(strip_log_timestamps(result.err));
    return result;
  }

  TempDir dir_;
  std::vector<std::string> files_;
};

TEST_P(Jobs, WriteWhatOneFileAtATimeWrites) {
  const RunResult one = run("1");
  EXPECT_EQ(one.status, 1);
  const auto tree = read_tree(dir_.file("out"));

  // A cap of 64 bytes spills nearly every file's output to a temporary file.
  const std::pair<std::string, std::vector<std::pair<std::string, std::string>>> runs[] = {
      {"4", {}}, {"2", {{"NMB_JOB_BUFFER_SIZE", "64"}}}};
  for (const auto& [jobs, env] : runs) {
    const RunResult many = run(jobs, env);
    EXPECT_EQ(many.status, one.status) << jobs;
    EXPECT_EQ(many.out, one.out) << jobs;
    EXPECT_EQ(many.err, one.err) << jobs;
    EXPECT_EQ(read_tree(dir_.file("out")), tree) << jobs;
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, Jobs,
                         ::testing::Combine(::testing::Values("json", "ndjson", "txt", "influx",
                                                              "csv", "bin"),
                                            ::testing::Bool()),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param)) +
                                  (std::get<1>(info.param) ? "_sorted" : "");
                         });

}  // namespace
