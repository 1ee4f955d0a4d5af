#include "data/packed_page.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <zlib.h>

#include <cstring>
#include <string>
#include <vector>

#include "data/format.h"
#include "data/reader.h"
#include "tests/support/data_builder.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_sink.h"
#include "tests/support/run_binary.h"
#include "utils/log.h"

namespace {

using nmb::test::Bytes;
using nmb::test::ByteVec;
using nmb::test::PackedPage;

// The encoded-payload header and stream of a packed page (what lies between
// "NMBP" and "nmbp").
ByteVec payload_of(const PackedPage& page) {
  ByteVec payload = page.header();
  ByteVec stream = page.encoded_stream();
  payload.insert(payload.end(), stream.begin(), stream.end());
  return payload;
}

ByteVec sample_content(size_t size) {
  ByteVec content(size);
  for (size_t i = 0; i < size; ++i) content[i] = static_cast<uint8_t>(i * 7 % 251);
  return content;
}

class PackedPages : public testing::Test {
 protected:
  void SetUp() override { nmb_init_stderr_logger(NMB_LOG_DEBUG); }
  void TearDown() override { nmb_logger_reset_for_tests(); }
  void start() { nmb::test::capture_stderr(); }
  std::string logged() { return nmb::test::captured_log(); }
};

TEST_F(PackedPages, GzipAndSnappyRoundTrip) {
  for (char encoding : {'G', 'S'}) {
    ByteVec content = sample_content(5000);
    ByteVec payload = payload_of(PackedPage(encoding).content(content));
    EXPECT_EQ(nmb_encoded_payload_decoded_size(payload), content.size()) << encoding;
    std::vector<uint8_t> out;
    uint64_t size = 0;
    start();
    EXPECT_TRUE(nmb_decode_payload_into_new_buffer(payload, out, &size, 64)) << encoding;
    EXPECT_EQ(logged(), "");
    EXPECT_EQ(size, content.size());
    ASSERT_EQ(out.size(), content.size() + 64);
    EXPECT_TRUE(std::equal(content.begin(), content.end(), out.begin()));
    EXPECT_EQ(out.back(), 0) << "the slack is zero";
  }
}

TEST_F(PackedPages, GzipDecodedSizeRules) {
  start();
  const uint8_t three[] = {0x1F, 0x8B, 0x08};
  EXPECT_EQ(nmb_encoded_stream_decoded_size('G', three, 3), 0u);
  EXPECT_EQ(logged(), "[error] [encoded_data] Error: Compressed data is too small\n");
  start();
  const uint8_t plain[] = {'a', 'b', 'c', 'd', 'e'};
  EXPECT_EQ(nmb_encoded_stream_decoded_size('G', plain, 5), 0u);
  EXPECT_EQ(nmb_encoded_stream_decoded_size('G', plain, 0), 0u);
  EXPECT_EQ(logged(),
            "[error] [encoded_data] Error: stream is not gzip compressed data\n"
            "[error] [encoded_data] Error: stream is not gzip compressed data\n");
  // Four bytes are enough: the size is the last four, whatever precedes them.
  const uint8_t four[] = {0x1F, 0x8B, 0x10, 0x00};
  EXPECT_EQ(nmb_encoded_stream_decoded_size('G', four, 4), 0x00108B1Fu);
}

TEST_F(PackedPages, UnknownEncodingHasNoSizeAndFailsQuietly) {
  ByteVec payload = payload_of(PackedPage('Z').content(sample_content(100)));
  start();
  EXPECT_EQ(nmb_encoded_payload_decoded_size(payload), 0u);
  uint8_t out[1];
  EXPECT_FALSE(nmb_decode_stream('Z', payload.data(), payload.size(), out, 0));
  EXPECT_EQ(logged(), "");
}

TEST_F(PackedPages, PayloadTooShortForItsSizesIsRefused) {
  ByteVec payload = payload_of(PackedPage('G').content(sample_content(100)));
  payload.pop_back();
  EXPECT_EQ(nmb_encoded_payload_decoded_size(payload), 0u);
  ByteVec tiny = {24, 'G', 0, 0};
  EXPECT_EQ(nmb_encoded_payload_decoded_size(tiny), 0u);
}

TEST_F(PackedPages, GzipFailures) {
  ByteVec content = sample_content(3000);
  // A trailer claiming more than the stream inflates to.
  ByteVec longer = payload_of(PackedPage('G').content(content).gzip_size_field(3001));
  std::vector<uint8_t> out(3001);
  start();
  EXPECT_FALSE(nmb_decode_payload_into_buffer(longer, out.data(), out.size()));
  std::string message = logged();
  EXPECT_EQ(message, "[error] [encoded_data] zlib decompression failed\n");

  // A stream cut short, its size field restored to the right value.
  ByteVec stream = nmb::test::gzip_bytes(content);
  ByteVec cut(stream.begin(), stream.begin() + static_cast<long>(stream.size() / 2));
  cut.insert(cut.end(), stream.end() - 4, stream.end());
  out.assign(content.size(), 0);
  start();
  EXPECT_FALSE(nmb_decode_stream('G', cut.data(), cut.size(), out.data(), out.size()));
  EXPECT_NE(logged().find("[error] [encoded_data] zlib"), std::string::npos);

  // Output area smaller than the data.
  start();
  EXPECT_FALSE(nmb_decode_stream('G', stream.data(), stream.size(), out.data(), 100));
  EXPECT_EQ(logged(), "[error] [encoded_data] zlib decompression failed\n");
}

TEST_F(PackedPages, SnappyFailure) {
  ByteVec payload = payload_of(PackedPage('S').content(sample_content(1000)));
  payload.resize(payload.size() - 10);
  uint8_t* stream_size = payload.data() + NMB_NMBP_STREAM_SIZE_OFFSET;
  nmb_store_u32(stream_size, nmb_load_u32(stream_size) - 10);
  std::vector<uint8_t> out(1000);
  start();
  EXPECT_FALSE(nmb_decode_payload_into_buffer(payload, out.data(), out.size()));
  EXPECT_EQ(logged(), "[error] [encoded_data] snappy decompression failed\n");
}

TEST_F(PackedPages, BufferSizeMustEqualTheDecodedSize) {
  ByteVec payload = payload_of(PackedPage('S').content(sample_content(1000)));
  std::vector<uint8_t> out(1001);
  start();
  EXPECT_FALSE(nmb_decode_payload_into_buffer(payload, out.data(), out.size()));
  EXPECT_EQ(logged(), "[error] invalid buffer size to uncompress nmbp data\n");
}

TEST_F(PackedPages, NewBufferRules) {
  ByteVec payload = payload_of(PackedPage('G').content(sample_content(10)));
  std::vector<uint8_t> out;
  start();
  EXPECT_FALSE(nmb_decode_payload_into_new_buffer(payload, out, nullptr));
  EXPECT_EQ(logged(), "[error] 'uncompressed_size' must be allocated\n");

  // A size field claiming 4 GiB is refused before anything is allocated.
  ByteVec huge =
      payload_of(PackedPage('G').content(sample_content(10)).gzip_size_field(0xFFFFFFFF));
  uint64_t size = 0;
  start();
  EXPECT_FALSE(nmb_decode_payload_into_new_buffer(huge, out, &size));
  EXPECT_EQ(logged(),
            "[error] Failed to allocate data block of size 4294967295: Cannot allocate memory\n");
  EXPECT_EQ(size, 4294967295u);
}

// ---------------------------------------------------------------------------
// Header builders.

nmb_page_identity_t identity(const std::string& id, const std::string& tag) {
  nmb_page_identity_t page;
  std::memcpy(page.source_id, id.data(), std::min<size_t>(id.size(), sizeof page.source_id));
  std::memcpy(page.source_tag, tag.data(), std::min<size_t>(tag.size(), sizeof page.source_tag));
  page.first_timestamp = 1111;
  page.last_timestamp = 2222;
  return page;
}

TEST_F(PackedPages, HeaderCutsLongIdentityToItsLimits) {
  nmb_page_identity_t page = identity(std::string(70, 'i'), std::string(20, 't'));
  EXPECT_EQ(nmb_nmbp_header_size(page), 104u);
  EXPECT_EQ(nmb_nmbp_header_size(std::string(70, 'i').c_str(), std::string(20, 't').c_str()), 104u);
  uint8_t buffer[200] = {};
  ASSERT_EQ(nmb_copy_nmbp_header_into_buffer(page, 'S', 5000, buffer, sizeof buffer), 104u);
  EXPECT_EQ(buffer[0], 104);
  EXPECT_EQ(buffer[1], 'S');
  EXPECT_EQ(nmb_load_u32(buffer + 2), 5000u);
  EXPECT_EQ(nmb_load_u64(buffer + 6), 1111u);
  EXPECT_EQ(nmb_load_u64(buffer + 14), 2222u);
  EXPECT_EQ(buffer[22], 64);
  EXPECT_EQ(buffer[23 + 64], 16);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer + 23 + 65), 16), std::string(16, 't'));
  EXPECT_EQ(buffer[104], 0) << "nothing written past the header";

  nmb_page_identity_t back;
  nmb_nmbp_header_copy_identity(buffer, 104, back);
  EXPECT_EQ(std::string(back.source_id, 64), std::string(64, 'i'));
  EXPECT_EQ(std::string(back.source_tag, 16), std::string(16, 't'));

  // Exactly the header's size is enough; one byte less is not.
  start();
  EXPECT_EQ(nmb_copy_nmbp_header_into_buffer(page, 'S', 1, buffer, 103), 0u);
  EXPECT_EQ(logged(),
            "[error] [nmb_copy_nmbp_header_into_buffer] buffer of 103 bytes is too small to "
            "accommodate NMBP header of 104 bytes\n");
  EXPECT_EQ(nmb_copy_nmbp_header_into_buffer(page, 'S', 1, buffer, 104), 104u);
}

TEST_F(PackedPages, EmptyIdentityGivesTheBaseHeader) {
  nmb_page_identity_t page = identity("", "");
  uint8_t buffer[24];
  ASSERT_EQ(nmb_copy_nmbp_header_into_buffer(page, 'G', 7, buffer, sizeof buffer), 24u);
  EXPECT_EQ(buffer[0], 24);
  EXPECT_EQ(buffer[22], 0);
  EXPECT_EQ(buffer[23], 0);
}

TEST_F(PackedPages, OversizedStreamIsStoredCut) {
  nmb_page_identity_t page = identity("n", "t");
  uint8_t buffer[64];
  start();
  EXPECT_EQ(nmb_copy_nmbp_header_into_buffer(page, 'G', 0x100000005ull, buffer, sizeof buffer),
            26u);
  EXPECT_EQ(logged(),
            "[error] [nmb_copy_nmbp_header_into_buffer] encoded stream size of 4294967301 bytes "
            "is too large\n");
  EXPECT_EQ(nmb_load_u32(buffer + 2), 5u);
}

TEST_F(PackedPages, EmbedKeepsTheFixedPartAndRewritesTheIdentity) {
  ByteVec original =
      PackedPage('S').content(sample_content(10)).source("old", "x").times(5, 6).header();
  uint8_t buffer[128] = {};
  ASSERT_EQ(nmb_embed_nmbp_header_into_buffer(original.data(), "new-source", "tag", buffer,
                                              sizeof buffer),
            37u);
  EXPECT_EQ(buffer[0], 37);
  EXPECT_EQ(0, std::memcmp(buffer + 1, original.data() + 1, 21));
  EXPECT_EQ(buffer[22], 10);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer + 23), 10), "new-source");
  EXPECT_EQ(buffer[33], 3);
  start();
  EXPECT_EQ(nmb_embed_nmbp_header_into_buffer(original.data(), "new-source", "tag", buffer, 36),
            0u);
  EXPECT_EQ(logged(),
            "[error] [nmb_embed_nmbp_header_into_buffer] buffer of 36 bytes is too small to "
            "accommodate NMBP header of 37 bytes\n");
}

TEST_F(PackedPages, PascalStringComparesTheLengthAloneWithTheRoom) {
  uint8_t buffer[8] = {};
  EXPECT_EQ(nmb_copy_as_pascal_string_info_buffer("abcd", 64, buffer, 4), 5u);
  EXPECT_EQ(buffer[0], 4);
  EXPECT_EQ(nmb_copy_as_pascal_string_info_buffer("abcdef", 3, buffer, 4), 4u) << "cut to maximum";
  EXPECT_EQ(nmb_copy_as_pascal_string_info_buffer("", 64, buffer, 0), 1u);
  start();
  EXPECT_EQ(nmb_copy_as_pascal_string_info_buffer("abcde", 64, buffer, 4), 0u);
  EXPECT_EQ(logged(),
            "[error] [nmb_copy_as_pascal_string_info_buffer] buffer of 4 bytes is too small to "
            "accommodate string of 5 bytes\n");
  std::string long_text(300, 'x');
  std::vector<uint8_t> big(300);
  EXPECT_EQ(nmb_copy_as_pascal_string_info_buffer(long_text.c_str(), 1000, big.data(), 299), 256u);
  EXPECT_EQ(big[0], 255);
}

// ---------------------------------------------------------------------------
// Walking the packed pages of a chunk. A recording sink makes the pieces
// visible; a blob stops the walk with the unknown-block message.

class PageWalk : public PackedPages {
 protected:
  nmb_reader_settings_t settings;
  nmb::test::RecordingSink sink;
  nmb_reader_context_t reader;
  void SetUp() override {
    PackedPages::SetUp();
    reader.settings = &settings;
    reader.sink = &sink;
    reader.path = "test.bin";
  }
  bool walk(const ByteVec& chunk) {
    return nmb_reader_process_page_chunk(reader, std::span<const uint8_t>(chunk));
  }
};

ByteVec metrics_content(size_t size) {
  return Bytes().text("NMBX").zeros(size - 4).vec();
}

ByteVec concat(std::initializer_list<ByteVec> parts) {
  ByteVec out;
  for (const ByteVec& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

TEST_F(PageWalk, SeveralPagesOfBothEncodingsInOneChunk) {
  ByteVec chunk = concat({PackedPage('G').content(metrics_content(100)).bytes(),
                          PackedPage('S').content(metrics_content(300)).bytes(),
                          PackedPage('G').content(metrics_content(20)).bytes(), ByteVec(50, 0)});
  EXPECT_TRUE(walk(chunk));
  EXPECT_EQ(sink.count('m'), 3u);
}

TEST_F(PageWalk, EmptyPagesHoldNoBlocks) {
  start();
  EXPECT_TRUE(walk(concat({PackedPage('G').content({}).bytes(), PackedPage('S').content({}).bytes(),
                           PackedPage('G').content(metrics_content(8)).bytes()})));
  EXPECT_EQ(logged(), "");
  EXPECT_EQ(sink.count('m'), 1u);
}

TEST_F(PageWalk, TruncatedOrUntrailedPageEndsTheChunkQuietly) {
  ByteVec good = PackedPage('G').content(metrics_content(64)).bytes();
  ByteVec cut = PackedPage('S').content(metrics_content(64)).bytes();
  cut.pop_back();
  start();
  EXPECT_TRUE(walk(concat({good, cut})));
  EXPECT_EQ(sink.count('m'), 1u);
  EXPECT_TRUE(walk(
      concat({good, PackedPage('G').content(metrics_content(64)).trailer("nmbq").bytes(), good})));
  EXPECT_EQ(sink.count('m'), 2u) << "the page after the bad trailer is not reached";
  // A stream size reaching far past the chunk.
  EXPECT_TRUE(walk(PackedPage('G').content(metrics_content(64)).stream_size(0xFFFFFFFF).bytes()));
  EXPECT_TRUE(walk(Bytes().text("NMBP").u8(255).vec()));
  EXPECT_EQ(sink.count('m'), 2u);
  EXPECT_EQ(logged(), "");
}

TEST_F(PageWalk, CountersPageIsCutAtTheNextCountersMagic) {
  // Three 24-byte pieces: two counters blocks (skipped: no counters schema)
  // and a blob, which fails the page with the compressed-block message.
  ByteVec counters = nmb::test::counters_block(1, Bytes().u64(7).vec());
  ByteVec content = concat({counters, counters, Bytes().text("NMBB").zeros(20).vec()});
  start();
  EXPECT_FALSE(walk(PackedPage('S').content(content).bytes()));
  EXPECT_EQ(
      logged(),
      "[error] Reached unknown block type 3 'in compressed data block'. Magic value 'NMBB'\n");
  // A last piece shorter than the block length is not processed.
  content.resize(60);
  EXPECT_TRUE(walk(PackedPage('S').content(content).bytes()));
}

TEST_F(PageWalk, DecodingFailureFailsTheChunk) {
  ByteVec bad = PackedPage('G').content(metrics_content(64)).stream(ByteVec(40, 0x55)).bytes();
  start();
  EXPECT_FALSE(walk(bad));
  EXPECT_EQ(logged(),
            "[error] [encoded_data] Error: stream is not gzip compressed data\n"
            "[error] [encoded_data] Error: stream is not gzip compressed data\n"
            "[error] [encoded_data] zlib error while decompressing\n");
}

TEST_F(PageWalk, OversizedDecodedPageIsRefused) {
  start();
  EXPECT_FALSE(
      walk(PackedPage('G').content(metrics_content(64)).gzip_size_field(0x40000001).bytes()));
  EXPECT_EQ(logged(),
            "[error] Failed to allocate data block of size 1073741825: Cannot allocate memory\n");
}

// A page claiming a large decoded size whose stream stops early must not cost
// that much memory: the page buffer is not filled ahead of decoding.
TEST_F(PageWalk, LargeClaimedSizeIsNotCommittedAheadOfDecoding) {
  rusage before{};
  getrusage(RUSAGE_SELF, &before);
  start();
  EXPECT_FALSE(
      walk(PackedPage('G').content(metrics_content(64)).gzip_size_field(1u << 30).bytes()));
  EXPECT_EQ(logged(), "[error] [encoded_data] zlib decompression failed\n");
  rusage after{};
  getrusage(RUSAGE_SELF, &after);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 256 * 1024) << "KiB of peak memory added";
}

// The chunk buffer is not filled ahead either: a small file whose header
// announces the largest block size reads without committing that much.
TEST(ChunkLoop, LargeBlockSizeIsNotCommittedAheadOfReading) {
  nmb::test::TempDir dir;
  nmb::test::DataFile file;
  file.block_size(125829119).chunk(
      nmb::test::Chunk().raw(Bytes().text("NMBX").zeros(12).vec()).unpadded());
  std::string path = file.write(dir.file("big_blocks.bin"));
  nmb_reader_settings_t settings;
  nmb::test::RecordingSink sink;
  nmb_reader_context_t reader;
  ASSERT_TRUE(nmb_reader_open(reader, path.c_str(), settings, sink));
  uint8_t header[NMB_FILE_HEADER_SIZE];
  ASSERT_EQ(gzread(reader.file, header, NMB_FILE_HEADER_SIZE), 256);
  reader.header = nmb_file_header_decode(header);
  rusage before{};
  getrusage(RUSAGE_SELF, &before);
  EXPECT_TRUE(nmb_reader_process_chunks(reader));
  EXPECT_EQ(sink.count('m'), 1u);  // the short metrics chunk
  rusage after{};
  getrusage(RUSAGE_SELF, &after);
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 32 * 1024) << "KiB of peak memory added";
}

}  // namespace
