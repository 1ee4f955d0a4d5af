#include "utils/json_writer.h"

#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace {

using nmb::JsonWriter;

std::string number_text(double value) {
  std::string out;
  EXPECT_TRUE(nmb::json_append_number(out, value));
  return out;
}

std::string string_text(std::string_view value) {
  std::string out;
  EXPECT_TRUE(nmb::json_append_string(out, value)) << value;
  return out;
}

// The document of the pretty example, written in either form.
std::string example(bool pretty) {
  std::string out;
  JsonWriter w(out, pretty);
  w.begin_object();
  w.key("timestamp");
  w.number(1700000000000000);
  w.key("groups");
  w.begin_array();
  w.begin_object();
  w.key("granularity");
  w.string("NODE");
  w.key("counter_sets");
  w.begin_array();
  w.end_array();
  w.end_object();
  w.end_array();
  w.key("labels");
  w.begin_object();
  w.end_object();
  w.end_object();
  return out;
}

TEST(JsonWriter, PrettyAndCompactForms) {
  EXPECT_EQ(example(true),
            "{\n"
            "    \"timestamp\": 1700000000000000,\n"
            "    \"groups\": [\n"
            "        {\n"
            "            \"granularity\": \"NODE\",\n"
            "            \"counter_sets\": []\n"
            "        }\n"
            "    ],\n"
            "    \"labels\": {}\n"
            "}");
  EXPECT_EQ(example(false),
            "{\"timestamp\":1700000000000000,\"groups\":[{\"granularity\":\"NODE\","
            "\"counter_sets\":[]}],\"labels\":{}}");
}

TEST(JsonWriter, CompactExampleAndEmptyTopLevels) {
  std::string out;
  JsonWriter w(out, false);
  w.begin_object();
  w.key("a");
  w.number(1);
  w.key("b");
  w.begin_array();
  w.number(1);
  w.number(2);
  w.end_array();
  w.key("c");
  w.begin_object();
  w.end_object();
  w.escaped_key(nmb::json_escape_key("d"));
  w.string("x");
  w.end_object();
  EXPECT_EQ(out, R"({"a":1,"b":[1,2],"c":{},"d":"x"})");

  for (bool pretty : {true, false}) {
    std::string o, a;
    JsonWriter wo(o, pretty), wa(a, pretty);
    wo.begin_object();
    wo.end_object();
    wa.begin_array();
    wa.end_array();
    EXPECT_EQ(o, "{}");
    EXPECT_EQ(a, "[]");
  }
}

TEST(JsonWriter, PrettyArraysOfScalarsAndNestedEmptyArrays) {
  std::string out;
  JsonWriter w(out, true);
  w.begin_array();
  w.number(1);
  w.begin_array();
  w.end_array();
  w.begin_array();
  w.boolean(true);
  w.null();
  w.end_array();
  w.end_array();
  EXPECT_EQ(out, "[\n    1,\n    [],\n    [\n        true,\n        null\n    ]\n]");
}

TEST(JsonWriter, Numbers) {
  EXPECT_EQ(number_text(1), "1");
  EXPECT_EQ(number_text(-3), "-3");
  EXPECT_EQ(number_text(1.5), "1.5");
  EXPECT_EQ(number_text(0.1), "0.10000000000000001");
  EXPECT_EQ(number_text(-0.0), "-0");
  EXPECT_EQ(number_text(0.0), "0");
  EXPECT_EQ(number_text(1700000000000000), "1700000000000000");
  EXPECT_EQ(number_text(99999999999999984.0), "99999999999999984");
  EXPECT_EQ(number_text(1e17), "1e+17");
  EXPECT_EQ(number_text(-1e17), "-1e+17");
  EXPECT_EQ(number_text(static_cast<double>(UINT64_MAX)), "1.8446744073709552e+19");
  EXPECT_EQ(number_text(1e-7), "9.9999999999999995e-08");
  // Integers above 2^53 go through a double.
  EXPECT_EQ(number_text(static_cast<double>(9007199254740993ULL)), "9007199254740992");

  std::string out = "x";
  EXPECT_FALSE(nmb::json_append_number(out, std::nan("")));
  EXPECT_FALSE(nmb::json_append_number(out, std::numeric_limits<double>::infinity()));
  EXPECT_FALSE(nmb::json_append_number(out, -std::numeric_limits<double>::infinity()));
  EXPECT_EQ(out, "x");
}

// Integer digits at every change of length and of arithmetic width read as
// std::to_chars writes them.
TEST(JsonWriter, IntegerDigits) {
  // 2^63 is INT64_MIN as a signed value.
  std::vector<uint64_t> values{0, UINT32_MAX, uint64_t{UINT32_MAX} + 1, uint64_t{1} << 63,
                               UINT64_MAX};
  for (uint64_t p = 10; p <= UINT64_MAX / 10; p *= 10) {
    values.insert(values.end(), {p - 1, p, p + 1});
  }
  values.insert(values.end(), {9999999999999999999u, 10000000000000000000u});
  for (uint64_t v : values) {
    char got[24], want[24];
    EXPECT_EQ(std::string(got, nmb::json_write_integer(got, v)),
              std::string(want, std::to_chars(want, want + 24, v).ptr));
    const auto s = static_cast<int64_t>(v);
    EXPECT_EQ(std::string(got, nmb::json_write_integer(got, s)),
              std::string(want, std::to_chars(want, want + 24, s).ptr));
  }
}

TEST(JsonWriter, StringEscapes) {
  EXPECT_EQ(string_text("a\"b\\c/d"), R"("a\"b\\c/d")");
  EXPECT_EQ(string_text("\b\f\n\r\t"), R"("\b\f\n\r\t")");
  EXPECT_EQ(string_text(std::string_view("\x01\x1f\x7f", 3)), "\"\\u0001\\u001f\x7f\"");
  EXPECT_EQ(string_text("h\xc3\xa9llo \xe2\x82\xac \xf0\x9f\x98\x80"),
            "\"h\xc3\xa9llo \xe2\x82\xac \xf0\x9f\x98\x80\"");
  EXPECT_EQ(string_text(std::string_view("ab\0cd", 5)), "\"ab\"") << "ends at the zero byte";
  EXPECT_EQ(string_text(""), "\"\"");
  // Keys are escaped but not validated.
  EXPECT_EQ(nmb::json_escape_key("k\xff\n"), "\"k\xff\\n\"");
}

TEST(JsonWriter, Utf8Validation) {
  const char* invalid[] = {
      "\x80",              // lone continuation
      "\xc0\xaf",          // overlong, C0 lead
      "\xc1\xbf",          // overlong, C1 lead
      "\xe0\x80\xaf",      // overlong three bytes
      "\xf0\x80\x80\xaf",  // overlong four bytes
      "\xed\xa0\x80",      // surrogate U+D800
      "\xf4\x90\x80\x80",  // above U+10FFFF
      "\xf5\x80\x80\x80",  // F5 lead
      "\xff",
      "\xc3",          // truncated
      "\xe2\x82",      // truncated
      "\xe2\x28\xa1",  // bad continuation
  };
  for (const char* text : invalid) {
    std::string out;
    EXPECT_FALSE(nmb::json_append_string(out, text)) << testing::PrintToString(text);
    EXPECT_TRUE(out.empty());
  }
  EXPECT_TRUE(nmb::json_is_valid_utf8("\xed\x9f\xbf", 3));      // U+D7FF
  EXPECT_TRUE(nmb::json_is_valid_utf8("\xf4\x8f\xbf\xbf", 4));  // U+10FFFF
  EXPECT_TRUE(nmb::json_is_valid_utf8("\xee\x80\x80", 3));      // U+E000
  // Bytes after the zero byte are not looked at.
  std::string out;
  EXPECT_TRUE(nmb::json_append_string(out, std::string_view("ok\0\xff", 4)));
}

}  // namespace
