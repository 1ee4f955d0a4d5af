// The format table: its rows agree with each other, with the sinks they make
// and with the bash completion and the manual page, which list the formats by
// hand.
#include "app/formats.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "app/run.h"
#include "data/block_sink.h"
#include "export/record_output.h"
#include "tests/support/log_capture.h"
#include "utils/log.h"

namespace {

std::string read_source(const std::string& relative) {
  std::ifstream in(std::string(NMB_SOURCE_DIR) + "/" + relative);
  EXPECT_TRUE(in) << relative;
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::set<std::string> table_names() {
  std::set<std::string> names;
  for (const nmb_output_format_entry_t& format : nmb_output_formats()) names.insert(format.name);
  return names;
}

// The words the completion offers after -f.
std::set<std::string> completed_names(const std::string& script) {
  const std::string words_start = "compgen -W '";
  const size_t branch = script.find("-f | --format)");
  const size_t begin = script.find(words_start, branch);
  if (branch == std::string::npos || begin == std::string::npos) return {};
  const size_t first = begin + words_start.size();
  std::istringstream words(script.substr(first, script.find('\'', first) - first));
  return {std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()};
}

// The formats the manual page describes: the items of its FORMATS section.
std::set<std::string> described_names(const std::string& page) {
  const std::string item = "\n.TP\n.B ";
  const size_t section = page.find("\n.SH FORMATS\n");
  const size_t section_end = page.find("\n.SH ", section + 1);
  std::set<std::string> names;
  for (size_t at = page.find(item, section); at < section_end; at = page.find(item, at)) {
    at += item.size();
    names.insert(page.substr(at, page.find('\n', at) - at));
  }
  return names;
}

TEST(FormatTable, CodesAndNamesMapBothWays) {
  const auto formats = nmb_output_formats();
  for (size_t i = 0; i < formats.size(); ++i) {
    const nmb_output_format_entry_t& format = formats[i];
    EXPECT_EQ(format.code, static_cast<int>(i)) << format.name;
    EXPECT_EQ(nmb_output_format(format.code), &format);
    EXPECT_EQ(nmb_output_format_from_name(format.name), format.code);
    EXPECT_STREQ(nmb_output_format_name(format.code), format.name);
  }
  EXPECT_EQ(table_names().size(), formats.size());
  EXPECT_EQ(nmb_output_format_from_name("JSON"), -1);
  EXPECT_EQ(nmb_output_format_from_name(nullptr), -1);
  EXPECT_EQ(nmb_output_format_name(-1), nullptr);
  EXPECT_EQ(nmb_output_format_name(static_cast<int>(formats.size())), nullptr);
}

TEST(FormatTable, StreamingFormatsFrameNothing) {
  const nmb::ExportSettings settings;
  for (const nmb_output_format_entry_t& format : nmb_output_formats()) {
    nmb::OutputBuffer out(-1);
    std::unique_ptr<nmb::BlockSink> sink = format.make_sink(settings, out);
    ASSERT_NE(sink, nullptr) << format.name;
    sink->begin_run();
    sink->end_run(true);
    if (format.streaming) {
      EXPECT_EQ(out.text(), "") << format.name;
    }
    out.text().clear();  // nothing for the buffer to flush
  }
}

TEST(FormatTable, UnknownCodeFailsTheRun) {
  const int unknown = static_cast<int>(nmb_output_formats().size());
  nmb::OutputBuffer out(-1);
  nmb_init_stderr_logger(NMB_LOG_ERROR);
  nmb::test::capture_stderr();
  EXPECT_EQ(nmb_make_block_sink(unknown, nmb::ExportSettings{}, out), nullptr);
  nmb_read_options_t options;  // no input file: only the format can fail the run
  options.format = unknown;
  EXPECT_EQ(nmb_run(options), 1);
  const std::string err = nmb::test::captured_stderr();
  EXPECT_NE(err.find("Unknown output format " + std::to_string(unknown)), std::string::npos);
}

TEST(FormatTable, PackagingListsExactlyTheTable) {
  EXPECT_EQ(completed_names(read_source("packaging/nmb_read.bash")), table_names());
  EXPECT_EQ(described_names(read_source("packaging/nmb_read.1.in")), table_names());
}

}  // namespace
