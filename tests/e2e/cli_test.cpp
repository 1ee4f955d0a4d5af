// The command line as a user meets it: help, version, refusals and exit statuses.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/run_binary.h"

namespace {

using nmb::test::run_binary;

const std::string kHelp =
    "\n"
    "Nimbrel export collected binary data as text or JSON.\n"
    "\n"
    "Usage: nmb_read --schema-path ./schema data1.bin [data2.bin...]\n"
    "\n"
    "General options:\n"
    "  -h, --help                        Print this message.\n"
    "  -V, --version                     Print Nimbrel version number.\n"
    "  -v, --verbose level               Level of verbosity 0-7 (6).\n"
    "  -p, --print-headers               Print data headers (false).\n"
    "\n"
    "Input options:\n"
    "  -s, --schema-path dir             Path to the schema files (schema).\n"
    "  -d, --data-dir dir                Path to data directory to process recursively.\n"
    "\n"
    "Filtering options:\n"
    "  -g, --timestamp-gt value          Take data with timestamp greater than value.\n"
    "  -l, --timestamp-lt value          Take data with timestamp less than value.\n"
    "  -C, --cset-file path              Path to cset file (optional).\n"
    "  -F, --fset-file path              Path to fset file (optional).\n"
    "  -I, --ignore-missing-filter       When only one filter file exists (fset/cset), "
    "true=filter by it and include all for missing filter file, false=exclude all for missing "
    "filter file (false).\n"
    "  -M, --metadata                    Load metadata JSON from schema path, strip index\n"
    "                                    prefixes from counter names and add labels (false).\n"
    "  -i, --include-counters pattern    Take counters that match pattern.\n"
    "  -e, --exclude-counters pattern    Do not take counters that match pattern.\n"
    "  -o, --output-dir dir              Specifies location for .bin files output (output)\n"
    "\n"
    "Output format:\n"
    "  -f, --format [json|ndjson|txt|csv|influx|bin] Output format (json).\n"
    "  -u, --microsecond-precision   Show 6 digits after decimal point in timestamps (false).\n"
    "\n";

TEST(Cli, HelpTextIsExact) {
  auto result = run_binary(NMB_READ_BINARY, {"-h"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, kHelp);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(run_binary(NMB_READ_BINARY, {"--help"}).out, kHelp);
}

TEST(Cli, VersionBlockNamesTheVersion) {
  auto result = run_binary(NMB_READ_BINARY, {"-V"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(
      result.out.rfind("Nimbrel binary data reader 1.26.3\nNimbrel build info: build time:", 0), 0u)
      << result.out;
  EXPECT_NE(result.out.find("zlib: "), std::string::npos);
  EXPECT_NE(result.out.find("snappy: "), std::string::npos);
}

TEST(Cli, RefusedArgumentsPrintTheMessageThenHelp) {
  struct Case {
    std::vector<std::string> args;
    std::string message;
  };
  const Case cases[] = {
      {{"-v", "8"}, "Verbosity level is a number between 0 and 7, 8 is given."},
      {{"-v", "-1"}, "Verbosity level is a number between 0 and 7, -1 is given."},
      {{"-v", "3x"}, "Verbosity level is a number between 0 and 7, 3x is given."},
      {{"-g", "10s"}, "Timestamp must be a number, 10s is given."},
      {{"-f", "xml"}, "Unsupported output format xml"},
      {{"--jobs=0"}, "Number of jobs is a number between 1 and 256, 0 is given."},
      {{"-j", "257"}, "Number of jobs is a number between 1 and 256, 257 is given."},
      {{"-j", "2x"}, "Number of jobs is a number between 1 and 256, 2x is given."},
      {{"-C", "/nonexistent/c.cset"}, "Counter set file '/nonexistent/c.cset' does not exist\n"},
      {{"-F", "/nonexistent/f.fset"}, "Filter set file '/nonexistent/f.fset' does not exist\n"},
  };
  for (const Case& c : cases) {
    auto result = run_binary(NMB_READ_BINARY, c.args);
    EXPECT_EQ(result.status, 1) << c.message;
    EXPECT_EQ(result.err, c.message);
    EXPECT_EQ(result.out, kHelp) << c.message;
  }
}

TEST(Cli, BinaryOutputNeedsAnExistingFolder) {
  namespace fs = std::filesystem;
  fs::path dir = fs::temp_directory_path() / "nmb_cli_output_test";
  fs::create_directories(dir / "schema");
  nmb::test::RunOptions in_dir;
  in_dir.cwd = dir.string();
  auto result = run_binary(NMB_READ_BINARY,
                           {"-s", "schema", "-f", "bin", "-o", "/nonexistent", "x.bin"}, in_dir);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "Output folder '/nonexistent' does not exits\n");
  EXPECT_EQ(result.out, kHelp);
  fs::remove_all(dir);
}

TEST(Cli, MissingSchemaFolderIsSearchedFor) {
  auto result = run_binary(NMB_READ_BINARY, {"-s", "/nonexistent/schema", "/nonexistent/d/f.bin"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "Schema folder not found within 5 levels of /nonexistent/d/f.bin\n");
}

TEST(Cli, NoInputFilesIsNotAFailure) {
  auto result = run_binary(NMB_READ_BINARY, {});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "No input files specified\n");
  EXPECT_EQ(result.out, "{}");
  EXPECT_EQ(run_binary(NMB_READ_BINARY, {"-f", "ndjson"}).out, "");
}

TEST(Cli, UnknownOptionIsReportedAndIgnored) {
  // Parsing goes on after it: -f ndjson with no file writes nothing.
  auto result = run_binary(NMB_READ_BINARY, {"-z", "--bogus", "-f", "ndjson"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find("invalid option -- 'z'"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("No input files specified\n"), std::string::npos);
}

TEST(Cli, DebugLogLinesCarryTimestampAndLevelWord) {
  nmb::test::RunOptions debug;
  debug.env = {{"NMB_API_LOG_LEVEL", "7"}};
  auto result =
      run_binary(NMB_READ_BINARY, {"-v", "7", "-f", "ndjson", "-s", "/", "/a.bin"}, debug);
  EXPECT_TRUE(nmb::test::starts_with_log_timestamp(result.err)) << result.err;
  EXPECT_NE(nmb::test::strip_log_timestamps(result.err).find("[debug] data file[0] = /a.bin\n"),
            std::string::npos)
      << result.err;
}

TEST(Cli, EnvironmentConflictWarnsAndPrefersThePrefixedName) {
  nmb::test::RunOptions conflict;
  conflict.env = {
      {"NMB_API_LOG_LEVEL", "4"}, {"NMB_DONT_SET_LOCALE", "1"}, {"DONT_SET_LOCALE", "0"}};
  auto result = run_binary(NMB_READ_BINARY, {"-f", "ndjson"}, conflict);
  EXPECT_EQ(nmb::test::strip_log_timestamps(result.err),
            "[warning] [nmb_getenv] Environment variables conflict - NMB_DONT_SET_LOCALE=1 and "
            "DONT_SET_LOCALE=0. Using NMB_DONT_SET_LOCALE\n"
            "No input files specified\n");
}

}  // namespace
