#include "utils/json_input.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using nmb::Json;
using nmb::json_matches_template;
using nmb::json_parse_text;

TEST(JsonInput, ParsingRules) {
  EXPECT_TRUE(json_parse_text(R"({"a":1,"b":{"a":2}})"));
  EXPECT_FALSE(json_parse_text(R"({"a":1,"a":2})")) << "a repeated key fails the document";
  EXPECT_FALSE(json_parse_text(R"([{"x":{"k":1,"k":1}}])"));
  EXPECT_FALSE(json_parse_text(""));
  EXPECT_FALSE(json_parse_text("{} x"));
  auto with_bom = json_parse_text("\xEF\xBB\xBF{\"a\":1}");
  ASSERT_TRUE(with_bom);
  EXPECT_EQ((*with_bom)["a"], 1);
  auto ordered = json_parse_text(R"({"z":1,"a":2})");
  EXPECT_EQ(ordered->begin().key(), "z");
}

TEST(JsonInput, NestingLimit) {
  auto nested = [](int n) { return std::string(n, '[') + "1" + std::string(n, ']'); };
  EXPECT_TRUE(json_parse_text(nested(2048)));
  EXPECT_FALSE(json_parse_text(nested(2049)));
  EXPECT_FALSE(json_parse_text(std::string(100000, '[')));
  // The limit counts containers around a value, objects as well as arrays.
  auto objects = [](int n) {
    std::string text;
    for (int i = 0; i < n; ++i) text += "{\"k\":";
    return text + "1" + std::string(n, '}');
  };
  EXPECT_TRUE(json_parse_text(objects(2048)));
  EXPECT_FALSE(json_parse_text(objects(2049)));
}

TEST(JsonInput, LongArraysOfObjectsReadInLinearTime) {
  // (A schema type may list very many fields; reading them must not rescan
  // the array after each one: this input took minutes that way.)
  std::string text = "[";
  for (int i = 0; i < 200000; ++i) text += i ? ",{\"a\":1,\"b\":[2]}" : "{\"a\":1,\"b\":[2]}";
  text += "]";
  auto parsed = json_parse_text(text);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->size(), 200000u);
  EXPECT_EQ((*parsed)[199999]["b"][0], 2);
  EXPECT_FALSE(json_parse_text(text.substr(0, text.size() - 1)));
  EXPECT_FALSE(json_parse_text(R"([{"a":1,"a":2}])")) << "a repeated key still fails";
}

TEST(JsonInput, LargeObjectsReadInLinearTime) {
  // (A metadata match may hold very many labels; inserting each member after
  // a search of the ones before took minutes for this input.)
  std::string text = "{";
  for (int i = 0; i < 100000; ++i) text += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":1";
  text += "}";
  auto parsed = json_parse_text(text);
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->size(), 100000u);
  EXPECT_EQ((*parsed)["k99999"], 1);
  EXPECT_EQ(parsed->begin().key(), "k0");
  EXPECT_FALSE(json_parse_text(text.substr(0, text.size() - 1) + ",\"k5\":2}"))
      << "a repeated key still fails";
}

TEST(JsonInput, TemplateMatch) {
  Json templ = Json::parse(R"({"name":"","size":0,"fields":[]})");
  EXPECT_TRUE(
      json_matches_template(Json::parse(R"({"name":"t","size":1.5,"fields":[1],"x":0})"), templ));
  EXPECT_FALSE(json_matches_template(Json::parse(R"({"name":"t","size":"1","fields":[]})"), templ));
  EXPECT_FALSE(json_matches_template(Json::parse(R"({"name":"t","fields":[]})"), templ));
  EXPECT_FALSE(json_matches_template(Json::parse(R"([])"), templ));
  Json nested = Json::parse(R"({"list":[{"k":""}]})");
  EXPECT_TRUE(json_matches_template(Json::parse(R"({"list":[{"k":"a"},{"k":"b"}]})"), nested));
  EXPECT_FALSE(json_matches_template(Json::parse(R"({"list":[{"k":"a"},{"j":"b"}]})"), nested));
}

TEST(JsonInput, NumberConversions) {
  uint64_t value = 0;
  Json doc = Json::parse(R"({"a":1e3,"b":-1,"c":1.5,"d":1e30,"e":"7"})");
  EXPECT_TRUE(nmb::json_get_u64(doc, "a", value));
  EXPECT_EQ(value, 1000u);
  EXPECT_FALSE(nmb::json_get_u64(doc, "b", value));
  EXPECT_FALSE(nmb::json_get_u64(doc, "c", value));
  EXPECT_FALSE(nmb::json_get_u64(doc, "d", value));
  EXPECT_FALSE(nmb::json_get_u64(doc, "e", value));
  EXPECT_FALSE(nmb::json_get_u64(doc, "missing", value));
  EXPECT_FALSE(nmb::json_number_to_u64(70000, UINT16_MAX, value));
}

}  // namespace
