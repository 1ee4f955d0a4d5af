// Whole-file gzip input that is damaged must fail the file, never end it
// quietly with part of its data.
#include <gtest/gtest.h>

#include "tests/support/data_builder.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;

TEST(CompressedInput, CutShortGzipFileFails) {
  TempDir dir;
  CountersSchema schema;
  schema.group(CounterGroup("g").counter("a"));
  SchemaId id = write_schema_file(dir.file("schema"), schema);
  DataFile file;
  file.block_size(64).counters_schema(id);
  for (uint64_t i = 0; i < 200; ++i)
    file.chunk(Chunk().counters(1700000000000000 + i, Bytes().u64(i * 7919)));
  ByteVec whole = file.gzipped().bytes();
  ByteVec half(whole.begin(), whole.begin() + static_cast<long>(whole.size() / 2));
  write_file(dir.file("cut.bin"), half);
  write_file(dir.file("whole.bin"), whole);

  auto ok = run_binary(NMB_READ_BINARY,
                       {"-s", dir.file("schema"), "-f", "ndjson", dir.file("whole.bin")});
  EXPECT_EQ(ok.status, 0) << ok.err;

  const std::string cut = dir.file("cut.bin");
  auto result = run_binary(NMB_READ_BINARY, {"-s", dir.file("schema"), "-f", "ndjson", cut});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(strip_log_timestamps(result.err), "[error] Failed to read data file " + cut +
                                                  ": unexpected end of file\n"
                                                  "Failed processing file " +
                                                  cut + ": Failed to process data file " + cut +
                                                  "\n"
                                                  "Failed to read 1 of 1 files\n");
}

TEST(CompressedInput, CorruptGzipStreamFails) {
  TempDir dir;
  DataFile file;
  file.block_size(64);
  for (int i = 0; i < 50; ++i) file.chunk(Chunk().counters(1, Bytes().u64(1)));
  ByteVec bytes = file.gzipped().bytes();
  for (size_t i = bytes.size() / 2; i < bytes.size() / 2 + 16; ++i) bytes[i] ^= 0x5A;
  write_file(dir.file("bad.bin"), bytes);
  auto result =
      run_binary(NMB_READ_BINARY, {"-s", dir.path(), "-f", "ndjson", dir.file("bad.bin")});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("Failed to read 1 of 1 files\n"), std::string::npos) << result.err;
}

}  // namespace
