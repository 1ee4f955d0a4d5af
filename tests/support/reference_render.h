// A reference renderer of counters blocks and event records, written plainly
// from the value rules: every value is built on its own into a small document
// tree (objects keep members in insertion order; setting a key again replaces
// the value in place), enriched as a tree, and only then written through the
// JSON text writer. No compiled plan, no formatter of the tool: the fast
// writers are checked against it (tests/support/differential.h).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "data/bytes.h"

struct nmb_counters_schema_t;
struct nmb_type_definition_t;

namespace nmb::test::reference {

// One JSON value of a record.
struct Value {
  enum class Kind { kObject, kArray, kString, kNumber };
  struct Member;
  Kind kind = Kind::kObject;
  std::vector<Member> members;  // objects
  std::vector<Value> items;     // arrays
  std::string text;             // strings
  double number = 0;            // numbers

  static Value array();
  // Set as a JSON object's member is: a key already present keeps its place.
  void set(std::string key, Value value);
};

struct Value::Member {
  std::string key;
  Value value;
};

// Values that cannot be JSON values (NaN, infinities, text that is not UTF-8)
// are not built: the record they belong to cannot be written.
std::optional<Value> number(double value);
std::optional<Value> string(const std::string& bytes);  // cut at its first zero byte

// Appends the value as JSON text (pretty or compact); false when the writer
// refuses a value.
bool write(std::string& out, const Value& value, bool pretty);

// The name rules for GUIDs: the whole word "guid" in any case (with the
// single-pass quirk: "gguid" is not one), and the exact-case substring test.
bool guid_word(const std::string& name);
bool has_guid(const std::string& name);
// The conversion switch as the environment sets it now.
bool guid_switch_from_environment();

// "%04d-%02d-%02d %02d:%02d:%02d" local time with 3 or 6 fraction digits;
// nothing when the time cannot be converted.
std::optional<std::string> timestamp_text(uint64_t microseconds, bool six_digits);

// One metadata entry, as the metadata file that the test wrote describes it.
struct MetadataEntry {
  std::string pattern;  // expanded
  bool exact = false;
  std::vector<std::pair<std::string, std::string>> indexes;
  std::vector<std::pair<std::string, std::string>> labels;
};

struct Settings {
  bool guid_switch = true;
  bool microseconds = false;
  const std::vector<MetadataEntry>* metadata = nullptr;  // -M
};

// A counters block (its 16-byte header, then the values area); nothing when a
// value cannot be built. Bytes past the view's readable end read as zeros.
std::optional<Value> counters_block(const nmb_counters_schema_t& schema, nmb::ByteView block,
                                    const Settings& settings);

// One event record of `type` at the start of `record`, with the two header
// timestamp members added.
std::optional<Value> event_record(const nmb_type_definition_t& type, nmb::ByteView record,
                                  uint64_t header_timestamp, const Settings& settings);

}  // namespace nmb::test::reference
