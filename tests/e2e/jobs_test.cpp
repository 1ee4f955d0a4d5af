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

// Reading ahead on a second thread writes what the walk on one thread
// writes, also where a page cannot be decoded, a page holds a block that
// fails the file (the pages decoded past it are dropped with their log
// lines), a chunk fails before a short last chunk, and a whole-file gzip of
// many small chunks is cut short.
TEST(ReadAhead, WritesWhatOneThreadWrites) {
  TempDir dir;
  CountersSchema schema;
  schema.group(CounterGroup("g").counter("a"));
  SchemaId id = write_schema_file(dir.file("schema"), schema);
  auto counters = [](uint64_t i) { return Chunk().counters(1700000000000000 + i, Bytes().u64(i)); };
  auto page = [&](char encoding, uint64_t i) {
    return PackedPage(encoding).content(counters(i).bytes(64));
  };
  auto bad_stream = [&](uint64_t i) { return page('G', i).stream(Bytes().text("not gzip")); };
  auto unknown_block = PackedPage('S').content(Bytes().text("XXXXXXXXXXXXXXXX"));
  auto file = [&] { return std::move(DataFile().block_size(1024).counters_schema(id)); };

  std::vector<std::string> args = {"-v", "7", "-p", "-s", dir.file("schema"), "-f", "ndjson"};
  DataFile undecodable = file();
  undecodable.chunk(Chunk().page(page('G', 0)).page(page('S', 1)).page(bad_stream(2)))
      .chunk(Chunk().page(page('G', 3)));
  args.push_back(undecodable.write(dir.file("undecodable.bin")));
  DataFile failing_block = file();
  failing_block.chunk(Chunk().page(page('S', 0)).page(unknown_block).page(bad_stream(1)))
      .chunk(Chunk().page(bad_stream(2)));
  args.push_back(failing_block.write(dir.file("failing_block.bin")));
  DataFile small_chunks;
  small_chunks.block_size(256).counters_schema(id);
  for (uint64_t i = 0; i < 3000; ++i) small_chunks.chunk(counters(i));
  small_chunks.chunk(Chunk().page(page('G', 3000)).page(page('S', 3001)));
  small_chunks.chunk(counters(3002).size(20));  // a short last chunk
  ByteVec whole = small_chunks.bytes();
  write_file(dir.file("short_last.bin"), whole);
  args.push_back(dir.file("short_last.bin"));
  DataFile failing_chunk;  // the short last chunk's warning is never reached
  failing_chunk.block_size(256).counters_schema(id);
  failing_chunk.chunk(counters(0)).chunk(Chunk().raw(Bytes().text("XXXXXXXXXXXXXXXX")));
  failing_chunk.chunk(counters(1).size(20));
  args.push_back(failing_chunk.write(dir.file("failing_chunk.bin")));
  ByteVec gzipped = small_chunks.gzipped().bytes();
  write_file(dir.file("cut.bin"), ByteVec(gzipped.begin(), gzipped.begin() + gzipped.size() / 2));
  args.push_back(dir.file("cut.bin"));

  RunOptions one_thread;
  one_thread.env = {{"NMB_READ_AHEAD", "0"}};
  RunResult one = run_binary(NMB_READ_BINARY, args, one_thread);
  RunResult ahead = run_binary(NMB_READ_BINARY, args);
  EXPECT_EQ(one.status, 1);
  EXPECT_EQ(ahead.status, one.status);
  EXPECT_EQ(ahead.out, one.out);
  EXPECT_EQ(without_schema_addresses(strip_log_timestamps(ahead.err)),
            without_schema_addresses(strip_log_timestamps(one.err)));
}

}  // namespace
