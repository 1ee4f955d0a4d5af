#include "export/openmetrics_events.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <set>
#include <string_view>

#include "data/type_system.h"
#include "export/value_format.h"
#include "utils/openmetrics_text.h"

namespace nmb::openmetrics {

namespace {

using Kind = nmb_value_kind_t;
using Shape = nmb_value_shape_t;

constexpr std::string_view kPrefix = "nmb_events_";

bool is_timestamp(const nmb_field_plan_t& field) {
  return field.definition != nullptr && field.definition->type != nullptr &&
         field.definition->type->type_code == NMB_TYPE_TIMESTAMP;
}

FamilyType family_type(const nmb_field_plan_t& field) {
  return field.definition != nullptr &&
                 field.definition->counting_mode == NMB_COUNTING_MODE_RUNNING_SUM
             ? FamilyType::kCounter
             : FamilyType::kGauge;
}

class Compiler {
 public:
  Compiler(EventLayout& layout, Families& families, bool guid_switch, std::string type_name)
      : layout_(layout),
        families_(families),
        guid_switch_(guid_switch),
        type_(std::move(type_name)) {
    labels_.take_name("source_id");
    labels_.take_name("source_tag");
    labels_.take_name("seq");
  }

  void top(const nmb_event_plan_t& plan) {
    for (const nmb_field_plan_t& field : plan.members) {
      if (nmb_field_plan_is_tag(field, guid_switch_)) {
        label(field.name, field, field.offset);
      } else {
        member(field, field.name, 0);
      }
      if (layout_.time_offset < 0 && is_timestamp(field) && field.shape == Shape::kScalar)
        layout_.time_offset = static_cast<int64_t>(field.offset);
    }
  }

 private:
  void label(const std::string& path, const nmb_field_plan_t& field, uint64_t at) {
    EventLayout::Label label;
    label.key.append(",").append(labels_.take_name(path)).append("=\"");
    label.offset = at;
    label.count = field.count;
    label.kind = field.kind;
    if (field.guid_like && guid_switch_) {
      label.how = EventLayout::Label::How::kHex;
    } else if (field.shape == Shape::kCharString) {
      label.how = EventLayout::Label::How::kChars;
    } else if (field.kind == Kind::kHex64) {
      label.how = EventLayout::Label::How::kHex;
    } else {
      label.how = EventLayout::Label::How::kNumber;
    }
    layout_.labels.push_back(std::move(label));
  }

  void member(const nmb_field_plan_t& field, const std::string& path, uint64_t base) {
    const uint64_t at = base + field.offset;
    if ((field.guid_like && guid_switch_) || field.shape == Shape::kCharString) {
      label(path, field, at);
    } else if (field.shape == Shape::kArray) {
      for (uint32_t k = 0; k < field.count; ++k)
        element(field, path + "_" + std::to_string(k), at + k * field.stride);
    } else {
      element(field, path, at);
    }
  }

  void element(const nmb_field_plan_t& field, const std::string& path, uint64_t at) {
    if (field.kind == Kind::kNested) {
      if (field.nested == nullptr) return;
      for (const nmb_field_plan_t& inner : field.nested->members)
        member(inner, path + "_" + inner.name, at);
      return;
    }
    if (field.kind == Kind::kHex64) {
      label(path, field, at);
      return;
    }
    // Two values that would be one series: the later one's name gets "_2",
    // "_3", ... appended.
    const std::string base = valid_name(std::string(kPrefix) + type_ + "_" + path, false);
    std::string name = base;
    for (unsigned n = 2; !value_names_.insert(name).second; ++n)
      name = base + "_" + std::to_string(n);
    Family& family = families_.declare(name, family_type(field));
    layout_.values.push_back(
        {&family, help_text(field.definition != nullptr ? field.definition->description : ""), at,
         field.kind});
  }

  EventLayout& layout_;
  Families& families_;
  const bool guid_switch_;
  const std::string type_;
  LabelText labels_;
  std::set<std::string> value_names_;
};

char* write_number(char* out, Kind kind, const ByteView& rec, uint64_t at) {
  switch (kind) {
    case Kind::kU8:
      return write_unsigned(out, rec.get<uint8_t>(at));
    case Kind::kI8:
      return write_signed(out, rec.get<int8_t>(at));
    case Kind::kI16:
      return write_signed(out, rec.get<int16_t>(at));
    case Kind::kI32:
      return write_signed(out, rec.get<int32_t>(at));
    case Kind::kI64:
      return write_signed(out, rec.get<int64_t>(at));
    case Kind::kU16:
      return write_unsigned(out, rec.get<uint16_t>(at));
    case Kind::kU32:
      return write_unsigned(out, rec.get<uint32_t>(at));
    case Kind::kU64:
    case Kind::kHex64:
      return write_unsigned(out, rec.get<uint64_t>(at));
    case Kind::kF32:
      return write_double(out, rec.get<float>(at));
    case Kind::kF64:
      return write_double(out, rec.get<double>(at));
    case Kind::kNested:
      break;
  }
  return out;
}

// The label's value; false when it is not valid UTF-8.
bool append_label(std::string& out, const EventLayout::Label& label, const ByteView& rec) {
  const size_t mark = out.size();
  out.append(label.key);
  const size_t value_start = out.size();
  switch (label.how) {
    case EventLayout::Label::How::kChars: {
      std::string_view text = rec.chars(label.offset, label.count);
      if (!append_label_value(out, text.substr(0, text.find('\0')))) {
        out.resize(mark);
        return false;
      }
      break;
    }
    case EventLayout::Label::How::kHex: {
      char hex[NMB_GUID_HEX_LENGTH + 1];
      nmb_format_guid_hex_into(rec.get<uint64_t>(label.offset), hex);
      out.append(hex, NMB_GUID_HEX_LENGTH);
      break;
    }
    case EventLayout::Label::How::kNumber: {
      char text[kValueRoom];
      out.append(text, write_number(text, label.kind, rec, label.offset));
      break;
    }
  }
  if (out.size() == value_start) {
    out.resize(mark);  // an empty value is no label
  } else {
    out.push_back('"');
  }
  return true;
}

}  // namespace

EventLayout compile_event_layout(const nmb_event_plan_t& plan, Families& families,
                                 bool guid_switch) {
  EventLayout layout;
  Compiler(layout, families, guid_switch, plan.type->name).top(plan);
  return layout;
}

uint64_t event_time(const EventLayout& layout, ByteView record, uint64_t block_time) {
  if (layout.time_offset < 0) return block_time;
  return record.get<uint64_t>(static_cast<uint64_t>(layout.time_offset));
}

void write_event_record(std::string& out, EventLayout& layout, ByteView record, uint64_t time,
                        const std::string& source_labels, Scratch& scratch, SampleTally& tally) {
  std::string& labels = scratch.label;
  labels.assign(source_labels);
  for (const EventLayout::Label& label : layout.labels) {
    if (append_label(labels, label, record)) continue;
    if (!layout.values.empty() && tally.unwritable == 0)
      tally.first_unwritable = layout.values.front().family;
    tally.unwritable += layout.values.size();
    return;
  }
  // Any 64-bit hash tells label sets apart; this one reads 8 bytes a step.
  const uint32_t seq = layout.seq.next(time, std::hash<std::string_view>{}(labels));
  if (seq != 0) {
    char number[16];
    const auto r = std::to_chars(number, number + sizeof number, seq);
    labels.append(",seq=\"").append(number, r.ptr).push_back('"');
  }
  // "{<labels>} " once for all the record's values.
  if (labels.empty()) {
    labels.push_back(' ');
  } else {
    labels[0] = '{';
    labels.append("} ");
  }
  char stamp[kLineEndRoom];
  const size_t stamp_length = write_line_end(stamp, time);
  if (!layout.announced) {
    for (const EventLayout::Value& value : layout.values) {
      Families::announce(out, *value.family, value.help);
      layout.names_room += value.family->sample_name.size();
    }
    layout.announced = true;
  }
  // Every line written straight into room made once for the record.
  const size_t start = out.size();
  out.resize(start + layout.names_room +
             layout.values.size() * (labels.size() + kValueRoom + stamp_length));
  char* at = out.data() + start;
  for (const EventLayout::Value& value : layout.values) {
    const std::string& name = value.family->sample_name;
    at = std::copy_n(name.data(), name.size(), at);
    at = std::copy_n(labels.data(), labels.size(), at);
    at = write_number(at, value.kind, record, value.offset);
    at = std::copy_n(stamp, stamp_length, at);
  }
  out.resize(static_cast<size_t>(at - out.data()));
}

}  // namespace nmb::openmetrics
