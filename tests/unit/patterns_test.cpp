#include "filter/patterns.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace {

TEST(Patterns, WildcardIgnoresCaseAndAcceptsDottedContinuations) {
  const nmb_string_array_t port{"port"};
  EXPECT_TRUE(nmb_string_array_match("port", port, NMB_MATCH_WILDCARD));
  EXPECT_TRUE(nmb_string_array_match("port.rx", port, NMB_MATCH_WILDCARD));
  EXPECT_FALSE(nmb_string_array_match("portrx", port, NMB_MATCH_WILDCARD));
  EXPECT_TRUE(nmb_string_array_match("PORT", port, NMB_MATCH_WILDCARD));
  EXPECT_TRUE(nmb_string_array_match("portrx", {"port*"}, NMB_MATCH_WILDCARD));
  EXPECT_TRUE(nmb_string_array_match("a/b", {"a?b"}, NMB_MATCH_WILDCARD)) << "slash is ordinary";
  EXPECT_TRUE(nmb_string_array_match(".hidden", {"*"}, NMB_MATCH_WILDCARD));
  EXPECT_TRUE(nmb_string_array_match("a*", {"a\\*"}, NMB_MATCH_WILDCARD));
  EXPECT_FALSE(nmb_string_array_match("ab", {"a\\*"}, NMB_MATCH_WILDCARD));
  EXPECT_TRUE(nmb_string_array_match("p1", {"p[0-9]"}, NMB_MATCH_WILDCARD));
}

TEST(Patterns, OtherModes) {
  EXPECT_TRUE(nmb_string_array_match("abc", {"x", "abc"}, NMB_MATCH_EXACT));
  EXPECT_FALSE(nmb_string_array_match("ABC", {"abc"}, NMB_MATCH_EXACT));
  EXPECT_TRUE(nmb_string_array_match("xabcx", {"abc"}, NMB_MATCH_CONTAINS));
  EXPECT_FALSE(nmb_string_array_match("xABCx", {"abc"}, NMB_MATCH_CONTAINS));
  EXPECT_FALSE(nmb_string_array_match("abc", {"abc", "*"}, NMB_MATCH_REGEXP));
  EXPECT_FALSE(nmb_string_array_match("abc", {}, NMB_MATCH_WILDCARD));
  EXPECT_STREQ(nmb_match_mode_name(NMB_MATCH_CONTAINS), "contains");
  EXPECT_EQ(nmb_match_mode_name(4), nullptr);
}

TEST(Patterns, TypeSelection) {
  EXPECT_TRUE(nmb_type_name_is_selected("port", {"*"}, {}));
  EXPECT_FALSE(nmb_type_name_is_selected("port", {"*"}, {"port"}));
  EXPECT_FALSE(nmb_type_name_is_selected("port", {"port"}, {"*"}));
}

TEST(StringArray, SortedDuplicateRemoval) {
  nmb_string_array_t array{"a", "a", "b", "b", "b", "c"};
  EXPECT_TRUE(nmb_string_array_remove_duplicates(array, true));
  EXPECT_EQ(array, (nmb_string_array_t{"a", "b", "c"}));
  nmb::test::capture_stderr();
  EXPECT_FALSE(nmb_string_array_remove_duplicates(array, false));
  nmb::test::captured_stderr();
}

TEST(StringArray, ListFileSkipsCommentsAndBlankLines) {
  auto path = std::filesystem::temp_directory_path() / "nmb_list_test.txt";
  std::ofstream(path) << "  one \n\n# comment\n\ttwo\n   \n";
  nmb_string_array_t array;
  EXPECT_TRUE(nmb_string_array_load_file(array, path.c_str(), nullptr));
  EXPECT_EQ(array, (nmb_string_array_t{"one", "two"}));
  std::filesystem::remove(path);
  EXPECT_FALSE(nmb_string_array_load_file(array, "/nonexistent/list", nullptr));
}

}  // namespace
