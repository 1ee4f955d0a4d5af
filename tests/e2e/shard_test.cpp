// --shard K/N: slices of the input files that, written one after the other,
// are one run's output; how the files are cut, and what is refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"

namespace {

using namespace nmb::test;

constexpr uint64_t kT0 = 1700000000000000;

class ShardE2E : public E2ETest {
 protected:
  // Files of 1, 3, 1, 1 and 2 chunks (with a bad one among them).
  std::vector<std::string> files() {
    CounterGroup g("g");
    g.counter("a").counter("b");
    const SchemaId id = write_schema_file(schema_dir_, CountersSchema().group(g));
    std::vector<std::string> paths;
    int n = 0;
    for (int chunks : {1, 3, 1, 1, 2}) {
      DataFile file;
      file.block_size(512).source("node" + std::to_string(n), "t").counters_schema(id);
      for (int c = 0; c < chunks; ++c)
        file.chunk(Chunk().counters(kT0 + n * 100 + c, Bytes().u64(n).u64(c).vec()));
      paths.push_back(file.write(dir_.file("f" + std::to_string(n++) + ".bin")));
    }
    paths.insert(paths.begin() + 2, DataFile().truncate(100).write(dir_.file("cut.bin")));
    return paths;
  }
};

TEST_F(ShardE2E, SlicesWrittenInOrderAreOneRun) {
  const std::vector<std::string> paths = files();
  for (const char* format : {"ndjson", "txt", "influx", "csv"}) {
    std::vector<std::string> args{"-f", format};
    args.insert(args.end(), paths.begin(), paths.end());
    const RunResult whole = run(args);
    for (int n : {1, 2, 3, 7}) {
      std::string joined;
      int status = 0;
      for (int k = 0; k < n; ++k) {
        std::vector<std::string> slice = args;
        slice.insert(slice.begin(), {"--shard", std::to_string(k) + "/" + std::to_string(n)});
        const RunResult part = run(slice);
        joined += part.out;
        status = std::max(status, part.status);
      }
      EXPECT_EQ(joined, whole.out) << format << " in " << n;
      EXPECT_EQ(status, whole.status) << format << " in " << n;
    }
  }
}

TEST_F(ShardE2E, SlicesHoldAboutTheSameBytes) {
  const std::vector<std::string> paths = files();
  // 256-byte headers and 512-byte chunks: 768, 1792, 100, 768, 768, 1280
  // bytes; two slices cut at the middle of 5476 bytes.
  std::vector<std::string> args{"-f", "ndjson", "-v", "3", "--shard", "0/2"};
  args.insert(args.end(), paths.begin(), paths.end());
  auto lines = [&] {
    const std::string out = run(args).out;
    return std::count(out.begin(), out.end(), '\n');
  };
  EXPECT_EQ(lines(), 4);
  args[5] = "1/2";
  EXPECT_EQ(lines(), 4);
}

TEST_F(ShardE2E, BadSlicesAndFormatsThatCannotBeSlicedAreOptionErrors) {
  std::filesystem::create_directories(schema_dir_);
  for (const char* shard : {"2/2", "1", "-1/2", "0/0", "a/b", "1/2x"}) {
    const RunResult r = run({"--shard", shard, "x.bin"});
    EXPECT_EQ(r.status, 1) << shard;
    EXPECT_NE(
        r.err.find(std::string("Shard is K/N with 0 <= K < N <= 1000000, ") + shard + " is given."),
        std::string::npos)
        << shard;
  }
  const RunResult bin = run({"--shard", "0/2", "-f", "bin", "-o", dir_.path(), "x.bin"});
  EXPECT_EQ(bin.status, 1);
  EXPECT_NE(bin.err.find("--shard cannot be used with -f bin"), std::string::npos);
  // An empty slice writes what a run over no file writes.
  const RunResult empty =
      run({"--shard", "3/4", "-f", "ndjson", DataFile().write(dir_.file("a.bin"))});
  EXPECT_EQ(empty.status, 0);
  EXPECT_EQ(empty.out, "");
}

}  // namespace
