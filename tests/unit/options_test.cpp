#include "app/options.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Parsed {
  bool ok = false;
  bool exit_now = false;
  nmb_read_options_t options;
  std::string err;
};

Parsed parse(std::initializer_list<const char*> words) {
  std::vector<std::string> storage{"nmb_read"};
  storage.insert(storage.end(), words.begin(), words.end());
  std::vector<char*> argv;
  for (auto& s : storage) argv.push_back(s.data());
  argv.push_back(nullptr);
  Parsed parsed;
  nmb::test::capture_stderr();
  parsed.ok = nmb_read_parse_options(static_cast<int>(storage.size()), argv.data(), parsed.options,
                                     parsed.exit_now);
  parsed.err = nmb::test::captured_stderr();
  return parsed;
}

TEST(Options, VerbosityAcceptsAnyBaseUpToSeven) {
  EXPECT_EQ(parse({"-v", "0x7"}).options.verbosity, 7u);
  EXPECT_EQ(parse({"-v", "07"}).options.verbosity, 7u);
  EXPECT_EQ(parse({"-v", "0"}).options.verbosity, 0u);
  EXPECT_FALSE(parse({"-v", "8"}).ok);
  EXPECT_FALSE(parse({"-v", "-1"}).ok);
  EXPECT_FALSE(parse({"-v", "3x"}).ok);
  EXPECT_FALSE(parse({"-v", "0x"}).ok);
  // Only a range error or trailing text refuses: an empty text reads as 0.
  EXPECT_EQ(parse({"-v", ""}).options.verbosity, 0u);
  EXPECT_TRUE(parse({"-v", ""}).ok);
}

TEST(Options, TimestampsAreWholeNumbers) {
  EXPECT_EQ(parse({"-g", "0x10"}).options.timestamp_gt, 16u);
  EXPECT_EQ(parse({"-l", "010"}).options.timestamp_lt, 8u);
  EXPECT_FALSE(parse({"-g", "10s"}).ok);
  EXPECT_FALSE(parse({"-l", "99999999999999999999999"}).ok);
  EXPECT_EQ(parse({"-l", ""}).options.timestamp_lt, 0u);
  EXPECT_EQ(parse({"-g", "-1"}).options.timestamp_gt, UINT64_MAX)
      << "wraps, as the C conversion does";
  Parsed defaults = parse({});
  EXPECT_EQ(defaults.options.timestamp_gt, 0u);
  EXPECT_EQ(defaults.options.timestamp_lt, UINT64_MAX);
}

TEST(Options, SortOrderIsOnlyTakenWhenAttached) {
  Parsed attached = parse({"-Sfirst_timestamp"});
  EXPECT_TRUE(attached.options.sort_files);
  EXPECT_EQ(attached.options.sort_order, "first_timestamp");
  Parsed long_form = parse({"--sort-files=source_tag"});
  EXPECT_EQ(long_form.options.sort_order, "source_tag");
  Parsed separate = parse({"-S", "source_id"});
  EXPECT_TRUE(separate.options.sort_files);
  EXPECT_EQ(separate.options.sort_order, "");
  ASSERT_EQ(separate.options.files.size(), 1u);
  EXPECT_EQ(separate.options.files[0], "source_id");
}

TEST(Options, IncludeDefaultsToEverything) {
  EXPECT_EQ(parse({}).options.include, (nmb_string_array_t{"*"}));
  EXPECT_EQ(parse({"-i", "a", "-i", "b"}).options.include, (nmb_string_array_t{"a", "b"}));
  EXPECT_EQ(parse({"-e", "x"}).options.exclude, (nmb_string_array_t{"x"}));
}

TEST(Options, FormatIsTakenByName) {
  EXPECT_EQ(parse({"-f", "influx"}).options.format, NMB_FORMAT_INFLUX);
  EXPECT_EQ(parse({"-f", "openmetrics"}).options.format, NMB_FORMAT_OPENMETRICS);
  EXPECT_FALSE(parse({"-f", "xml"}).ok);
}

TEST(Options, EmptyFilterFileIsUnset) {
  EXPECT_TRUE(parse({"-C", "", "-F", ""}).ok);
  EXPECT_FALSE(parse({"-C", "/nonexistent/cset"}).ok);
  EXPECT_FALSE(parse({"-F", "/nonexistent/fset"}).ok);
}

class SchemaSearch : public testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::temp_directory_path() / ("nmb_schema_search_" + std::to_string(getpid()));
    fs::create_directories(root_ / "a" / "b" / "c");
    previous_ = fs::current_path();
    fs::current_path(root_);
  }
  void TearDown() override {
    fs::current_path(previous_);
    fs::remove_all(root_);
  }
  fs::path root_;
  fs::path previous_;
};

TEST_F(SchemaSearch, FindsTheNearestFolderUpwards) {
  fs::create_directories(root_ / "a" / "schema");
  EXPECT_EQ(nmb_find_schema_folder("a/b/c/f.bin", "schema", 5), "a/schema");
  fs::create_directories(root_ / "a" / "b" / "c" / "schema");
  EXPECT_EQ(nmb_find_schema_folder("a/b/c/f.bin", "schema", 5), "a/b/c/schema");
  std::string absolute = (root_ / "a" / "b" / "f.bin").string();
  EXPECT_EQ(nmb_find_schema_folder(absolute.c_str(), "schema", 5),
            (root_ / "a" / "schema").string());
}

TEST_F(SchemaSearch, RelativePathsEndAtTheCurrentFolder) {
  EXPECT_EQ(nmb_find_schema_folder("a/b/c/f.bin", "schema", 5), "");
  fs::create_directories(root_ / "schema");
  // a/b/c, a/b, a, then "." twice: the current folder is the fourth try.
  EXPECT_EQ(nmb_find_schema_folder("a/b/c/f.bin", "schema", 5), "./schema");
  EXPECT_EQ(nmb_find_schema_folder("a/b/c/f.bin", "schema", 3), "");
}

TEST_F(SchemaSearch, TheRootIsNeverTried) {
  // /x/f.bin: only /x/schema is tried before the directory part becomes "/".
  EXPECT_EQ(nmb_find_schema_folder("/nonexistent_nmb_dir/f.bin", "schema", 5), "");
}

TEST_F(SchemaSearch, CompletionReplacesAMissingSchemaPath) {
  fs::create_directories(root_ / "a" / "schema");
  Parsed parsed = parse({"-s", "missing", "a/b/c/f.bin"});
  EXPECT_TRUE(parsed.ok);
  EXPECT_EQ(parsed.options.schema_path, "a/schema");
  EXPECT_FALSE(parse({"-s", "missing", "c/f.bin"}).ok);
  EXPECT_TRUE(parse({"-s", "missing"}).ok) << "no input files: a missing folder is no error";
}

TEST_F(SchemaSearch, DataDirectoryFilesFollowPositionalOnes) {
  fs::create_directories(root_ / "d" / "sub");
  std::fclose(std::fopen((root_ / "d" / "one.bin").c_str(), "w"));
  std::fclose(std::fopen((root_ / "d" / "sub" / "two").c_str(), "w"));
  Parsed parsed = parse({"-s", ".", "-d", "d", "first.bin"});
  ASSERT_TRUE(parsed.ok);
  ASSERT_EQ(parsed.options.files.size(), 3u);
  EXPECT_EQ(parsed.options.files[0], "first.bin");
  std::vector<std::string> rest(parsed.options.files.begin() + 1, parsed.options.files.end());
  std::sort(rest.begin(), rest.end());
  EXPECT_EQ(rest, (std::vector<std::string>{"d/one.bin", "d/sub/two"}));
  EXPECT_FALSE(parse({"-d", "no_such_dir"}).ok);
}

TEST_F(SchemaSearch, EmptyDataDirectoryIsAFolderThatCannotBeOpened) {
  Parsed parsed = parse({"-s", ".", "-d", ""});
  EXPECT_FALSE(parsed.ok);
  EXPECT_EQ(parsed.err, "Failed to open directory '': No such file or directory\n");
}

TEST_F(SchemaSearch, UnreadableEntryFailsTheWholeWalk) {
  fs::create_directories(root_ / "d" / "sub");
  fs::create_symlink(root_ / "nowhere", root_ / "d" / "sub" / "dangling");
  Parsed parsed = parse({"-s", ".", "-d", "d"});
  EXPECT_FALSE(parsed.ok);
  EXPECT_EQ(parsed.err, "Failed to stat path 'd/sub/dangling': No such file or directory\n");

  // A folder that links back to itself ends in a stat failure, not an endless walk.
  fs::remove(root_ / "d" / "sub" / "dangling");
  fs::create_directory_symlink("..", root_ / "d" / "sub" / "up");
  parsed = parse({"-s", ".", "-d", "d"});
  EXPECT_FALSE(parsed.ok);
  EXPECT_EQ(parsed.err.rfind("Failed to stat path 'd/sub/up/sub/up/", 0), 0u) << parsed.err;
}

}  // namespace
