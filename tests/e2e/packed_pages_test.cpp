// Packed pages in chunks: both encodings, malformed and undecodable pages.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/e2e/reader_fixture.h"

namespace {

using namespace nmb::test;

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

namespace {}  // namespace
