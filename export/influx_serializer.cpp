#include "export/influx_serializer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <unordered_set>
#include <vector>

#include "data/type_system.h"
#include "export/event_plan.h"
#include "export/influx_line.h"
#include "export/value_format.h"
#include "utils/record_seq.h"

namespace nmb::data {

using Kind = nmb_value_kind_t;
using Shape = nmb_value_shape_t;

// The members of one type as fields, with their escaped keys.
struct InfluxSerializer::Members {
  struct Member {
    std::string key;
    const nmb_field_plan_t* field = nullptr;
    const Members* nested = nullptr;  // a nested type's members
  };
  std::vector<Member> members;
};

namespace {

constexpr std::string_view kEventTypeKey = "event_type";
constexpr std::string_view kSeqKey = "seq";
constexpr std::string_view kSourceIdKey = "source_id";
constexpr std::string_view kSourceTagKey = "source_tag";

enum class TagSource : uint8_t { kEventType, kSourceId, kSourceTag, kField };

bool is_integer(Kind kind) {
  return kind != Kind::kF32 && kind != Kind::kF64 && kind != Kind::kHex64 && kind != Kind::kNested;
}

// The text of one built-in number, 0 for a float that is not finite. In a
// field, unsigned 64-bit values above the signed range are written as the
// signed value of their bits (InfluxDB 1.x has no unsigned integers, and a
// field must keep one type); a tag is text and keeps the unsigned value.
size_t number_text(char (&text)[32], Kind kind, const ByteView& rec, uint64_t at, bool field) {
  char* end = text + sizeof text;
  std::to_chars_result r{text, {}};
  switch (kind) {
    case Kind::kU8:
      r = std::to_chars(text, end, rec.get<uint8_t>(at));
      break;
    case Kind::kI8:
      r = std::to_chars(text, end, rec.get<int8_t>(at));
      break;
    case Kind::kI16:
      r = std::to_chars(text, end, rec.get<int16_t>(at));
      break;
    case Kind::kI32:
      r = std::to_chars(text, end, rec.get<int32_t>(at));
      break;
    case Kind::kU16:
      r = std::to_chars(text, end, rec.get<uint16_t>(at));
      break;
    case Kind::kU32:
      r = std::to_chars(text, end, rec.get<uint32_t>(at));
      break;
    case Kind::kI64:
      r = std::to_chars(text, end, rec.get<int64_t>(at));
      break;
    case Kind::kU64:
      r = field ? std::to_chars(text, end, rec.get<int64_t>(at))
                : std::to_chars(text, end, rec.get<uint64_t>(at));
      break;
    case Kind::kF32: {
      const float v = rec.get<float>(at);
      if (std::isfinite(v)) r = std::to_chars(text, end, v);
      break;
    }
    case Kind::kF64: {
      const double v = rec.get<double>(at);
      if (std::isfinite(v)) r = std::to_chars(text, end, v);
      break;
    }
    case Kind::kHex64:
    case Kind::kNested:
      break;
  }
  return static_cast<size_t>(r.ptr - text);
}

void append_hex(std::string& out, const ByteView& rec, uint64_t at) {
  char hex[NMB_GUID_HEX_LENGTH + 1];
  nmb_format_guid_hex_into(rec.get<uint64_t>(at), hex);
  out.append(hex, NMB_GUID_HEX_LENGTH);
}

std::string_view char_string(const ByteView& rec, uint64_t at, uint32_t count) {
  std::string_view text = rec.chars(at, count);
  return text.substr(0, text.find('\0'));
}

// Writes the fields of one record.
class FieldWriter {
 public:
  FieldWriter(std::string& out, const ByteView& rec, std::string& prefix, bool guid_hex)
      : out_(out), rec_(rec), prefix_(prefix), guid_hex_(guid_hex) {}

  bool wrote_any() const { return !first_; }

  void members(const InfluxSerializer::Members& members, uint64_t base) {
    for (const auto& member : members.members) {
      const nmb_field_plan_t& field = *member.field;
      const size_t mark = prefix_.size();
      prefix_.append(member.key);
      const uint64_t at = base + field.offset;
      if (field.guid_like && guid_hex_) {
        begin_field();
        out_.push_back('"');
        append_hex(out_, rec_, at);
        out_.push_back('"');
      } else if (field.shape == Shape::kCharString) {
        begin_field();
        nmb_influx_append_string(out_, char_string(rec_, at, field.count));
      } else if (field.shape == Shape::kArray) {
        for (uint32_t k = 0; k < field.count; ++k) {
          char index[16] = {'_'};
          auto r = std::to_chars(index + 1, index + sizeof index, k);
          prefix_.append(index, r.ptr);
          element(member, at + k * field.stride);
          prefix_.resize(mark + member.key.size());
        }
      } else {
        element(member, at);
      }
      prefix_.resize(mark);
    }
  }

 private:
  void begin_field() {
    out_.push_back(first_ ? ' ' : ',');
    first_ = false;
    out_.append(prefix_);
    out_.push_back('=');
  }

  void element(const InfluxSerializer::Members::Member& member, uint64_t at) {
    const Kind kind = member.field->kind;
    if (kind == Kind::kNested) {
      if (member.nested == nullptr) return;
      prefix_.push_back('.');
      members(*member.nested, at);
      return;
    }
    if (kind == Kind::kHex64) {
      begin_field();
      out_.push_back('"');
      append_hex(out_, rec_, at);
      out_.push_back('"');
      return;
    }
    char text[32];
    const size_t length = number_text(text, kind, rec_, at, true);
    if (length == 0) return;  // not finite: the protocol has no such value
    begin_field();
    out_.append(text, length);
    if (is_integer(kind)) out_.push_back('i');
  }

  std::string& out_;
  const ByteView& rec_;
  std::string& prefix_;
  const bool guid_hex_;
  bool first_ = true;
};

}  // namespace

// What the lines of one record type share.
struct InfluxSerializer::TypeLines {
  struct Tag {
    std::string key;  // ",<escaped key>="
    TagSource source = TagSource::kField;
    std::string value;  // kEventType: the escaped type name
    const nmb_field_plan_t* field = nullptr;
  };
  std::string measurement;
  std::vector<Tag> tags;  // sorted by key
  Members fields;         // the members that are not tags, under their own keys
  nmb::RecordSeq seq;
};

InfluxSerializer::InfluxSerializer() = default;
InfluxSerializer::~InfluxSerializer() = default;

void InfluxSerializer::set_source(std::string_view source_id, std::string_view source_tag) {
  source_id_.clear();
  source_tag_.clear();
  nmb_influx_append_key(source_id_, source_id);
  nmb_influx_append_key(source_tag_, source_tag);
}

void InfluxSerializer::clear_types() {
  last_plan_ = nullptr;
  last_lines_ = nullptr;
  types_.clear();
  members_.clear();
}

const InfluxSerializer::Members& InfluxSerializer::members_of(const nmb_event_plan_t& plan) {
  auto [it, added] = members_.try_emplace(&plan);
  // Types that contain themselves are refused before their records get here.
  if (!added) return *it->second;
  it->second = std::make_unique<Members>();
  Members& members = *it->second;
  members.members.reserve(plan.members.size());
  for (const auto& field : plan.members) {
    Members::Member member;
    nmb_influx_append_key(member.key, field.name);
    member.field = &field;
    if (field.kind == Kind::kNested && field.nested != nullptr)
      member.nested = &members_of(*field.nested);
    members.members.push_back(std::move(member));
  }
  return members;
}

namespace {

// The names that no top-level member may keep: what the server reserves, an
// empty name, and the tags every line has.
bool is_reserved(std::string_view name) {
  return name.empty() || name == "time" || name == kEventTypeKey || name == kSeqKey ||
         name == kSourceIdKey || name == kSourceTagKey;
}

}  // namespace

InfluxSerializer::TypeLines& InfluxSerializer::lines_of(const nmb_event_plan_t& plan) {
  if (&plan == last_plan_) return *last_lines_;
  auto& slot = types_[&plan];
  if (!slot) {
    slot = std::make_unique<TypeLines>();
    TypeLines& lines = *slot;
    const bool guid_hex = nmb_event_guid_conversion_on();
    lines.measurement = nmb_influx_measurement(*plan.type);
    auto fixed = [&](std::string_view key, TagSource source) {
      TypeLines::Tag tag;
      tag.key.push_back(',');
      tag.key.append(key);
      tag.key.push_back('=');
      tag.source = source;
      if (source == TagSource::kEventType) nmb_influx_append_key(tag.value, plan.type->name);
      lines.tags.push_back(std::move(tag));
    };
    fixed(kEventTypeKey, TagSource::kEventType);
    fixed(kSourceIdKey, TagSource::kSourceId);
    fixed(kSourceTagKey, TagSource::kSourceTag);
    // A member named like a reserved key gets '_' appended until its name is
    // free ("time" becomes "time_").
    std::unordered_set<std::string> taken;
    for (const auto& field : plan.members) taken.insert(field.name);
    for (const auto& field : plan.members) {
      std::string name = field.name;
      if (is_reserved(name)) {
        do name.push_back('_');
        while (is_reserved(name) || taken.count(name) != 0);
        taken.insert(name);
      }
      std::string key;
      nmb_influx_append_key(key, name);
      if (nmb_field_plan_is_tag(field, guid_hex)) {
        lines.tags.push_back({"," + key + "=", TagSource::kField, {}, &field});
      } else {
        const Members* nested = field.kind == Kind::kNested && field.nested != nullptr
                                    ? &members_of(*field.nested)
                                    : nullptr;
        lines.fields.members.push_back({std::move(key), &field, nested});
      }
    }
    std::stable_sort(lines.tags.begin(), lines.tags.end(),
                     [](const auto& a, const auto& b) { return a.key < b.key; });
  }
  last_plan_ = &plan;
  last_lines_ = slot.get();
  return *slot;
}

bool InfluxSerializer::serialize(const nmb_event_plan_t& plan, ByteView record,
                                 uint64_t header_timestamp, std::string& out) {
  TypeLines& lines = lines_of(plan);
  const bool guid_hex = nmb_event_guid_conversion_on();
  const size_t mark = out.size();
  out.append(lines.measurement);
  const size_t tags_start = out.size();
  for (const auto& tag : lines.tags) {
    const size_t tag_mark = out.size();
    out.append(tag.key);
    const size_t value_start = out.size();
    switch (tag.source) {
      case TagSource::kEventType:
        out.append(tag.value);
        break;
      case TagSource::kSourceId:
        out.append(source_id_);
        break;
      case TagSource::kSourceTag:
        out.append(source_tag_);
        break;
      case TagSource::kField: {
        const nmb_field_plan_t& field = *tag.field;
        char text[32];
        if (field.guid_like && guid_hex) {
          append_hex(out, record, field.offset);
        } else if (field.shape == Shape::kCharString) {
          nmb_influx_append_key(out, char_string(record, field.offset, field.count));
        } else if (field.kind == Kind::kHex64) {
          append_hex(out, record, field.offset);
        } else {
          out.append(text, number_text(text, field.kind, record, field.offset, false));
        }
        break;
      }
    }
    if (out.size() == value_start) out.resize(tag_mark);  // no empty tag values
  }
  const uint64_t tags_hash = nmb::fnv1a(std::string_view(out).substr(tags_start));
  char number[32];
  auto r =
      std::to_chars(number, number + sizeof number, lines.seq.next(header_timestamp, tags_hash));
  out.append(",seq=");
  out.append(number, r.ptr);

  prefix_.clear();
  FieldWriter fields(out, record, prefix_, guid_hex);
  fields.members(lines.fields, 0);
  if (!fields.wrote_any()) {
    out.resize(mark);
    return false;
  }
  // The header time in microseconds, as nanoseconds.
  r = std::to_chars(number, number + sizeof number, header_timestamp);
  out.push_back(' ');
  out.append(number, r.ptr);
  out.append("000\n");
  return true;
}

}  // namespace nmb::data
