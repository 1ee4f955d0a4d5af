#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/run.h"
#include "tests/support/log_capture.h"
#include "tests/support/run_binary.h"
#include "utils/log.h"

namespace {

class SortOrder : public testing::Test {
 protected:
  void SetUp() override { nmb_init_stderr_logger(NMB_LOG_DEBUG); }
  void TearDown() override { nmb_logger_reset_for_tests(); }

  // The parsed keys, or nothing when parsing fails; what was logged goes to `log`.
  std::vector<int> parse(const char* text, bool* ok = nullptr) {
    nmb_sort_order_t order;
    nmb::test::capture_stderr();
    bool parsed = nmb_parse_sort_order(text, order);
    log = nmb::test::captured_log();
    if (ok != nullptr) *ok = parsed;
    if (!parsed) return {};
    return std::vector<int>(order.keys, order.keys + order.count);
  }
  std::string log;
};

TEST_F(SortOrder, DefaultIsTimestampThenIdThenTag) {
  nmb_sort_order_t order;
  EXPECT_EQ(order.count, 3u);
  EXPECT_EQ(order.keys[0], NMB_SORT_KEY_FIRST_TIMESTAMP);
  EXPECT_EQ(order.keys[1], NMB_SORT_KEY_SOURCE_ID);
  EXPECT_EQ(order.keys[2], NMB_SORT_KEY_SOURCE_TAG);
}

TEST_F(SortOrder, SingleKeys) {
  EXPECT_EQ(parse("first_timestamp"), std::vector<int>{NMB_SORT_KEY_FIRST_TIMESTAMP});
  EXPECT_EQ(parse("source_id"), std::vector<int>{NMB_SORT_KEY_SOURCE_ID});
  EXPECT_EQ(parse("source_tag"), std::vector<int>{NMB_SORT_KEY_SOURCE_TAG});
  EXPECT_EQ(log, "");
}

TEST_F(SortOrder, TokensAreTrimmedAndEmptyOnesDropped) {
  EXPECT_EQ(parse(",source_tag,, "), std::vector<int>{NMB_SORT_KEY_SOURCE_TAG});
  EXPECT_EQ(parse(" \tsource_id\n,\r\f\vfirst_timestamp "),
            (std::vector<int>{NMB_SORT_KEY_SOURCE_ID, NMB_SORT_KEY_FIRST_TIMESTAMP}));
  // The same key may repeat.
  EXPECT_EQ(parse("source_id,source_id"),
            (std::vector<int>{NMB_SORT_KEY_SOURCE_ID, NMB_SORT_KEY_SOURCE_ID}));
}

TEST_F(SortOrder, NothingLeftFailsWithoutAMessage) {
  bool ok = true;
  parse("", &ok);
  EXPECT_FALSE(ok);
  parse(" , ,\t,", &ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(log, "");
}

TEST_F(SortOrder, UnknownKeyFails) {
  bool ok = true;
  parse("foo", &ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(log, "[error] [sort] Unknown sort key: 'foo'\n");
  parse("source_id, Source_Tag ", &ok);
  EXPECT_FALSE(ok) << "keys are case-sensitive";
  EXPECT_EQ(log, "[error] [sort] Unknown sort key: 'Source_Tag'\n");
}

TEST_F(SortOrder, TokensAfterTheThirdKeyAreNotLookedAt) {
  EXPECT_EQ(parse("source_id,source_tag,first_timestamp,bogus"),
            (std::vector<int>{NMB_SORT_KEY_SOURCE_ID, NMB_SORT_KEY_SOURCE_TAG,
                              NMB_SORT_KEY_FIRST_TIMESTAMP}));
  EXPECT_EQ(log, "");
  EXPECT_EQ(parse("source_tag,,source_tag, ,source_tag,x,y").size(), 3u);
}

}  // namespace
