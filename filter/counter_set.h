// Counter sets: the counters of a counters schema that a counter set file
// keeps, with the captions its token lines give them and the meta fields
// (aliases and constants) its meta field lines declare.
//
// A token line is "caption=terms" or "terms"; the terms are those of the
// term language (filter/terms.h). Lines are ORed: a counter is kept when
// some line's terms match its name, and the first such line gives its caption.
// Stage: model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "counters/counters_schema.h"
#include "filter/terms.h"
#include "utils/string_array.h"

enum nmb_meta_field_kind_t : int {
  NMB_META_FIELD_COUNTER_ALIAS = 0,
  NMB_META_FIELD_BUILTIN_ALIAS = 1,
  NMB_META_FIELD_CONSTANT = 2,
};

// The built-in record fields that meta fields can alias.
enum nmb_builtin_field_t : int {
  NMB_BUILTIN_FIELD_TIMESTAMP = 1,
  NMB_BUILTIN_FIELD_SOURCE = 2,
  NMB_BUILTIN_FIELD_TYPE = 3,
  NMB_BUILTIN_FIELD_NONE = 4,
};

// "timestamp", "source", "type" (exact), or NMB_BUILTIN_FIELD_NONE.
int nmb_builtin_field_from_name(std::string_view name);

// One counter of a counters schema in a counter set.
struct nmb_counter_element_t {
  std::string name;
  std::optional<std::string> caption;
  std::string field_type;                       // the counter's data type name
  const nmb_counter_info_t* counter = nullptr;  // the value descriptor
  uint32_t offset = 0;
  uint32_t length = 0;  // declared width
  uint32_t count = 0;   // the group's number of counter sets
  uint32_t counting_type = 0;
  uint8_t hidden = 0;
};

struct nmb_meta_field_t {
  int kind = NMB_META_FIELD_CONSTANT;
  std::string name;  // the name the field is exported under
  uint8_t hidden = 0;
  std::string counter_name;                    // counter alias: the aliased counter
  nmb_counter_element_t counter;               // counter alias: its attributes, once found
  int builtin_field = NMB_BUILTIN_FIELD_NONE;  // built-in alias
  std::string value;                           // constant
};

struct nmb_counter_set_t {
  std::string name;  // the file path, or "default"
  std::vector<nmb_meta_field_t> meta_fields;
  size_t filtered_meta_count = 0;  // meta fields shown
  std::vector<nmb_counter_element_t> elements;
  std::vector<uint8_t> skip;  // per element, 1 = filtered out
  size_t filtered_size = 0;   // elements kept
};

// One token line, parsed once. Applying it to a name logs what parsing the
// line afresh logs, so a line that cannot be parsed is reported again for
// every counter tested.
struct nmb_cset_token_t {
  std::string line;
  bool parsed = false;  // false: no part, or three parts or more
  std::optional<std::string> caption;
  nmb_filter_terms_t terms;
};

// Splits a token line at runs of "=" (none at either end gives a part).
nmb_cset_token_t nmb_cset_token_parse(std::string_view line);
// True when the line's terms match `name`; logs "Unable to parse counterset
// token ..." for a line that cannot be parsed, and the terms' limit message.
bool nmb_cset_token_matches(const nmb_cset_token_t& token, const char* name);
// Applies every token line to `name` in order; true when some line matched.
// The first matching line gives its caption, when it has one.
bool nmb_cset_tokens_select(const std::vector<nmb_cset_token_t>& tokens, const char* name,
                            std::optional<std::string>* caption);

// Reads the counter set file named by the set's name: the meta field lines
// fill the set's meta fields, the token lines go to `tokens`. 1, or -1 when
// the file cannot be opened.
int nmb_read_cset_file(nmb_counter_set_t& set, nmb_string_array_t& tokens);
// The same over text held in memory (the set's name names it in messages).
int nmb_read_cset_text(nmb_counter_set_t& set, std::string_view text, nmb_string_array_t& tokens);

// A counter set over every counter of `schema`, filtered by the file (every
// counter kept without a file name, without token lines, or when the file
// cannot be opened), with its meta fields resolved. Logs the set at debug
// level. Null when memory runs out.
std::unique_ptr<nmb_counter_set_t> nmb_counter_set_create(const nmb_counters_schema_t& schema,
                                                          const char* cset_filename);
// The debug dump of a set.
void nmb_counter_set_print(const nmb_counter_set_t& set);
