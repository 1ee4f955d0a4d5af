#include "export/event_plan.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

#include "data/type_system.h"
#include "export/value_format.h"
#include "filter/patterns.h"
#include "utils/json_writer.h"
#include "utils/saturating.h"

namespace {

using Kind = nmb_value_kind_t;
using Shape = nmb_value_shape_t;

Kind builtin_kind(uint32_t code, bool has_guid) {
  switch (code) {
    case NMB_TYPE_BOOL:
    case NMB_TYPE_UNSIGNED_CHAR:
    case NMB_TYPE_UINT8:
      return Kind::kU8;
    case NMB_TYPE_CHAR:
    case NMB_TYPE_INT8:
      return Kind::kI8;
    case NMB_TYPE_SHORT:
    case NMB_TYPE_INT16:
      return Kind::kI16;
    case NMB_TYPE_INT:
    case NMB_TYPE_INT32:
      return Kind::kI32;
    case NMB_TYPE_LONG:
    case NMB_TYPE_LONG_LONG:
      return Kind::kI64;
    case NMB_TYPE_UNSIGNED_SHORT:
    case NMB_TYPE_UINT16:
      return Kind::kU16;
    case NMB_TYPE_UNSIGNED_INT:
    case NMB_TYPE_UINT32:
      return Kind::kU32;
    case NMB_TYPE_UNSIGNED_LONG:
    case NMB_TYPE_UINT64:
    case NMB_TYPE_UNSIGNED_LONG_LONG:
    case NMB_TYPE_INT64:
      return has_guid ? Kind::kHex64 : (code == NMB_TYPE_INT64 ? Kind::kI64 : Kind::kU64);
    case NMB_TYPE_FLOAT:
      return Kind::kF32;
    case NMB_TYPE_DOUBLE:
      return Kind::kF64;
    default:  // NMB_TYPE_TIMESTAMP
      return Kind::kU64;
  }
}

using PlanIndex = std::unordered_map<const nmb_type_definition_t*, nmb_event_plan_t*>;

nmb_field_plan_t plan_field(const nmb_type_field_definition_t& field, const PlanIndex& plans) {
  nmb_field_plan_t plan;
  plan.key = nmb::json_escape_key(field.field_name);
  plan.name = field.field_name;
  plan.offset = field.offset;
  plan.stride = field.type_size;
  plan.count = field.array_length;
  plan.index = field.index;
  plan.definition = &field;
  const nmb_type_definition_t* type = field.type;
  if (type == nullptr || type->type_code == NMB_TYPE_USER) {
    plan.kind = Kind::kNested;
    auto it = plans.find(type);
    plan.nested = it != plans.end() ? it->second : nullptr;
  } else {
    plan.kind = builtin_kind(type->type_code, nmb_name_has_guid(field.field_name.c_str()));
  }
  plan.guid_like = nmb_is_guid_field_name(field.field_name.c_str());
  const uint32_t code = type != nullptr ? type->type_code : NMB_TYPE_USER;
  if (plan.count == 1) {
    plan.shape = Shape::kScalar;
  } else if (code == NMB_TYPE_CHAR || code == NMB_TYPE_UNSIGNED_CHAR) {
    plan.shape = Shape::kCharString;
  } else {
    plan.shape = Shape::kArray;
  }
  return plan;
}

// Strings, floats and nested values may fail to build.
bool value_can_fail(const nmb_field_plan_t& field) {
  return field.shape == Shape::kCharString || field.kind == Kind::kNested ||
         field.kind == Kind::kF32 || field.kind == Kind::kF64;
}

// Bytes one element of a built-in kind reads.
uint64_t element_size(Kind kind) {
  switch (kind) {
    case Kind::kU8:
    case Kind::kI8:
      return 1;
    case Kind::kI16:
    case Kind::kU16:
      return 2;
    case Kind::kI32:
    case Kind::kU32:
    case Kind::kF32:
      return 4;
    case Kind::kNested:
      return 0;
    default:
      return 8;
  }
}

// Where the value's own reads end, counted from the object's start; offsets
// come from untrusted schemas, so an end beyond 64 bits is UINT64_MAX (no
// record holds it).
uint64_t value_read_end(const nmb_field_plan_t& field) {
  auto end_of = [&](uint64_t extent) {
    uint64_t end;
    return __builtin_add_overflow(field.offset, extent, &end) ? UINT64_MAX : end;
  };
  uint64_t end = field.guid_like ? end_of(8) : 0;
  uint64_t extent = 0;
  if (field.shape == Shape::kCharString) {
    extent = field.count;
  } else if (field.count != 0 && field.kind != Kind::kNested) {
    uint64_t span;
    if (__builtin_mul_overflow(uint64_t{field.count - 1}, field.stride, &span) ||
        __builtin_add_overflow(span, element_size(field.kind), &extent))
      extent = UINT64_MAX;
  }
  if (extent != 0) end = std::max(end, extent == UINT64_MAX ? UINT64_MAX : end_of(extent));
  return end;
}

void compile_plan(nmb_event_plan_t& plan, const nmb_type_definition_t& type,
                  const PlanIndex& plans) {
  plan.type = &type;
  std::vector<nmb_field_plan_t> replaced;
  // Member position by name: a type may hold a great many fields, and a
  // search per field would make compiling quadratic.
  std::unordered_map<std::string_view, size_t> position;
  position.reserve(type.fields.size());
  for (const auto& field : type.fields) {
    nmb_field_plan_t field_plan = plan_field(field, plans);
    auto [it, added] = position.emplace(field.field_name, plan.members.size());
    if (added) {
      plan.members.push_back(std::move(field_plan));
    } else {
      nmb_field_plan_t& member = plan.members[it->second];
      replaced.push_back(std::move(member));
      member = std::move(field_plan);
    }
  }
  for (auto& field : replaced) {
    if (value_can_fail(field)) plan.checks.push_back(std::move(field));
  }
  for (const auto& field : plan.members)
    plan.read_end = std::max(plan.read_end, value_read_end(field));
  for (const auto& field : plan.checks)
    plan.read_end = std::max(plan.read_end, value_read_end(field));
  for (size_t i = 0; i < plan.members.size(); ++i) {
    if (plan.members[i].name == "header_timestamp")
      plan.header_timestamp_member = static_cast<int>(i);
    if (plan.members[i].name == "@header_timestamp")
      plan.formatted_timestamp_member = static_cast<int>(i);
  }
}

// ---- how large a record can get ---------------------------------------------
//
// An upper bound of the text one record of a type is written as, in the pretty
// JSON form (the largest: it indents every line) and as Influx fields (every
// value carries its whole key path). Kept per type for the object written at
// depth 0; one level deeper adds 4 bytes to each of its lines, and a key
// prefix of p bytes adds p bytes to each of its values.

using nmb::saturating_add;
using nmb::saturating_mul;

constexpr uint64_t kNumberText = 24;  // "%1.17g" at most, or a quoted GUID hex

struct Cost {
  uint64_t bytes = 0;   // pretty JSON text of the members at depth 0
  uint64_t lines = 0;   // lines that one more level of depth indents
  uint64_t values = 0;  // Influx fields
  uint64_t influx = 0;  // Influx text of the fields, with no key prefix
};

enum class Visit : uint8_t { kNew, kOpen, kDone };

struct CostState {
  Visit visit = Visit::kNew;
  Cost cost;
  const nmb_event_plan_t* cyclic = nullptr;  // a type reached that contains itself
};

using CostMap = std::unordered_map<const nmb_event_plan_t*, CostState>;

// One element of a member: its text at the member's depth (pretty JSON) and
// its lines, and its Influx fields with their text.
Cost element_cost(const nmb_field_plan_t& field, const Cost& nested) {
  if (field.kind != Kind::kNested) return {kNumberText, 0, 1, kNumberText + 2};
  // "{", the members one level deeper, a newline, the indent and "}".
  return {saturating_add(saturating_add(nested.bytes, saturating_mul(nested.lines, 4)), 8),
          saturating_add(nested.lines, 1), nested.values, nested.influx};
}

// `guid_hex`: the GUID switch is on, so a GUID-named field is written as
// hex text whatever its type.
Cost member_cost(const nmb_field_plan_t& field, const Cost& nested, bool guid_hex) {
  const uint64_t key = field.key.size();
  const uint64_t name = 6 * static_cast<uint64_t>(field.name.size());  // escaped Influx key
  const uint64_t count = field.count;
  Cost c;
  // The member's own line: indent, key, ": ", and ",\n".
  c.bytes = 4 + key + 2 + 2;
  c.lines = 1;
  const bool hex = field.guid_like && guid_hex;
  if (field.shape == Shape::kCharString || hex) {
    const uint64_t text = hex ? kNumberText : 2 + 6 * count;
    c.bytes = saturating_add(c.bytes, text);
    c.values = 1;
    c.influx =
        saturating_add(name + 4, saturating_add(text, text));  // quotes and backslashes doubled
    return c;
  }
  const Cost element = element_cost(field, nested);
  if (field.shape == Shape::kScalar) {
    c.bytes = saturating_add(c.bytes, element.bytes);
    c.lines = saturating_add(c.lines, element.lines);
    c.values = element.values;
    c.influx = saturating_add(element.influx, saturating_mul(element.values, name + 1));
    return c;
  }
  // "[", per element a newline, the indent one level deeper and ",", then
  // the closing line.
  c.bytes = saturating_add(
      c.bytes, saturating_add(
                   saturating_mul(
                       count, saturating_add(element.bytes,
                                             saturating_add(saturating_mul(element.lines, 4), 10))),
                   8));
  c.lines = saturating_add(
      c.lines, saturating_add(saturating_mul(count, saturating_add(element.lines, 1)), 1));
  c.values = saturating_mul(count, element.values);
  // "_<index>" adds at most 6 bytes to every key.
  c.influx = saturating_mul(
      count, saturating_add(element.influx, saturating_mul(element.values, name + 1 + 6)));
  return c;
}

void compute_cost(const nmb_event_plan_t* plan, CostMap& costs, bool guid_hex) {
  CostState& state = costs[plan];
  if (state.visit == Visit::kDone) return;
  if (state.visit == Visit::kOpen) {
    state.cyclic = plan;
    return;
  }
  state.visit = Visit::kOpen;
  Cost total{2, 1, 0, 0};  // "{" ... "}"
  const nmb_event_plan_t* cyclic = nullptr;
  auto visit = [&](const nmb_field_plan_t& field) {
    Cost nested;
    if (field.kind == Kind::kNested && field.nested != nullptr && !(field.guid_like && guid_hex)) {
      compute_cost(field.nested, costs, guid_hex);
      const CostState& inner = costs[field.nested];
      if (inner.cyclic != nullptr && cyclic == nullptr) cyclic = inner.cyclic;
      nested = inner.cost;
    }
    const Cost c = member_cost(field, nested, guid_hex);
    total = {saturating_add(total.bytes, c.bytes), saturating_add(total.lines, c.lines),
             saturating_add(total.values, c.values), saturating_add(total.influx, c.influx)};
  };
  for (const auto& field : plan->members) visit(field);
  for (const auto& field : plan->checks) visit(field);
  CostState& done = costs[plan];  // the map may have grown
  if (done.cyclic != nullptr && cyclic == nullptr) cyclic = done.cyclic;
  done.cost = total;
  done.cyclic = cyclic;
  done.visit = Visit::kDone;
}

std::string refusal_of(const nmb_event_plan_t& plan, const nmb_schema_t& schema, CostMap& costs,
                       bool guid_hex) {
  compute_cost(&plan, costs, guid_hex);
  const CostState& state = costs[&plan];
  if (state.cyclic != nullptr) {
    return "Type " + plan.type->name + " of schema " + schema.name + " cannot be exported: type " +
           state.cyclic->type->name + " contains itself";
  }
  // The two added timestamp members take well under 200 bytes.
  const uint64_t text = std::max(state.cost.bytes, state.cost.influx) + 200;
  if (text > NMB_MAX_RECORD_TEXT) {
    return "Type " + plan.type->name + " of schema " + schema.name +
           " cannot be exported: one record can expand to more than " +
           std::to_string(NMB_MAX_RECORD_TEXT) + " bytes of text";
  }
  return {};
}

}  // namespace

void nmb_event_plans_compile(const nmb_type_system_t& ts, const nmb_string_array_t& include,
                             const nmb_string_array_t& exclude, nmb_event_plans_t& out) {
  out.schemas_.clear();
  out.schemas_.resize(ts.num_schemas);
  for (uint32_t s = 0; s < ts.num_schemas; ++s) {
    const nmb_schema_t* schema = ts.schemas[s].get();
    if (schema == nullptr) continue;
    auto& plans = out.schemas_[s];
    plans.resize(schema->num_types);
    // Plans refer to the plans of nested types, so all exist before any is
    // filled.
    PlanIndex index;
    for (uint32_t t = 0; t < schema->num_types; ++t) {
      if (!schema->types[t]) continue;
      plans[t] = std::make_unique<nmb_event_plan_t>();
      index.emplace(schema->types[t].get(), plans[t].get());
    }
    for (uint32_t t = 0; t < schema->num_types; ++t) {
      if (!plans[t]) continue;
      const nmb_type_definition_t& type = *schema->types[t];
      compile_plan(*plans[t], type, index);
      plans[t]->id = static_cast<uint32_t>(out.all_.size());
      out.all_.push_back(plans[t].get());
      plans[t]->selected = nmb_type_name_is_selected(type.name.c_str(), include, exclude);
    }
    CostMap hex_costs;
    CostMap plain_costs;
    for (auto& plan : plans) {
      if (!plan) continue;
      plan->refusal = refusal_of(*plan, *schema, hex_costs, true);
      plan->refusal_guid_plain = refusal_of(*plan, *schema, plain_costs, false);
    }
  }
}

bool nmb_event_guid_conversion_on() {
  static const bool on = nmb_read_guid_conversion_switch();
  return on;
}

bool nmb_field_plan_is_tag(const nmb_field_plan_t& field, bool guid_hex) {
  if (field.guid_like && guid_hex) return field.index != 0;
  if (field.shape == nmb_value_shape_t::kCharString) return true;
  return field.index != 0 && field.shape == nmb_value_shape_t::kScalar &&
         field.kind != nmb_value_kind_t::kNested;
}
