// The run over several files with and without -S: the orders, their
// messages, and a header that cannot be read.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/e2e/reader_fixture.h"

namespace {

using namespace nmb::test;

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

}  // namespace
