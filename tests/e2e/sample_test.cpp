// The sample data set of the demo: make_sample writes it, nmb_read exports all
// of it without a message.
#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "tests/support/data_builder.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;

TEST(SampleData, ExportsCleanlyInBothJsonForms) {
  TempDir dir;
  auto made = run_binary(NMB_MAKE_SAMPLE_BINARY, {dir.path()});
  ASSERT_EQ(made.status, 0) << made.err;
  std::vector<std::string> files;
  for (const char* name : {"counters", "events", "packed_gzip", "packed_snappy", "metrics"})
    files.push_back(dir.file(std::string(name) + ".bin"));

  std::vector<std::string> args = {"-s", dir.file("schema"), "-f", "ndjson"};
  args.insert(args.end(), files.begin(), files.end());
  auto ndjson = run_binary(NMB_READ_BINARY, args);
  EXPECT_EQ(ndjson.status, 0);
  EXPECT_EQ(ndjson.err, "");
  std::istringstream lines(ndjson.out);
  std::string line;
  size_t count = 0;
  while (std::getline(lines, line)) {
    EXPECT_TRUE(nlohmann::json::accept(line)) << line;
    ++count;
  }
  // 3 counters blocks, 8 events, 4 counters blocks in gzip pages, 8 events in
  // snappy pages, 3 metrics blocks.
  EXPECT_EQ(count, 26u);

  args[3] = "json";
  auto json = run_binary(NMB_READ_BINARY, args);
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(json.err, "");
  ASSERT_TRUE(nlohmann::json::accept(json.out)) << json.out;
  auto doc = nlohmann::json::parse(json.out);
  EXPECT_EQ(doc["counters"].size(), 3u);
  EXPECT_EQ(doc["events"].size(), 8u);
  EXPECT_EQ(doc["packed_gzip"].size(), 4u);
  EXPECT_EQ(doc["packed_snappy"].size(), 8u);
  EXPECT_EQ(doc["metrics"].size(), 3u);
  // The packed files hold the same samples as the plain ones.
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(doc["packed_gzip"][i], doc["counters"][i]);
  EXPECT_EQ(doc["packed_snappy"], doc["events"]);
}

}  // namespace
