// Metadata files: pattern expansion, indexes and labels, what is skipped and
// with which message, the lookup of counter names, and the file lookup.
#include "filter/metadata.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/data_builder.h"
#include "tests/support/log_capture.h"
#include "utils/log.h"

namespace {

using nmb::test::TempDir;
using nmb::test::write_text_file;

// A metadata document holding the given items.
std::string document(const std::string& items) {
  return R"({"metadata_content":{"counters":{"name_match_labels":[)" + items + "]}}}";
}

nmb_metadata_ptr load(const std::string& items) {
  return nmb_metadata_load_text(document(items), "m.json");
}

// "<pattern>" (exact: "<pattern>$"), then [index=value ...] and {label=value ...}.
std::string describe(const nmb_metadata_t& md, size_t i) {
  const nmb_metadata_entry_t& entry = nmb_metadata_entry(md, i);
  std::string text = '"' + nmb_metadata_entry_pattern(md, entry) + (entry.exact ? "$\"" : "\"");
  auto pairs = [&](const auto& list, char open, char close) {
    text += ' ';
    text += open;
    for (const auto& [name, value] : list) {
      if (text.back() != open) text += ' ';
      text.append(name).append("=").append(value);
    }
    text += close;
  };
  pairs(entry.indexes, '[', ']');
  pairs(entry.labels, '{', '}');
  return text;
}

std::string describe_all(const nmb_metadata_t& md) {
  std::string text;
  for (size_t i = 0; i < nmb_metadata_size(md); ++i) text += describe(md, i) + "\n";
  return text;
}

// The shown name of a counter, with the pattern of the entry found.
std::string shown(const nmb_metadata_t& md, std::string_view name) {
  const nmb_metadata_entry_t* entry = nmb_metadata_find(md, name);
  std::string text(nmb_metadata_shown_name(entry, name));
  if (entry != nullptr) text += " (" + nmb_metadata_entry_pattern(md, *entry) + ")";
  return text;
}

TEST(MetadataExpansion, PlaceholdersTakeTheMatchValues) {
  auto md = load(R"({"pattern":"^port_$MATCH_","index_names":["port"],
                     "matches_and_labels":[{"pattern_match":["1"],"labels":{"type":"eth"}}]},
                    {"pattern":"a$MATCH-$MATCH-$MATCH","matches_and_labels":[
                      {"pattern_match":["x"]},
                      {"pattern_match":[7,"y","z","w"]}]})");
  ASSERT_TRUE(md);
  EXPECT_EQ(describe_all(*md),
            "\"port_1_\" [port=1] {type=eth}\n"
            "\"ax--\" [] {}\n"  // placeholders without a value vanish
            "\"a-y-z\" [] {}\n");
}

TEST(MetadataExpansion, Markers) {
  auto md = load(R"({"pattern":"^dev$","matches_and_labels":[{"pattern_match":[]}]},
                    {"pattern":"^","matches_and_labels":[{"pattern_match":[]}]},
                    {"pattern":"","matches_and_labels":[{"pattern_match":[]}]},
                    {"pattern":"$","matches_and_labels":[{"pattern_match":[]}]},
                    {"pattern":"a^b$c","matches_and_labels":[{"pattern_match":[]}]},
                    {"pattern":"^$MATCH$","matches_and_labels":[{"pattern_match":["v"]}]})");
  ASSERT_TRUE(md);
  EXPECT_EQ(describe_all(*md),
            "\"dev$\" [] {}\n"
            "\"\" [] {}\n"
            "\"\" [] {}\n"
            "\"$\" [] {}\n"
            "\"a^b$c\" [] {}\n"
            "\"v$\" [] {}\n");
}

TEST(MetadataExpansion, IndexNamesAndValues) {
  // Names from the match, else the item; as many as there are values; a
  // string "index_values" element wins over the "pattern_match" value.
  auto md = load(R"({"pattern":"p$MATCH$MATCH","index_names":["i","j","k"],"matches_and_labels":[
                      {"pattern_match":["1","2"]},
                      {"pattern_match":["1","2","3","4"],"index_names":["m",5,"o","p","q"]},
                      {"pattern_match":["1",2,"3"],"index_values":["one",null]},
                      {"pattern_match":["1"],"index_names":"not an array"},
                      {"pattern_match":["1"],"index_names":[]}]},
                    {"pattern":"q","matches_and_labels":[{"pattern_match":["1"]}]})");
  ASSERT_TRUE(md);
  EXPECT_EQ(describe_all(*md),
            "\"p12\" [i=1 j=2] {}\n"
            "\"p12\" [m=1 =2 o=3 p=4] {}\n"
            "\"p1\" [i=one j= k=3] {}\n"
            "\"p1\" [i=1] {}\n"
            "\"p1\" [] {}\n"
            "\"q\" [] {}\n");
}

TEST(MetadataExpansion, LabelsInMemberOrder) {
  auto md = load(R"({"pattern":"x","matches_and_labels":[
                      {"pattern_match":[],"labels":{"z":"1","a":2,"m":"3"}},
                      {"pattern_match":[],"labels":["not","an","object"]}]})");
  ASSERT_TRUE(md);
  EXPECT_EQ(describe_all(*md), "\"x\" [] {z=1 a= m=3}\n\"x\" [] {}\n");
}

TEST(MetadataExpansion, StringsEndAtAZeroByte) {
  auto md = load(R"({"pattern":"ab\u0000cd$MATCH","index_names":["n\u0000x"],
                     "matches_and_labels":[{"pattern_match":["v\u0000w"],
                                            "labels":{"l\u0000m":"o\u0000p"}}]})");
  ASSERT_TRUE(md);
  EXPECT_EQ(describe_all(*md), "\"ab\" [n=v] {l=o}\n");
}

class MetadataLoading : public nmb::test::LoggedTest {};

TEST_F(MetadataLoading, BrokenItemsAndMatchesAreSkipped) {
  nmb_init_stderr_logger(NMB_LOG_INFO);
  start();
  auto md = load(R"({"matches_and_labels":[{"pattern_match":[]}]},
                    "item",
                    {"pattern":5,"matches_and_labels":[{"pattern_match":[]}]},
                    {"pattern":"p","matches_and_labels":[
                      1, {"labels":{}}, {"pattern_match":"x"}, {"pattern_match":["a"]}]},
                    {"pattern":"q","matches_and_labels":{"pattern_match":[]}})");
  EXPECT_EQ(logged(),
            "[warning] metadata: name_match_labels[0] missing 'pattern'; skipping\n"
            "[warning] metadata: name_match_labels[1] missing 'pattern'; skipping\n"
            "[warning] metadata: name_match_labels[2] missing 'pattern'; skipping\n"
            "[info] Loaded metadata with 1 entries from m.json\n");
  ASSERT_TRUE(md);
  EXPECT_EQ(describe_all(*md), "\"p\" [] {}\n");
}

TEST_F(MetadataLoading, NothingWithoutMatchObjects) {
  start();
  EXPECT_FALSE(nmb_metadata_load_text("{", "bad.json"));
  EXPECT_FALSE(nmb_metadata_load_text("", "empty.json"));
  EXPECT_FALSE(nmb_metadata_load_text("[]", "m.json"));
  EXPECT_FALSE(nmb_metadata_load_text(R"({"metadata_content":{"counters":[]}})", "m.json"));
  EXPECT_FALSE(nmb_metadata_load_text(
      R"({"metadata_content":{"counters":{"name_match_labels":{}}}})", "m.json"));
  EXPECT_FALSE(load(""));
  EXPECT_FALSE(load(R"({"pattern":"p","matches_and_labels":[]},{"pattern":"q"})"));
  EXPECT_EQ(logged(),
            "[error] Failed to parse metadata JSON bad.json\n"
            "[error] Failed to parse metadata JSON empty.json\n");
}

TEST_F(MetadataLoading, MatchObjectsWithoutEntriesStillMakeATable) {
  // Match objects are counted over all items, patterns or not.
  auto md = load(R"({"matches_and_labels":[{"pattern_match":[]}]})");
  ASSERT_TRUE(md);
  EXPECT_EQ(nmb_metadata_size(*md), 0u);
}

TEST(MetadataLookup, ExactThenLongestPrefix) {
  auto md = load(R"({"pattern":"dev_","matches_and_labels":[{"pattern_match":[]}]},
                    {"pattern":"dev_$MATCH_","matches_and_labels":[{"pattern_match":["1"]}]},
                    {"pattern":"^dev_1_x$","matches_and_labels":[{"pattern_match":[]}]},
                    {"pattern":"^","matches_and_labels":[{"pattern_match":[]}]})");
  ASSERT_TRUE(md);
  EXPECT_EQ(shown(*md, "dev_1_y"), "y (dev_1_)");
  EXPECT_EQ(shown(*md, "dev_2_y"), "2_y (dev_)");
  EXPECT_EQ(shown(*md, "dev_1_x"), "dev_1_x (dev_1_x)") << "an exact entry wins, found later";
  EXPECT_EQ(shown(*md, "dev_1_"), "dev_1_ (dev_1_)") << "nothing would remain";
  EXPECT_EQ(shown(*md, "dev_1_xy"), "xy (dev_1_)") << "an exact entry matches the whole name";
  EXPECT_EQ(shown(*md, "other"), "other") << "an empty prefix matches nothing";
  EXPECT_EQ(shown(*md, ""), "");
}

TEST(MetadataLookup, FirstOfEquallyLongPrefixes) {
  auto md = load(R"({"pattern":"ab$MATCH","matches_and_labels":[
                      {"pattern_match":["c"],"labels":{"n":"1"}},
                      {"pattern_match":["c"],"labels":{"n":"2"}}]},
                    {"pattern":"^abc$","matches_and_labels":[
                      {"pattern_match":[],"labels":{"n":"3"}},
                      {"pattern_match":[],"labels":{"n":"4"}}]})");
  ASSERT_TRUE(md);
  EXPECT_EQ(nmb_metadata_find(*md, "abcd")->labels[0].value, "1");
  EXPECT_EQ(nmb_metadata_find(*md, "abc")->labels[0].value, "3");
}

TEST(MetadataLookup, LongPatternsWithManyMatchesLoadInLinearTime) {
  // 100,000 matches of a 100,000-byte pattern: ten gigabytes of expanded
  // patterns, which are never built.
  const std::string literal(100000, 'x');
  std::string matches = R"({"pattern_match":["a"]})";
  for (int i = 1; i < 100000; ++i) matches += R"(,{"pattern_match":["b"]})";
  auto md =
      load(R"({"pattern":"$MATCH)" + literal + R"(","matches_and_labels":[)" + matches + "]}");
  ASSERT_TRUE(md);
  EXPECT_EQ(nmb_metadata_size(*md), 100000u);
  const std::string name = "b" + literal + "_rx";
  EXPECT_EQ(nmb_metadata_shown_name(nmb_metadata_find(*md, name), name), "_rx");
  EXPECT_EQ(nmb_metadata_find(*md, "a" + literal.substr(1)), nullptr);
}

class MetadataFiles : public nmb::test::LoggedTest {
 protected:
  void write(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(dir_.file(path)).parent_path());
    write_text_file(dir_.file(path), text);
  }
  void put(const std::string& path, const std::string& pattern) {
    write(path, document(R"({"pattern":")" + pattern +
                         R"(","matches_and_labels":[{"pattern_match":[]}]})"));
  }
  // The pattern of the first entry of the metadata found for the id "0a".
  std::string found(const std::string& schema_path) {
    auto md = nmb_metadata_locate(schema_path, "0a");
    return md ? nmb_metadata_entry_pattern(*md, nmb_metadata_entry(*md, 0)) : "none";
  }
  TempDir dir_;
};

TEST_F(MetadataFiles, BesideTheSchemaFolderThenInItThenFirstByName) {
  const std::string schema = dir_.file("schema");
  put("schema/metadata_zz.json", "zz");
  put("schema/metadata_b.json", "b");
  put("schema/metadata_.json", "too short");
  put("schema/xmetadata_a.json", "not metadata");
  EXPECT_EQ(found(schema), "b");
  put("schema/metadata_0a.json", "in");
  EXPECT_EQ(found(schema + "//"), "in");
  put("metadata/metadata_0a.json", "beside");
  EXPECT_EQ(found(schema + "//"), "beside");
}

TEST_F(MetadataFiles, OnlyTheFirstFileByNameIsTried) {
  write("schema/metadata_a.json", "{}");
  put("schema/metadata_b.json", "b");
  EXPECT_EQ(found(dir_.file("schema")), "none");
}

TEST_F(MetadataFiles, MissingFilesAreNoError) {
  nmb_init_stderr_logger(NMB_LOG_DEBUG);
  const std::string schema = dir_.file("schema");
  std::filesystem::create_directories(schema);
  start();
  EXPECT_EQ(found(schema), "none");
  EXPECT_EQ(found(dir_.file("nowhere")), "none");
  EXPECT_EQ(logged(), "[debug] Loading metadata from " + dir_.file("metadata/metadata_0a.json") +
                          "\n[debug] Loading metadata from " + schema +
                          "/metadata_0a.json\n[debug] No metadata JSON found in " + schema +
                          "\n[debug] Loading metadata from " +
                          dir_.file("metadata/metadata_0a.json") +
                          "\n[debug] Loading metadata from " + dir_.file("nowhere") +
                          "/metadata_0a.json\n[debug] No metadata JSON found in " +
                          dir_.file("nowhere") + "\n");
}

}  // namespace
