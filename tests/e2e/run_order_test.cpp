// The run over several input files with -S: the debug lists of the order
// before and after sorting, and the header texts the keys are taken from.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;

class RunOrder : public E2ETest {
 protected:
  void SetUp() override { std::filesystem::create_directories(schema_dir_); }

  // The log lines of the sort lists, in order.
  static std::string sort_lines(const std::string& err) {
    std::istringstream in(err);
    std::string line, out;
    while (std::getline(in, line)) {
      if (line.find(" sort: ") != std::string::npos) out += line + "\n";
    }
    return out;
  }
};

TEST_F(RunOrder, DebugListsShowTheOrderBeforeAndAfterSorting) {
  std::string c = DataFile().source("s1", "t3").times(200, 201).write(dir_.file("c.bin"));
  std::string a = DataFile().source("s2", "t1").times(100, 101).write(dir_.file("a.bin"));
  auto result = run({"-v", "7", "-Sfirst_timestamp", "-f", "ndjson", c, a});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(
      sort_lines(result.err),
      "[debug] before sort: " + c + " \u2192 source_id = s1 | source_tag = t3 | ts = 200\n" +
          "[debug] before sort: " + a + " \u2192 source_id = s2 | source_tag = t1 | ts = 100\n" +
          "[debug] after sort:  " + a + " \u2192 source_id = s2 | source_tag = t1 | ts = 100\n" +
          "[debug] after sort:  " + c + " \u2192 source_id = s1 | source_tag = t3 | ts = 200\n");

  // At the default verbosity the lists are not written.
  result = run({"-Sfirst_timestamp", "-f", "ndjson", c, a});
  EXPECT_EQ(result.err, "");
}

TEST_F(RunOrder, KeysAreTheHeaderTextsCutToTheirFields) {
  // Source id and tag that fill their header fields without a terminating zero.
  const std::string long_id(64, 'i');
  const std::string long_tag(16, 't');
  std::string f = DataFile().source(long_id, long_tag).times(5, 6).write(dir_.file("f.bin"));
  auto result = run({"-v", "7", "-S", "-f", "ndjson", f});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(sort_lines(result.err),
            "[debug] before sort: " + f + " \u2192 source_id = " + long_id.substr(0, 63) +
                " | source_tag = " + long_tag.substr(0, 15) + " | ts = 5\n" +
                "[debug] after sort:  " + f + " \u2192 source_id = " + long_id.substr(0, 63) +
                " | source_tag = " + long_tag.substr(0, 15) + " | ts = 5\n");
}

TEST_F(RunOrder, SortingNoFilesStillClosesTheEnvelope) {
  auto result = run({"-S"});
  EXPECT_EQ(result.out, "{}");
  EXPECT_EQ(result.err,
            "No input files specified\n[info] Sort order not specified. Using default.\n");
  EXPECT_EQ(result.status, 0);
}

}  // namespace
