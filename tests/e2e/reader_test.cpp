// Data files as nmb_read reads them: plain and gzip input, header checks, block
// size bounds, chunk handling, the failure count and exit status.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/e2e/reader_fixture.h"

namespace {

using namespace nmb::test;

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
  // The json document stays open, as the rules keep it, and says so.
  EXPECT_EQ(result.err, "[error] Reached unknown block type 3 ''. Magic value 'NMBB'\n[warning] " +
                            blob +
                            " failed with its array open, which is kept: the json output is no "
                            "valid JSON from here on. Use -f ndjson, whose every line stands "
                            "alone\n" +
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
  result = run({"-f", "ndjson", unknown});
  EXPECT_EQ(result.out, "");
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
  EXPECT_EQ(result.err, failed(cut, "Failed reading data file header: Success") + "[warning] " +
                            cut + " holds 100 bytes, fewer than the 256 of a data file header\n" +
                            "Failed to read 1 of 3 files\n");
  EXPECT_EQ(result.status, 1);

  // Every file bad.
  result = run({bad_magic, cut});
  EXPECT_EQ(result.out, "{}");
  EXPECT_EQ(result.err.substr(result.err.rfind("Failed to read")), "Failed to read 2 of 2 files\n");
  EXPECT_EQ(result.status, 1);
}

}  // namespace
