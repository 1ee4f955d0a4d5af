// Data files as nmb_read reads them: plain and gzip input, header checks, block
// size bounds, chunk handling, packed pages, the run over several files with
// and without -S, the failure count and exit status.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;

constexpr uint64_t kT0 = 1700000000000000;

class ReaderE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    schema_dir_ = dir_.file("schema");
    counters_id_ = write_schema_file(
        schema_dir_, CountersSchema().group(CounterGroup("node").counter("a").counter("b")));
  }

  // Runs nmb_read with the schema folder; log timestamps are stripped.
  RunResult run(std::vector<std::string> args) const {
    args.insert(args.begin(), {"-s", schema_dir_});
    RunResult result = run_binary(NMB_READ_BINARY, args);
    result.err = strip_log_timestamps(result.err);
    return result;
  }

  // A file whose counters schema has two UINT64 counters (16 value bytes).
  DataFile counters_file(uint32_t block_size = 64) const {
    DataFile file;
    file.block_size(block_size).times(kT0, kT0 + 3).counters_schema(counters_id_);
    return file;
  }

  static ByteVec values(uint64_t a, uint64_t b) { return Bytes().u64(a).u64(b); }

  static std::string data_block_print(uint64_t timestamp) {
    return "Data block\n magic number         = NMBD\n last timestamp       = " +
           std::to_string(timestamp) + "\n";
  }

  std::string failed(const std::string& path, const std::string& message) const {
    return "Failed processing file " + path + ": " + message + "\n";
  }

  TempDir dir_;
  std::string schema_dir_;
  SchemaId counters_id_;
};

// The -p print of a file header, line by line.
std::string header_print(const FileHeader& h, uint64_t file_size) {
  auto line = [](const char* label, const std::string& value) {
    char text[256];
    std::snprintf(text, sizeof text, " %-20s = %s\n", label, value.c_str());
    return std::string(text);
  };
  std::string version =
      std::to_string(h.major) + "." + std::to_string(h.minor) + "." + std::to_string(h.patch);
  std::string out = "Data file header\n";
  out += line("magic number", h.magic.substr(0, 4));
  out += line("version", version);
  out += line("file size", std::to_string(file_size));
  out += line("source id", h.source_id.substr(0, 64));
  out += line("source tag", h.source_tag.substr(0, 16));
  out += line("first timestamp", std::to_string(h.first_timestamp));
  out += line("last timestamp", std::to_string(h.last_timestamp));
  out += line("data block size", std::to_string(h.block_size));
  out += line("counters schema id", schema_id_hex(h.counters_schema_id));
  for (int i = 0; i < 7; ++i)
    out += " schema id[" + std::to_string(i) +
           "]         = " + schema_id_hex(h.event_schema_ids[i]) + "\n";
  out += line("byte order", std::to_string(h.byte_order) + (h.byte_order ? " (BE)" : " (LE)"));
  out += line("end magic number", h.magic_end.substr(0, 4));
  return out;
}

TEST_F(ReaderE2E, HeaderOnlyFileGivesAnEmptyArrayNamedAfterTheFile) {
  std::string path = DataFile().write(dir_.file("node.2026.bin"));
  auto json = run({path});
  EXPECT_EQ(json.out, "{\"node\":[]}");
  EXPECT_EQ(json.err, "");
  EXPECT_EQ(json.status, 0);
  auto ndjson = run({"-f", "ndjson", path});
  EXPECT_EQ(ndjson.out, "");
  EXPECT_EQ(ndjson.status, 0);
}

TEST_F(ReaderE2E, GzipCompressedFileReadsLikeThePlainOne) {
  DataFile file = counters_file();
  file.chunk(Chunk().counters(kT0, values(1, 2))).chunk(Chunk().counters(kT0 + 1, values(3, 4)));
  std::string plain = file.write(dir_.file("plain.bin"));
  std::string gz = file.gzipped().write(dir_.file("zipped.bin"));
  ASSERT_EQ(read_file(gz)[0], 0x1f);
  for (const char* format : {"ndjson", "json"}) {
    SCOPED_TRACE(format);
    auto a = run({"-f", format, plain});
    auto b = run({"-f", format, gz});
    EXPECT_EQ(a.status, 0);
    EXPECT_EQ(a.err, "");
    EXPECT_NE(a.out.find("1700000000000001"), std::string::npos) << a.out;
    std::string expected = a.out;
    if (std::string(format) == "json") expected.replace(2, 5, "zipped");
    EXPECT_EQ(b.out, expected);
    EXPECT_EQ(b.err, a.err);
    EXPECT_EQ(b.status, a.status);
  }
  auto printed = run({"-p", "-f", "ndjson", gz});
  EXPECT_EQ(printed.out, header_print(file.header(), 256 + 128) + data_block_print(kT0) +
                             data_block_print(kT0 + 1));
}

TEST_F(ReaderE2E, BlockSizeBounds) {
  for (uint32_t size : {16u, 125829119u}) {
    SCOPED_TRACE(size);
    std::string path = DataFile().block_size(size).write(dir_.file("ok.bin"));
    auto result = run({path});
    EXPECT_EQ(result.out, "{\"ok\":[]}");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
  }
  // A 16-byte chunk holds just a counters block header.
  std::string small = counters_file(16)
                          .chunk(Chunk().counters(kT0, {}))
                          .chunk(Chunk().counters(kT0 + 1, {}))
                          .write(dir_.file("small.bin"));
  auto printed = run({"-p", "-f", "ndjson", small});
  EXPECT_EQ(printed.status, 0);
  EXPECT_EQ(printed.out.substr(printed.out.find("Data block")),
            data_block_print(kT0) + data_block_print(kT0 + 1));

  for (uint32_t size : {15u, 125829120u, 0u}) {
    SCOPED_TRACE(size);
    std::string path = DataFile().block_size(size).write(dir_.file("bad.bin"));
    auto result = run({path});
    EXPECT_EQ(result.out, "{}");
    EXPECT_EQ(result.err, failed(path, "Block size " + std::to_string(size) +
                                           " must be in range between 16 and 125829120 bytes ") +
                              "Failed to read 1 of 1 files\n");
    EXPECT_EQ(result.status, 1);
  }
}

// A short last chunk is still processed (what lies past its end reads the
// previous chunk's bytes), with one warning naming the bytes expected: the
// end of the chunk, or the header's file size when that is larger.
TEST_F(ReaderE2E, TruncatedFilesAreProcessedWithOneWarning) {
  DataFile file = counters_file(64);
  file.chunk(Chunk().counters(kT0, values(1, 2)))
      .chunk(Chunk().counters(kT0 + 1, values(3, 4)))
      .chunk(Chunk().counters(kT0 + 2, values(5, 6)).unpadded());
  std::string path = file.write(dir_.file("short.bin"));
  ASSERT_EQ(read_file(path).size(), 256u + 64 + 64 + 32);
  const std::string warning =
      "[warning] Data file " + path + " is truncated: 448 bytes expected, 416 bytes found\n";

  auto printed = run({"-p", "-f", "ndjson", path});
  EXPECT_EQ(printed.out, header_print(file.header(), 256 + 160) + data_block_print(kT0) +
                             data_block_print(kT0 + 1) + data_block_print(kT0 + 2));
  EXPECT_EQ(printed.err, warning);
  EXPECT_EQ(printed.status, 0);

  auto ndjson = run({"-f", "ndjson", path});
  EXPECT_EQ(ndjson.status, 0);
  EXPECT_EQ(ndjson.err, warning);
  EXPECT_NE(ndjson.out.find("\"timestamp\":1700000000000002"), std::string::npos);
  EXPECT_NE(ndjson.out.find("\"b\":6"), std::string::npos);

  file.header().file_size = 1000;
  file.write(path);
  EXPECT_EQ(
      run({"-f", "ndjson", path}).err,
      "[warning] Data file " + path + " is truncated: 1000 bytes expected, 416 bytes found\n");

  // Whole chunks, but fewer than the header's file size says.
  file.header().file_size = 256 + 64 + 64 + 64 + 64;
  file.truncate(256 + 128).write(path);
  auto cut = run({"-f", "ndjson", path});
  EXPECT_EQ(cut.err,
            "[warning] Data file " + path + " is truncated: 512 bytes expected, 384 bytes found\n");
  EXPECT_EQ(cut.status, 0);
  EXPECT_NE(cut.out.find("\"b\":4"), std::string::npos);

  // A header that claims less than the file holds is no truncation.
  file.header().file_size = 256;
  EXPECT_EQ(run({"-f", "ndjson", file.truncate(256 + 128).write(path)}).err, "");
}

// The file-level time filter skips a file only when both header times lie
// above -l and below -g at once; otherwise the blocks are filtered one by one
// (-p prints counters block headers before the block time filter).
TEST_F(ReaderE2E, FileTimeFilterNeedsBothBounds) {
  DataFile file = counters_file(64);  // header times kT0 .. kT0 + 3
  file.chunk(Chunk().counters(kT0, values(1, 2)));
  std::string path = file.write(dir_.file("times.bin"));
  const std::string past = std::to_string(kT0 + 10);
  const std::string before = std::to_string(kT0 - 10);

  auto above_gt = run({"-p", "-f", "ndjson", "-v", "7", "-g", past, path});
  EXPECT_EQ(above_gt.out, header_print(file.header(), 256 + 64) + data_block_print(kT0));
  EXPECT_EQ(above_gt.err.find("File content is out of date range"), std::string::npos);
  EXPECT_EQ(above_gt.status, 0);

  auto skipped = run({"-p", "-f", "ndjson", "-v", "7", "-g", past, "-l", before, path});
  EXPECT_EQ(skipped.out, header_print(file.header(), 256 + 64));
  EXPECT_NE(skipped.err.find("[debug] File content is out of date range\n"), std::string::npos)
      << skipped.err;
  EXPECT_EQ(skipped.status, 0);
}

TEST_F(ReaderE2E, LeftoverBytesAfterTheLastChunk) {
  // One to three bytes cannot hold a block header.
  std::string path = counters_file(64)
                         .chunk(Chunk().counters(kT0, values(1, 2)))
                         .raw({'N', 'M'})
                         .write(dir_.file("tail.bin"));
  auto result = run({"-f", "ndjson", path});
  EXPECT_EQ(result.err, "[error] No data block header read from the file " + path + "\n" +
                            failed(path, "Failed to process data file " + path) +
                            "Failed to read 1 of 1 files\n");
  EXPECT_EQ(result.status, 1);
}

TEST_F(ReaderE2E, BlocksOfUnknownKindFailTheFile) {
  std::string blob =
      counters_file().chunk(Chunk().blob(kT0, Bytes().text("opaque"))).write(dir_.file("blob.bin"));
  auto result = run({blob});
  EXPECT_EQ(result.out, "{\"blob\":[}");
  EXPECT_EQ(result.err, "[error] Reached unknown block type 3 ''. Magic value 'NMBB'\n" +
                            failed(blob, "Failed to process data file " + blob) +
                            "Failed to read 1 of 1 files\n");
  EXPECT_EQ(result.status, 1);

  // Records before the failing block stay written.
  std::string after = counters_file()
                          .chunk(Chunk().counters(kT0, values(1, 2)))
                          .chunk(Chunk().blob(kT0, {}))
                          .chunk(Chunk().counters(kT0 + 1, values(3, 4)))
                          .write(dir_.file("after.bin"));
  result = run({"-f", "ndjson", after});
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1) << result.out;
  EXPECT_EQ(result.status, 1);

  std::string unknown =
      counters_file().chunk(Chunk().raw(Bytes().text("NMBQ"))).write(dir_.file("unknown.bin"));
  result = run({unknown});
  EXPECT_EQ(result.out, "{\"unknown\":[}");
  EXPECT_EQ(result.err, "[error] Reached unknown block type 4 ''. Magic value 'NMBQ'\n" +
                            failed(unknown, "Failed to process data file " + unknown) +
                            "Failed to read 1 of 1 files\n");

  // A page inside a decoded page.
  ByteVec inner = PackedPage('G').content(Chunk().counters(kT0, values(1, 2)).bytes(64)).bytes();
  std::string nested = counters_file(512)
                           .chunk(Chunk().page(PackedPage('S').content(inner)))
                           .write(dir_.file("nested.bin"));
  result = run({"-f", "ndjson", nested});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(
      result.err,
      "[error] Reached unknown block type 5 'in compressed data block'. Magic value 'NMBP'\n" +
          failed(nested, "Failed to process data file " + nested) +
          "Failed to read 1 of 1 files\n");
  EXPECT_EQ(result.status, 1);
}

TEST_F(ReaderE2E, PrintHeadersShowsEveryHeaderField) {
  DataFile file;
  file.version(1, 5, 3)
      .source(std::string(64, 's'), "tag-16-chars-xyz")
      .times(kT0, kT0 + 999)
      .block_size(128)
      .counters_schema(schema_id_from_hex("000102030405060708090a0b0c0d0e0f"))
      .event_schema(0, schema_id_filled(0xab))
      .event_schema(6, schema_id_filled(0x01))
      .byte_order(0)
      .magic_end("nmbX");
  std::string path = file.write(dir_.file("p.bin"));
  auto json = run({"-p", path});
  // The header is printed before it is checked and before the schemas (missing
  // here) are loaded.
  EXPECT_EQ(json.out, "{" + header_print(file.header(), 256) + "}");
  EXPECT_NE(json.err.find(failed(path, "Failed to load type system")), std::string::npos);
  EXPECT_EQ(json.status, 1);

  file.event_schema(0, {}).event_schema(6, {}).counters_schema(counters_id_).byte_order(1);
  file.source("node7", "").write(path);
  auto ndjson = run({"-p", "-f", "ndjson", path});
  EXPECT_EQ(ndjson.out, header_print(file.header(), 256));
  EXPECT_NE(ndjson.out.find(" byte order           = 1 (BE)\n"), std::string::npos);
  EXPECT_EQ(ndjson.err, "");
  EXPECT_EQ(ndjson.status, 0);
}

TEST_F(ReaderE2E, HeaderChecksFollowTheVersionRule) {
  struct Case {
    uint8_t major, minor;
    uint16_t patch;
  };
  for (Case c : {Case{1, 7, 9}, Case{1, 3, 0}, Case{1, 0, 0}}) {
    std::string path = DataFile().version(c.major, c.minor, c.patch).write(dir_.file("v.bin"));
    auto result = run({path});
    EXPECT_EQ(result.out, "{\"v\":[]}") << int(c.minor);
    EXPECT_EQ(result.status, 0);
  }
  std::string wrong_end = DataFile().magic_end("xxxx").write(dir_.file("end.bin"));
  EXPECT_EQ(run({wrong_end}).status, 0);

  auto refused = [&](const DataFile& file, const std::string& log) {
    std::string path = file.write(dir_.file("bad.bin"));
    auto result = run({path});
    EXPECT_EQ(result.out, "{}");
    EXPECT_EQ(result.err, "[error] " + log + "\n" + failed(path, "Invalid data file header") +
                              "Failed to read 1 of 1 files\n");
    EXPECT_EQ(result.status, 1);
  };
  refused(DataFile().version(1, 8, 0),
          "Version of data page 1.8.0 is incompatible with Nimbrel version 1.26.3");
  refused(DataFile().version(2, 0, 0),
          "Version of data page 2.0.0 is incompatible with Nimbrel version 1.26.3");
  refused(DataFile().version(0, 7, 0),
          "Version of data page 0.7.0 is incompatible with Nimbrel version 1.26.3");
  refused(DataFile().file_size(255), "Wrong data file size 255 is less then file header size 256");
  // The version is checked before the file size.
  refused(DataFile().version(2, 7, 0).file_size(255),
          "Version of data page 2.7.0 is incompatible with Nimbrel version 1.26.3");
  refused(DataFile().magic("NMBD"), "Wrong data page magic number.");
  refused(DataFile().magic("XMBF"), "Wrong data page magic number.");

  // -p prints a header before checking it, so a refused one is shown too.
  DataFile newer;
  newer.version(1, 8, 0);
  std::string path = newer.write(dir_.file("newer.bin"));
  auto printed = run({"-p", "-f", "ndjson", path});
  EXPECT_EQ(printed.out, header_print(newer.header(), 256));
  EXPECT_EQ(printed.status, 1);
}

TEST_F(ReaderE2E, OneBadFileAmongGoodOnes) {
  std::string a = DataFile().write(dir_.file("a.bin"));
  std::string bad_magic = DataFile().magic("NMBE").write(dir_.file("b.bin"));
  std::string c =
      counters_file().chunk(Chunk().counters(kT0, values(1, 2))).write(dir_.file("c.bin"));
  auto result = run({"-f", "ndjson", a, bad_magic, c});
  EXPECT_EQ(result.err, "[error] Wrong data page magic number.\n" +
                            failed(bad_magic, "Invalid data file header") +
                            "Failed to read 1 of 3 files\n");
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.out.find("\"a\":1,\"b\":2"), std::string::npos);

  // A file too short for a header; json keeps the separators right.
  std::string cut = DataFile().truncate(100).write(dir_.file("cut.bin"));
  result = run({a, cut, DataFile().write(dir_.file("d.bin"))});
  EXPECT_EQ(result.out, "{\"a\":[],\"d\":[]}");
  EXPECT_EQ(result.err, failed(cut, "Failed reading data file header: Success") +
                            "Failed to read 1 of 3 files\n");
  EXPECT_EQ(result.status, 1);

  // Every file bad.
  result = run({bad_magic, cut});
  EXPECT_EQ(result.out, "{}");
  EXPECT_EQ(result.err.substr(result.err.rfind("Failed to read")), "Failed to read 2 of 2 files\n");
  EXPECT_EQ(result.status, 1);
}

class SortE2E : public ReaderE2E {
 protected:
  void SetUp() override {
    ReaderE2E::SetUp();
    // Given in the order c, b, a.
    c_ = DataFile().source("s1", "t3").times(200, 201).write(dir_.file("c.bin"));
    b_ = DataFile().source("s3", "t2").times(100, 101).write(dir_.file("b.bin"));
    a_ = DataFile().source("s2", "t1").times(300, 301).write(dir_.file("a.bin"));
  }
  RunResult sorted(const std::string& option) const { return run({option, c_, b_, a_}); }

  std::string a_, b_, c_;
};

TEST_F(SortE2E, FilesKeepTheirOrderWithoutSorting) {
  auto result = run({c_, b_, a_});
  EXPECT_EQ(result.out, "{\"c\":[],\"b\":[],\"a\":[]}");
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.status, 0);
}

TEST_F(SortE2E, OrderStrings) {
  struct Case {
    const char* option;
    const char* out;
  };
  for (Case c :
       {Case{"-Sfirst_timestamp", "{\"b\":[],\"c\":[],\"a\":[]}"},
        Case{"-Ssource_id", "{\"c\":[],\"a\":[],\"b\":[]}"},
        Case{"--sort-files=source_tag", "{\"a\":[],\"b\":[],\"c\":[]}"},
        Case{"-S, source_tag,, ", "{\"a\":[],\"b\":[],\"c\":[]}"},
        Case{"-Ssource_id,source_tag,first_timestamp,bogus", "{\"c\":[],\"a\":[],\"b\":[]}"},
        Case{"-S\tsource_tag\n,source_id", "{\"a\":[],\"b\":[],\"c\":[]}"}}) {
    SCOPED_TRACE(c.option);
    auto result = sorted(c.option);
    EXPECT_EQ(result.out, c.out);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
  }
}

TEST_F(SortE2E, DefaultOrderAndItsMessages) {
  const std::string by_time = "{\"b\":[],\"c\":[],\"a\":[]}";
  auto plain = sorted("-S");
  EXPECT_EQ(plain.out, by_time);
  EXPECT_EQ(plain.err, "[info] Sort order not specified. Using default.\n");
  EXPECT_EQ(plain.status, 0);

  auto unknown = sorted("-Sfoo");
  EXPECT_EQ(unknown.out, by_time);
  EXPECT_EQ(unknown.err,
            "[error] [sort] Unknown sort key: 'foo'\n"
            "[warning] Invalid sort order string 'foo'. Using default.\n");

  auto empty_tokens = sorted("-S , ,");
  EXPECT_EQ(empty_tokens.out, by_time);
  EXPECT_EQ(empty_tokens.err, "[warning] Invalid sort order string ' , ,'. Using default.\n");
}

TEST_F(SortE2E, AnUnreadableHeaderStopsTheWholeRun) {
  std::string cut = DataFile().truncate(255).write(dir_.file("cut.bin"));
  auto result = run({"-S", c_, cut, a_});
  EXPECT_EQ(result.out, "{");
  EXPECT_EQ(result.err, "[error] Failed to read header from file: " + cut + "\n" +
                            "[error] Failed to read file header: " + cut + "\n" +
                            "Failed to read 1 of 3 files\n");
  EXPECT_EQ(result.status, 1);

  std::string invalid = DataFile().version(1, 9).write(dir_.file("invalid.bin"));
  result = run({"-Ssource_id", "-f", "ndjson", invalid, c_});
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            "[error] Version of data page 1.9.0 is incompatible with Nimbrel version 1.26.3\n"
            "[error] Invalid header in file: " +
                invalid + "\n[error] Failed to read file header: " + invalid + "\n" +
                "Failed to read 1 of 2 files\n");
  EXPECT_EQ(result.status, 1);
}

class PackedPagesE2E : public ReaderE2E {
 protected:
  // Counters blocks each padded to 64 bytes, the way a page holds chunks.
  static ByteVec page_content(uint64_t first, int count) {
    ByteVec content;
    for (int i = 0; i < count; ++i) {
      ByteVec block = Chunk().counters(first + i, values(first + i, 7)).bytes(64);
      content.insert(content.end(), block.begin(), block.end());
    }
    return content;
  }
  static std::string prints(uint64_t first, int count) {
    std::string out;
    for (int i = 0; i < count; ++i) out += data_block_print(first + i);
    return out;
  }
};

TEST_F(PackedPagesE2E, BothEncodingsDecodeToTheirBlocks) {
  DataFile packed = counters_file(1024);
  packed
      .chunk(Chunk()
                 .page(PackedPage('G').content(page_content(kT0, 3)))
                 .page(PackedPage('S').content(page_content(kT0 + 3, 2)).source("", "")))
      .chunk(Chunk().page(PackedPage('S').content(page_content(kT0 + 5, 1)).times(kT0, kT0 + 9)));
  std::string path = packed.write(dir_.file("packed.bin"));
  auto printed = run({"-p", "-f", "ndjson", path});
  EXPECT_EQ(printed.out, header_print(packed.header(), 256 + 2048) + prints(kT0, 6));
  EXPECT_EQ(printed.err, "");
  EXPECT_EQ(printed.status, 0);

  // The same blocks in plain chunks export identically.
  DataFile plain = counters_file(64);
  for (int i = 0; i < 6; ++i) plain.chunk(Chunk().counters(kT0 + i, values(kT0 + i, 7)));
  auto from_plain = run({"-f", "ndjson", plain.write(dir_.file("plain.bin"))});
  auto from_pages = run({"-f", "ndjson", path});
  EXPECT_EQ(from_pages.out, from_plain.out);
  EXPECT_EQ(std::count(from_pages.out.begin(), from_pages.out.end(), '\n'), 6);
  EXPECT_EQ(from_pages.status, 0);
}

TEST_F(PackedPagesE2E, MalformedPageEndsItsChunkQuietly) {
  DataFile file = counters_file(1024);
  file.chunk(Chunk()
                 .page(PackedPage('G').content(page_content(kT0, 1)))
                 .page(PackedPage('G').content(page_content(kT0 + 1, 1)).trailer("nmbq"))
                 .page(PackedPage('G').content(page_content(kT0 + 2, 1))))
      .chunk(Chunk().page(PackedPage('S').content(page_content(kT0 + 3, 1)).stream_size(5000)))
      .chunk(Chunk().page(PackedPage('S').content(page_content(kT0 + 4, 1)).truncate(40)))
      .chunk(Chunk().page(PackedPage('S').content(page_content(kT0 + 5, 1))));
  auto result = run({"-p", "-f", "ndjson", file.write(dir_.file("bad_pages.bin"))});
  EXPECT_EQ(result.out, header_print(file.header(), 256 + 4096) + data_block_print(kT0) +
                            data_block_print(kT0 + 5));
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.status, 0);
}

TEST_F(PackedPagesE2E, UndecodablePageFailsTheFile) {
  // The gzip trailer's size field disagrees with the inflated size: too small
  // leaves the stream unfinished, too large leaves the output area unfilled;
  // both are "decompression failed", not a corrupt stream.
  for (uint32_t size : {63u, 65u}) {
    std::string path = counters_file(1024)
                           .chunk(Chunk().page(
                               PackedPage('G').content(page_content(kT0, 1)).gzip_size_field(size)))
                           .write(dir_.file("bad_size.bin"));
    auto result = run({"-f", "ndjson", path});
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, std::string("[error] [encoded_data] zlib decompression failed\n") +
                              failed(path, "Failed to process data file " + path) +
                              "Failed to read 1 of 1 files\n");
    EXPECT_EQ(result.status, 1);
  }

  // A stream that is not gzip at all.
  std::string not_gzip =
      counters_file(1024)
          .chunk(Chunk().page(
              PackedPage('G').content(page_content(kT0, 1)).stream(Bytes().text("plain text"))))
          .write(dir_.file("not_gzip.bin"));
  auto result = run({"-f", "ndjson", not_gzip});
  EXPECT_EQ(
      result.err.rfind("[error] [encoded_data] Error: stream is not gzip compressed data\n", 0), 0u)
      << result.err;
  EXPECT_EQ(result.status, 1);

  // A decoded size far beyond any page is refused, not allocated.
  std::string huge =
      counters_file(1024)
          .chunk(Chunk().page(
              PackedPage('G').content(page_content(kT0, 1)).gzip_size_field(0xffffffff)))
          .write(dir_.file("huge.bin"));
  result = run({"-f", "ndjson", huge});
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find(failed(huge, "Failed to process data file " + huge)), std::string::npos)
      << result.err;
  EXPECT_EQ(result.status, 1);
}

}  // namespace

namespace {

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

  RunResult run_utc(std::vector<std::string> args) const {
    args.insert(args.begin(), {"-s", schema_dir_});
    RunOptions options;
    options.env = {{"TZ", "UTC"}};
    RunResult result = run_binary(NMB_READ_BINARY, args, options);
    result.err = strip_log_timestamps(result.err);
    return result;
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
  auto result = run_utc({"-f", "ndjson", path});
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
    auto result = run_utc({"-f", "ndjson", path});
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
  auto result = run_utc({path});
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
  auto a = run_utc({"-f", "ndjson", plain.write(dir_.file("plain.bin"))});
  auto b = run_utc({"-f", "ndjson", packed.write(dir_.file("packed.bin"))});
  EXPECT_EQ(a.out, ev_line(1, 2) + ev_line(3, 4) + ev_line(5, 6) + ev_line(7, 8));
  EXPECT_EQ(b.out, a.out);
  EXPECT_EQ(b.err, "");
  EXPECT_EQ(b.status, 0);
}

}  // namespace
