// The OpenMetrics text rules where a wrong byte makes a line Prometheus
// refuses or a series it merges: names, label values, numbers, times, and
// family and label names that must not clash.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "export/openmetrics_families.h"
#include "utils/openmetrics_text.h"

namespace {

namespace om = nmb::openmetrics;

TEST(OpenMetricsText, NamesAreMadeValid) {
  EXPECT_EQ(om::valid_name("port.rx-bytes:1", false), "port_rx_bytes:1");
  EXPECT_EQ(om::valid_name("port.rx-bytes:1", true), "port_rx_bytes_1");
  EXPECT_EQ(om::valid_name("0ab", false), "_0ab");
  EXPECT_EQ(om::valid_name("", true), "_");
  EXPECT_EQ(om::valid_name("__name__", true), "x__name__");
  EXPECT_EQ(om::valid_name("caf\xc3\xa9", false), "caf__");
}

TEST(OpenMetricsText, LabelValuesAndHelpAreEscapedOrRefused) {
  std::string out;
  EXPECT_TRUE(om::append_label_value(out, "a\\b\"c\nd\te"));
  EXPECT_EQ(out, "a\\\\b\\\"c\\nd\te");
  EXPECT_FALSE(om::append_label_value(out, "\xff"));
  EXPECT_EQ(out, "a\\\\b\\\"c\\nd\te");  // nothing appended
  std::string help;
  EXPECT_TRUE(om::append_help(help, "a \"b\"\\\n"));
  EXPECT_EQ(help, "a \"b\"\\\\\\n");
}

TEST(OpenMetricsText, NumbersAreExactBelowTwoToTheFiftyThird) {
  auto text = [](auto write, auto value) {
    char out[om::kLineEndRoom];
    return std::string(out, write(out, value));
  };
  EXPECT_EQ(text(om::write_unsigned, (uint64_t{1} << 53) - 1), "9007199254740991");
  EXPECT_EQ(text(om::write_unsigned, (uint64_t{1} << 53) + 1), "9007199254740992");
  EXPECT_EQ(text(om::write_unsigned, UINT64_MAX),
            "18446744073709551616");  // 2^64, the nearest double
  EXPECT_EQ(text(om::write_signed, int64_t{-42}), "-42");
  EXPECT_EQ(text(om::write_signed, INT64_MIN), "-9223372036854775808");
  EXPECT_EQ(text(om::write_double, 0.1), "0.1");
  EXPECT_EQ(text(om::write_double, std::nan("")), "NaN");
  EXPECT_EQ(text(om::write_double, -std::numeric_limits<double>::infinity()), "-Inf");
  auto line_end = [](uint64_t microseconds) {
    char out[om::kLineEndRoom];
    return std::string(out, om::write_line_end(out, microseconds));
  };
  EXPECT_EQ(line_end(1700000000123999), " 1700000000.123\n");
  EXPECT_EQ(line_end(5000), " 0.005\n");
}

TEST(OpenMetricsFamilies, NamesNeverClashAcrossTypes) {
  om::Families families;
  om::Family& rx = families.declare("rx_total", om::FamilyType::kCounter);
  EXPECT_EQ(rx.name, "rx");
  EXPECT_EQ(rx.sample_name, "rx_total");
  EXPECT_EQ(&families.declare("rx", om::FamilyType::kCounter), &rx);
  // A gauge may not take the counter's name nor its samples' name.
  EXPECT_EQ(families.declare("rx", om::FamilyType::kGauge).name, "rx_2");
  EXPECT_EQ(families.declare("rx_total", om::FamilyType::kGauge).name, "rx_total_2");
  std::string out;
  om::Families::announce(out, rx, om::help_text("Bytes\n"));
  om::Families::announce(out, rx, "other");
  EXPECT_EQ(out, "# TYPE rx counter\n# HELP rx Bytes\\n\n");

  om::LabelText labels;
  labels.take_name("source_id");
  EXPECT_TRUE(labels.add("source_id", "x"));
  EXPECT_TRUE(labels.add("source.id", "y"));
  EXPECT_TRUE(labels.add("empty", ""));
  EXPECT_FALSE(labels.add("bad", "\xc3"));
  EXPECT_EQ(labels.text, ",source_id_=\"x\",source_id__=\"y\"");
  EXPECT_FALSE(labels.writable);
}

}  // namespace
