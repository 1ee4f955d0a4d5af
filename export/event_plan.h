// Export plans of event record types. A plan holds, for every member of a
// type's record, everything that does not depend on the record or on the
// output format: its name and escaped key, where the value lies, how many
// elements it has and how each is rendered, and whether the type is selected
// by -i/-e. Plans are compiled by the output side for each loaded type
// system; a format compiles what it needs beyond them (event_json_layout.h)
// once per plan, and exporting a record is then one pass over its plan.
// Stage: plan.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "utils/string_array.h"

struct nmb_type_definition_t;
struct nmb_type_field_definition_t;
struct nmb_type_system_t;

// How one element is read and written.
enum class nmb_value_kind_t : uint8_t {
  kU8,
  kI8,
  kI16,
  kI32,
  kI64,
  kU16,
  kU32,
  kU64,
  kF32,
  kF64,
  kHex64,   // 64-bit integer of a field whose name has guid: "0x%016lx"
  kNested,  // a user type: a nested object
};

enum class nmb_value_shape_t : uint8_t {
  kScalar,      // array_length 1
  kCharString,  // char or unsigned char array: a string up to the first zero
  kArray,       // any other array
};

struct nmb_event_plan_t;

struct nmb_field_plan_t {
  std::string key;  // quoted and escaped
  std::string name;
  uint64_t offset = 0;
  uint64_t stride = 0;  // the field's type_size
  uint32_t count = 1;
  nmb_value_shape_t shape = nmb_value_shape_t::kScalar;
  nmb_value_kind_t kind = nmb_value_kind_t::kU8;
  // A GUID-like name: with the conversion switch on, 8 bytes at the offset as
  // "0x%016lx" whatever the shape and kind.
  bool guid_like = false;
  uint16_t index = 0;  // the field's position in the type's key (0: not a key field)
  const nmb_event_plan_t* nested = nullptr;
  // The field's definition in the loaded type system (its type, counting
  // mode and description).
  const nmb_type_field_definition_t* definition = nullptr;
};

// Whether a top-level member is a tag of the record (a label of its series)
// rather than a value: char strings always, and the type's key (index)
// fields that hold one value (a GUID-like one while the GUID switch is on).
bool nmb_field_plan_is_tag(const nmb_field_plan_t& field, bool guid_hex);

struct nmb_event_plan_t {
  const nmb_type_definition_t* type = nullptr;
  uint32_t id = 0;  // the plan's position in its set (nmb_event_plans_t::size)
  // One entry per distinct field name, at the position of its first
  // occurrence, describing its last occurrence (a later field of the same name
  // replaces the value in place).
  std::vector<nmb_field_plan_t> members;
  // Replaced occurrences whose value can fail to build (strings, floats,
  // nested values): the record still fails when one of them does, so they are
  // built and dropped.
  std::vector<nmb_field_plan_t> checks;
  // Members named like the two keys added to every top-level record: there
  // the added value replaces the field's (-1: no such member).
  int header_timestamp_member = -1;
  int formatted_timestamp_member = -1;
  // Bytes from the object's start that its own values read (nested objects
  // not counted): when the record holds that many, no read needs a check.
  uint64_t read_end = 0;
  bool selected = false;  // the -i/-e selection
  // Why records of this type cannot be written (a type that contains itself,
  // or one whose record would expand beyond the text bound); empty when they
  // can. Logged when a block uses the type. With the GUID switch off a
  // GUID-named field is written by its type, so the refusal may differ.
  std::string refusal;
  std::string refusal_guid_plain;
};

// The plans of one type system, found by schema and type index.
class nmb_event_plans_t {
 public:
  const nmb_event_plan_t* find(uint32_t schema_index, uint32_t type_index) const {
    if (schema_index >= schemas_.size() || type_index >= schemas_[schema_index].size())
      return nullptr;
    return schemas_[schema_index][type_index].get();
  }
  void clear() {
    schemas_.clear();
    all_.clear();
  }
  // Every plan, by id.
  size_t size() const { return all_.size(); }
  const nmb_event_plan_t& operator[](size_t id) const { return *all_[id]; }

 private:
  friend void nmb_event_plans_compile(const nmb_type_system_t&, const nmb_string_array_t&,
                                      const nmb_string_array_t&, nmb_event_plans_t&);
  std::vector<std::vector<std::unique_ptr<nmb_event_plan_t>>> schemas_;
  std::vector<const nmb_event_plan_t*> all_;
};

// Compiles the plans of every user type of the type system, with the -i/-e
// selection decided per type.
void nmb_event_plans_compile(const nmb_type_system_t& ts, const nmb_string_array_t& include,
                             const nmb_string_array_t& exclude, nmb_event_plans_t& out);

// The most text one record may be written as; a type whose record could
// expand beyond it is refused when a block uses it.
inline constexpr uint64_t NMB_MAX_RECORD_TEXT = uint64_t{256} << 20;

// The GUID conversion switch of event export, read from the environment when
// the first record is built (reading it may log the warning about conflicting
// variables, which belongs to the first export).
bool nmb_event_guid_conversion_on();
