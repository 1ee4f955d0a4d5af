#include "data/type_system.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "data/schema_json.h"
#include "tests/support/data_builder.h"
#include "tests/support/log_capture.h"
#include "utils/log.h"

namespace {

using nmb::test::TempDir;

// Runs `body` with debug logging and returns what was logged.
template <typename Body>
std::string logged(Body body) {
  uint32_t previous = nmb_set_log_level(NMB_LOG_DEBUG);
  nmb::test::capture_stderr();
  body();
  std::string text = nmb::test::captured_stderr();
  nmb_set_log_level(previous);
  return text;
}

TEST(Version, ParsePrintCompatibilityAndOrder) {
  EXPECT_EQ(nmb_version_parse("1.5.0"), 1281u);
  EXPECT_EQ(nmb_version_parse("1.5"), 1281u);
  EXPECT_EQ(nmb_version_parse("1.2 .3"), 1u | 2u << 8 | 3u << 16) << "blank before second dot";
  EXPECT_EQ(nmb_version_parse("1"), 0u);
  EXPECT_EQ(nmb_version_parse("abc"), 0u);
  // What the scan format accepts: blanks before numbers, a sign, text after
  // the minor number; but no blank before the first dot.
  EXPECT_EQ(nmb_version_parse(" 1.5.0"), 1281u);
  EXPECT_EQ(nmb_version_parse("+1.5.0"), 1281u);
  EXPECT_EQ(nmb_version_parse("1.5x"), 1281u);
  EXPECT_EQ(nmb_version_parse("1. 5.0"), 1281u);
  EXPECT_EQ(nmb_version_parse("1 .5.0"), 0u);
  EXPECT_STREQ(nmb_version_to_string(nmb_version_parse("2.10.300")), "2.10.300");
  for (const char* ok : {"1.5.7", "1.0.0", "1.5.0", "1.3"}) {
    EXPECT_TRUE(nmb_version_is_compatible(ok, "1.5.0")) << ok;
  }
  for (const char* bad : {"1.6.0", "2.5.0", "abc", "1", "0.5.0x"}) {
    EXPECT_FALSE(nmb_version_is_compatible(bad, "1.5.0")) << bad;
  }
  EXPECT_LT(nmb_version_compare(nmb_version_parse("1.3.9"), nmb_version_parse("1.4.0")), 0);
  EXPECT_EQ(nmb_version_compare(nmb_version_parse("1.4.9"), nmb_version_parse("1.4.0")), 0);
  EXPECT_GT(nmb_version_compare(nmb_version_parse("2.0.0"), nmb_version_parse("1.9.0")), 0);
}

TEST(TypeSystem, BuiltInsAndCountingModes) {
  auto ts = nmb_type_system_create();
  ASSERT_TRUE(ts);
  EXPECT_EQ(ts->builtin->name, "<built-in>");
  EXPECT_EQ(ts->builtin->version, 1281u);
  ASSERT_EQ(ts->builtin->num_types, 22);
  EXPECT_EQ(ts->builtin->types[0]->name, "bool");
  EXPECT_EQ(ts->builtin->types[21]->name, "timestamp");
  const nmb_type_definition_t* ull = nmb_schema_find_type(*ts->builtin, "unsigned long long");
  ASSERT_NE(ull, nullptr);
  EXPECT_EQ(ull->type_code, 11u);
  EXPECT_EQ(ull->size, 8u);
  EXPECT_EQ(nmb_schema_get_type_size(*ts->builtin, "int16_t"), 2u);
  EXPECT_EQ(nmb_schema_get_type_size(*ts->builtin, "INT16_T"), 0u) << "case-sensitive";
  EXPECT_TRUE(ts->counters_schema);

  EXPECT_EQ(nmb_counting_mode_from_name("DELTA"), 2);
  EXPECT_EQ(nmb_counting_mode_from_name("ABSOLUTE_MONOTONIC"), 1);
  EXPECT_EQ(nmb_counting_mode_from_name("absolute"), -1);
  EXPECT_EQ(nmb_counting_mode_name(-1), nullptr);
  EXPECT_STREQ(nmb_counting_mode_name(1), "RUNNING_SUM");
}

TEST(TypeSystem, AddTypeStatusesAndPacking) {
  auto ts = nmb_type_system_create();
  nmb_schema_t* schema = nmb_type_system_add_schema(*ts, "p", 1281, nullptr);
  ASSERT_NE(schema, nullptr);
  auto add = [&](const char* name, std::vector<const char*> names, const char* type = "int") {
    std::vector<nmb_field_info_t> info;
    for (const char* n : names) info.push_back({n, "", type, 0, 1});
    return nmb_schema_add_type(*schema, name, info.data(), info.size(), nullptr);
  };
  std::string log = logged([&] {
    EXPECT_EQ(add("two", {"a", "a"}), 0) << "two fields are not checked";
    EXPECT_EQ(add("three", {"a", "a", "b"}), 2);
    EXPECT_EQ(add("last", {"a", "b", "a"}), 0) << "the last field is never compared";
    EXPECT_EQ(add("int", {"x"}), 2) << "built-in names cannot be reused";
    EXPECT_EQ(add("two", {"x"}), 2);
    EXPECT_EQ(add("bad", {"x"}, "nosuch"), 3);
  });
  EXPECT_NE(log.find("field name 'a' occurs more than once."), std::string::npos);
  EXPECT_NE(log.find("Schema 'p' already contains type 'int'"), std::string::npos);
  EXPECT_NE(log.find("Unable to register type 'bad': type 'nosuch' of the field 'x' is undefined"),
            std::string::npos);

  nmb_field_info_t packed[] = {
      {"c", "", "char", 0, 3}, {"v", "", "uint64_t", 1, 1}, {"nested", "", "two", 2, 2}};
  uint8_t index = 0;
  ASSERT_EQ(nmb_schema_add_type(*schema, "packed", packed, 3, &index), 0);
  const nmb_type_definition_t& type = *schema->types[index];
  EXPECT_EQ(type.fields[1].offset, 3u) << "no alignment padding";
  EXPECT_EQ(type.fields[2].offset, 11u);
  EXPECT_EQ(type.fields[2].type_size, 8u);
  EXPECT_EQ(type.size, 27u);
  EXPECT_EQ(nmb_schema_find_type(*schema, "uint64_t"), ts->builtin->types[20].get())
      << "lookup falls through to the built-ins";

  while (schema->num_types < NMB_MAX_TYPES) {
    ASSERT_EQ(add(("t" + std::to_string(schema->num_types)).c_str(), {"x"}), 0);
  }
  log = logged([&] { EXPECT_EQ(add("one_more", {"x"}), 5); });
  EXPECT_NE(log.find("reached NMB_MAX_TYPES. schema->num_types = 254"), std::string::npos);
}

TEST(TypeSystem, FieldIndexesAndIndexedNames) {
  auto ts = nmb_type_system_create();
  nmb_schema_t* schema = nmb_type_system_add_schema(*ts, "p", 1281, nullptr);
  nmb_field_info_t info[] = {
      {"a", "", "int", 0, 1}, {"b", "", "int", 0, 1}, {"c", "", "int", 0, 1}};
  ASSERT_EQ(nmb_schema_add_type(*schema, "t", info, 3, nullptr), 0);
  const char* names[] = {"c", "missing", "a"};
  std::string log =
      logged([&] { EXPECT_EQ(nmb_schema_set_field_indexes(schema, 0, names, 3), 0); });
  EXPECT_NE(log.find("Mismatch in assigned indices: expected 3, but assigned 2 (t)."),
            std::string::npos);
  EXPECT_EQ(schema->types[0]->fields[2].index, 1);
  EXPECT_EQ(schema->types[0]->fields[0].index, 2);
  size_t count = 0;
  auto indexed = nmb_schema_get_indexed_field_names(schema, 0, &count);
  ASSERT_EQ(count, 2u);
  EXPECT_STREQ(indexed[0], "a");
  EXPECT_STREQ(indexed[1], "c");

  log = logged([&] {
    EXPECT_EQ(nmb_schema_set_field_indexes(schema, 1, names, 1), 3);
    EXPECT_EQ(nmb_schema_set_field_indexes(nullptr, 0, names, 1), 3);
    EXPECT_EQ(nmb_schema_set_field_indexes(schema, 0, nullptr, 1), 3);
    EXPECT_TRUE(nmb_schema_get_indexed_field_names(schema, 5, &count).empty());
  });
  EXPECT_NE(log.find("[nmb_schema_set_field_indexes] Invalid type_index: 1 (out of range, max: 0)"),
            std::string::npos);
  EXPECT_NE(log.find("[nmb_schema_set_field_indexes] Schema pointer is NULL!"), std::string::npos);
  EXPECT_NE(log.find("Index names array is NULL!"), std::string::npos);
  EXPECT_NE(log.find("type_index 5 out of bounds (max: 1)"), std::string::npos);
  EXPECT_EQ(nmb_schema_set_field_indexes(schema, 0, names, 0), 0);
  EXPECT_EQ(schema->types[0]->fields[2].index, 0) << "indexes are cleared first";
}

// A schema document with one type "t" whose fields are given as JSON text.
std::string schema_text(const std::string& fields, const std::string& size = "8",
                        const std::string& version = "1.5.0") {
  return R"({"nmb_version": ")" + version +
         R"(", "provider_name": "p", "provider_version": "2.1.0", "types": [)"
         R"({"name": "t", "size": )" +
         size + R"(, "fields": [)" + fields + "]}]}";
}

std::string field_text(const std::string& name, const std::string& type = "uint64_t",
                       const std::string& extra = "", const std::string& offset = "0") {
  return R"({"field_name": ")" + name + R"(", "description": "", "type_size": 8, "offset": )" +
         offset + R"(, "type_name": ")" + type + R"(", "counting_mode": "ABSOLUTE")" + extra + "}";
}

struct Loaded {
  nmb_schema_t* schema = nullptr;
  bool loaded = false;
  std::string log;
};

Loaded load(nmb_type_system_t& ts, const std::string& text) {
  TempDir dir;
  std::string path = dir.file("schema.json");
  nmb::test::write_text_file(path, text);
  Loaded result;
  result.log = logged(
      [&] { result.schema = nmb_type_system_load_schema(ts, path.c_str(), &result.loaded); });
  return result;
}

TEST(SchemaLoad, FieldsAsTheFileStatesThem) {
  auto ts = nmb_type_system_create();
  std::string fields = field_text("a", "uint32_t", R"(, "array_length": 3, "index": 2)", "4") +
                       "," + field_text("b", "uint64_t", R"(, "array_length": 0)") + "," +
                       R"({"field_name": "c", "description": "d", "type_size": 1e0, "offset": 1,)"
                       R"( "type_name": "char", "counting_mode": "ABSOLUTE_MONOTONIC"},)" +
                       R"({"field_name": "u", "description": "", "type_size": 1, "offset": 2,)"
                       R"( "type_name": "char", "counting_mode": "WHATEVER", "extra": 1})";
  Loaded r = load(*ts, schema_text(fields, "64"));
  ASSERT_NE(r.schema, nullptr) << r.log;
  EXPECT_TRUE(r.loaded);
  EXPECT_EQ(ts->num_schemas, 1);
  EXPECT_EQ(r.schema->name, "p");
  EXPECT_EQ(r.schema->version, nmb_version_parse("2.1.0"));
  const nmb_type_definition_t& t = *r.schema->types[0];
  EXPECT_EQ(t.size, 64u);
  EXPECT_EQ(t.fields[0].array_length, 3);
  EXPECT_EQ(t.fields[0].offset, 4u) << "offsets are never recomputed";
  EXPECT_EQ(t.fields[0].index, 2);
  EXPECT_EQ(t.fields[1].array_length, 1);
  EXPECT_EQ(t.fields[2].counting_mode, 1);
  EXPECT_EQ(t.fields[2].description, "d");
  EXPECT_EQ(t.fields[3].counting_mode, -1);
  EXPECT_EQ(t.fields[0].type, nmb_schema_find_type(*ts->builtin, "uint32_t"));
  EXPECT_EQ(r.schema->parent, ts->builtin.get());
}

TEST(SchemaLoad, StringsEndAtAnEscapedZeroByte) {
  auto ts = nmb_type_system_create();
  Loaded r = load(*ts, schema_text(field_text(R"(a\u0000b)", R"(uint64_t\u0000x)")));
  ASSERT_NE(r.schema, nullptr) << r.log;
  EXPECT_EQ(r.schema->types[0]->fields[0].field_name, "a");
  EXPECT_EQ(r.schema->types[0]->fields[0].type_name, "uint64_t");
}

TEST(SchemaLoad, FailuresAndTheirMessages) {
  struct Case {
    std::string text;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"{", "Failed reading schema JSON from file '"},
      {R"({"types": []})", "Not an event schema"},
      {schema_text(field_text("a"), "8", "1.6.0"),
       "Schema version 1.6.0 is incompatible with current version 1.5.0"},
      {schema_text(field_text("a"), "8", "1"), "Schema version 1 is incompatible"},
      {schema_text(field_text("a"), "0"), "Failed to deserialize type #0 from JSON array"},
      {R"({"nmb_version": "1.5.0", "provider_name": "p", "provider_version": "1", "types": [{"name": "t"}]})",
       "Type definition JSON does not match schema '{\"name\" : \"\", \"size\" : 0, \"fields\" : "
       "[]}'"},
      {R"({"nmb_version": "1.5.0", "provider_name": "p", "provider_version": "1", "types": [1]})",
       "Failed to get type #0 from JSON array"},
      {schema_text(R"({"field_name": "a"})"),
       "Field definition JSON does not match schema with or without 'index'."},
      {schema_text(field_text("a", "nosuch")),
       "Definition of type nosuch not found within the schema p"},
      {schema_text(field_text("a", "nosuch")), "Failed to adjust type fields within schema p"},
  };
  for (const Case& c : cases) {
    auto ts = nmb_type_system_create();
    Loaded r = load(*ts, c.text);
    EXPECT_EQ(r.schema, nullptr) << c.text;
    EXPECT_FALSE(r.loaded) << c.text;
    EXPECT_EQ(ts->num_schemas, 0);
    EXPECT_NE(r.log.find(c.message), std::string::npos) << c.text << "\n" << r.log;
  }
}

// Numbers convert as a C conversion does (fraction dropped, negative values
// wrapped, 16-bit fields cut), and types that contain themselves load: the
// export refuses them when a block uses them.
TEST(SchemaLoad, NumbersAndSelfContainingTypesLoadAsGiven) {
  auto ts = nmb_type_system_create();
  std::string fields =
      field_text("a", "uint64_t", "", "-8") + "," + field_text("b", "uint64_t", "", "1.5") + "," +
      field_text("c", "uint64_t", "", "1e300") + "," +
      field_text("d", "uint64_t", R"(, "array_length": 70000)") + "," + field_text("self", "t");
  Loaded r = load(*ts, schema_text(fields, "1e12"));
  ASSERT_NE(r.schema, nullptr) << r.log;
  const nmb_type_definition_t& t = *r.schema->types[0];
  EXPECT_EQ(t.size, 1000000000000u);
  EXPECT_EQ(t.fields[0].offset, UINT64_MAX - 7);
  EXPECT_EQ(t.fields[1].offset, 1u);
  EXPECT_EQ(t.fields[2].offset, 0u) << "no 64-bit integer holds it";
  EXPECT_EQ(t.fields[3].array_length, 70000 - 65536);
  EXPECT_EQ(t.fields[4].type, &t);
  EXPECT_NE(load(*ts, schema_text(field_text("a"), "-1")).schema, nullptr);
}

TEST(SchemaLoad, TypeAndSchemaLimits) {
  std::string types;
  for (int i = 0; i < 255; ++i) {
    if (i) types += ",";
    types += R"({"name": "t)" + std::to_string(i) + R"(", "size": 8, "fields": [)" +
             field_text("a") + "]}";
  }
  auto ts = nmb_type_system_create();
  Loaded r = load(
      *ts, R"({"nmb_version": "1.5.0", "provider_name": "p", "provider_version": "1", "types": [)" +
               types + "]}");
  EXPECT_EQ(r.schema, nullptr);
  EXPECT_NE(r.log.find("Schema p has more than 254 types"), std::string::npos);

  TempDir dir;
  std::string path = dir.file("s.json");
  nmb::test::write_text_file(path, schema_text(field_text("a")));
  for (int i = 0; i < 255; ++i)
    ASSERT_NE(nmb_type_system_load_schema(*ts, path.c_str(), nullptr), nullptr);
  std::string log =
      logged([&] { EXPECT_EQ(nmb_type_system_load_schema(*ts, path.c_str(), nullptr), nullptr); });
  EXPECT_NE(log.find("Failed to load schema: schema limit exceeded '255'"), std::string::npos);
}

TEST(SchemaLoad, TypesWithoutFieldsAreSkippedAndTheFilterCanSkipEverything) {
  auto ts = nmb_type_system_create();
  std::string text =
      R"({"nmb_version": "1.5.0", "provider_name": "p", "provider_version": "1", "types": [)"
      R"({"name": "empty", "size": 8, "fields": []}, {"name": "t", "size": 8, "fields": [)" +
      field_text("a") + "]}]}";
  Loaded r = load(*ts, text);
  ASSERT_NE(r.schema, nullptr);
  EXPECT_EQ(r.schema->num_types, 1);
  EXPECT_EQ(r.schema->types[0]->name, "t");

  auto json = nmb::json_parse_text(text);
  nmb_event_field_filter_t none;
  none.include_field = [](const void*, const char*, const char*) { return 0; };
  bool skipped = false;
  std::string log =
      logged([&] { EXPECT_EQ(nmb_schema_from_json(*json, &none, &skipped), nullptr); });
  EXPECT_TRUE(skipped);
  EXPECT_NE(log.find("Skipping field 't.a' as it is not required by the provided field set"),
            std::string::npos);
  EXPECT_NE(log.find("No types found in the schema after filtering by field set"),
            std::string::npos);
}

TEST(SchemaJson, DocumentTextDigestAndReadBack) {
  auto ts = nmb_type_system_create();
  std::string fields = field_text("a", "uint32_t", R"(, "array_length": 2, "index": 1)", "0") +
                       "," + field_text("b", "uint64_t", "", "8");
  Loaded r = load(*ts, schema_text(fields, "16"));
  ASSERT_NE(r.schema, nullptr) << r.log;
  std::string text;
  ASSERT_TRUE(nmb_schema_to_json_text(*r.schema, text));
  const std::string expected = R"({
    "title": "Nimbrel schema",
    "nmb_version": "1.5.0",
    "provider_name": "p",
    "provider_version": "2.1.0",
    "types": [
        {
            "name": "t",
            "size": 16,
            "fields": [
                {
                    "field_name": "a",
                    "description": "",
                    "type_name": "uint32_t",
                    "counting_mode": "ABSOLUTE",
                    "array_length": 2,
                    "offset": 0,
                    "type_size": 8,
                    "index": 1
                },
                {
                    "field_name": "b",
                    "description": "",
                    "type_name": "uint64_t",
                    "counting_mode": "ABSOLUTE",
                    "offset": 8,
                    "type_size": 8,
                    "index": 0
                }
            ],
            "type_index": 0
        }
    ]
})";
  EXPECT_EQ(text, expected);
  ASSERT_TRUE(nmb_schema_fill_md5(*r.schema));
  EXPECT_EQ(std::string(r.schema->id), nmb::test::schema_id_hex(nmb::test::schema_id_of(expected)));

  // An empty schema has no document and keeps a clear digest.
  nmb_schema_t* empty = nmb_type_system_add_schema(*ts, "e", 1281, nullptr);
  EXPECT_EQ(empty->id[0], '\0');

  std::string counters_text =
      nmb::test::CountersSchema().group(nmb::test::CounterGroup("node").counter("c")).json();
  ts->counters_schema = nmb_counters_schema_from_text(counters_text.data(), counters_text.size());
  ASSERT_TRUE(ts->counters_schema);
  std::string document;
  ASSERT_TRUE(nmb_type_system_to_json_text(*ts, document));
  EXPECT_EQ(
      document.rfind("{\n    \"name\": \"Nimbrel type system\",\n    \"version\": \"1.5.0\",\n"
                     "    \"counters_schema\": {\n        \"title\"",
                     0),
      0u)
      << document;
  auto back = nmb_type_system_from_json_string(document);
  ASSERT_TRUE(back);
  ASSERT_EQ(back->num_schemas, 1) << "the empty schema is left out";
  EXPECT_STREQ(back->schemas[0]->id, r.schema->id);
  EXPECT_EQ(back->schemas[0]->types[0]->fields[1].type,
            nmb_schema_find_type(*back->builtin, "uint64_t"));
  ASSERT_TRUE(back->counters_schema);
  EXPECT_EQ(back->counters_schema->groups.at(0).counters.at(0).name, "c");
  auto counters_only =
      nmb_type_system_from_json_string(R"({"version": "1.5.0", "counter_groups": [)" +
                                       counters_text.substr(counters_text.find('[') + 1));
  ASSERT_TRUE(counters_only);
  EXPECT_EQ(counters_only->num_schemas, 0);
  EXPECT_EQ(counters_only->counters_schema->groups.size(), 1u);

  std::string log = logged([&] {
    EXPECT_FALSE(nmb_type_system_from_json_string("[]"));
    EXPECT_FALSE(nmb_type_system_from_json_string(R"({"version": "1.3.0", "schemas": []})"));
    EXPECT_FALSE(nmb_type_system_from_json_string(R"({"version": "1.5.0"})"));
    EXPECT_FALSE(nmb_type_system_from_json_string("nope"));
  });
  EXPECT_NE(log.find("[ts] Failed to deserialize: schema is not a JSON object"), std::string::npos);
  EXPECT_NE(log.find("schema version 1.3.0 is incompatible with the deserializer, the minimal "
                     "supported schema version is 1.4.0"),
            std::string::npos);
  EXPECT_NE(
      log.find(
          "[schema writer] schema was not recognized as either type system or counters schema"),
      std::string::npos);
  EXPECT_NE(log.find("Failed parsing schema JSON string"), std::string::npos);
}

}  // namespace
