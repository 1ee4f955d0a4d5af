// Build, read, compare: randomly laid out files (block sizes, plain chunks,
// gzip and snappy pages, whole-file gzip, a short last chunk) must export
// exactly the counter values they were built from.
#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;

constexpr uint64_t kT0 = 1700000000000000;

struct Sample {
  uint64_t timestamp;
  std::vector<uint64_t> raw;  // one 8-byte pattern per counter
};

class RoundTrip {
 public:
  explicit RoundTrip(uint64_t seed) : rng_(seed) {}

  uint64_t below(uint64_t n) { return std::uniform_int_distribution<uint64_t>(0, n - 1)(rng_); }

  // A value pattern for the data type, exactly representable as a JSON number.
  uint64_t value(const std::string& type) {
    uint64_t bits;
    if (type == "FP64") {
      double d =
          static_cast<double>(static_cast<int64_t>(below(uint64_t{1} << 41)) - (int64_t{1} << 40)) /
          static_cast<double>(uint64_t{1} << below(11));
      std::memcpy(&bits, &d, 8);
    } else if (type == "INT64") {
      bits = static_cast<uint64_t>(static_cast<int64_t>(below(uint64_t{1} << 53)) -
                                   (int64_t{1} << 52));
    } else {
      bits = below(uint64_t{1} << 53);
    }
    // Inside a packed page a 4-byte word ending in 'D' would read as the start
    // of the next counters block; keep such words out of the value area.
    for (int byte : {3, 7})
      if (((bits >> (8 * byte)) & 0xff) == 'D') bits ^= uint64_t{1} << (8 * byte);
    return bits;
  }

  std::mt19937_64 rng_;
};

nlohmann::json expected_value(const std::string& type, uint64_t bits) {
  if (type == "FP64") {
    double d;
    std::memcpy(&d, &bits, 8);
    return d;
  }
  if (type == "INT64") return static_cast<int64_t>(bits);
  return bits;
}

TEST(ReaderRoundTrip, RandomLayoutsExportTheValuesTheyWereBuiltFrom) {
  TempDir dir;
  const char* kTypes[] = {"UINT64", "INT64", "FP64"};
  size_t total_records = 0;
  for (uint64_t seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RoundTrip r(seed);
    std::string schema_dir = dir.file("schema" + std::to_string(seed));
    size_t num_counters = 1 + r.below(24);
    CounterGroup group("g");
    std::vector<std::string> types;
    for (size_t i = 0; i < num_counters; ++i) {
      types.push_back(kTypes[r.below(3)]);
      group.counter("c" + std::to_string(i), types.back());
    }
    SchemaId id = write_schema_file(schema_dir, CountersSchema().group(group));
    const size_t block_length = 16 + 8 * num_counters;

    std::vector<Sample> samples;
    auto next_block = [&](size_t piece) {
      Sample s{kT0 + samples.size(), {}};
      Bytes values;
      for (const std::string& type : types) {
        s.raw.push_back(r.value(type));
        values.u64(s.raw.back());
      }
      samples.push_back(s);
      return Chunk().counters(s.timestamp, values).bytes(piece);
    };

    std::vector<Chunk> chunks;
    size_t needed = block_length;
    size_t num_chunks = 1 + r.below(6);
    for (size_t c = 0; c < num_chunks; ++c) {
      if (r.below(2) == 0) {
        chunks.push_back(Chunk().raw(next_block(0)));
        continue;
      }
      Chunk chunk;
      size_t pages = 1 + r.below(3);
      for (size_t p = 0; p < pages; ++p) {
        size_t piece = block_length + 4 * r.below(8);
        ByteVec content;
        for (size_t b = 0, n = 1 + r.below(4); b < n; ++b) {
          ByteVec block = next_block(piece);
          content.insert(content.end(), block.begin(), block.end());
        }
        chunk.page(PackedPage(r.below(2) ? 'G' : 'S').content(content).source("rt", "page"));
      }
      needed = std::max(needed, chunk.content().size());
      chunks.push_back(chunk);
    }
    DataFile file;
    file.block_size(static_cast<uint32_t>(needed + r.below(64))).counters_schema(id);
    for (size_t c = 0; c < chunks.size(); ++c) {
      if (c + 1 == chunks.size() && r.below(2)) chunks[c].unpadded();
      file.chunk(chunks[c]);
    }
    file.gzipped(r.below(3) == 0);
    std::string path = file.write(dir.file("rt" + std::to_string(seed) + ".bin"));

    RunResult result = run_binary(NMB_READ_BINARY, {"-s", schema_dir, "-f", "ndjson", path});
    ASSERT_EQ(result.status, 0) << result.err;
    // A short last chunk is warned about; nothing else may be said.
    if (result.err.find(" is truncated: ") == std::string::npos) {
      EXPECT_EQ(result.err, "");
    }
    std::istringstream lines(result.out);
    std::string line;
    size_t n = 0;
    while (std::getline(lines, line)) {
      ASSERT_LT(n, samples.size()) << line;
      auto record = nlohmann::json::parse(line);
      EXPECT_EQ(record["timestamp"], samples[n].timestamp);
      const auto& values = record["groups"][0]["counter_sets"][0];
      for (size_t i = 0; i < num_counters; ++i)
        EXPECT_EQ(values["c" + std::to_string(i)], expected_value(types[i], samples[n].raw[i]))
            << "record " << n << " counter c" << i << " " << types[i];
      ++n;
    }
    EXPECT_EQ(n, samples.size());
    total_records += n;
  }
  EXPECT_GT(total_records, 50u);
}

}  // namespace
