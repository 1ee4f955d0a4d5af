#include "tests/support/reference_render.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "counters/counters_schema.h"
#include "data/type_system.h"
#include "utils/json_writer.h"

namespace nmb::test::reference {

Value Value::array() {
  Value v;
  v.kind = Kind::kArray;
  return v;
}

void Value::set(std::string key, Value value) {
  key = key.substr(0, std::strlen(key.c_str()));  // keys are C strings too
  for (auto& member : members) {
    if (member.key == key) {
      member.value = std::move(value);
      return;
    }
  }
  members.push_back(Member{std::move(key), std::move(value)});
}

std::optional<Value> number(double value) {
  if (!std::isfinite(value)) return std::nullopt;
  Value v;
  v.kind = Value::Kind::kNumber;
  v.number = value;
  return v;
}

namespace {

// RFC 3629, one sequence at a time.
bool valid_utf8(const std::string& s) {
  size_t i = 0;
  while (i < s.size()) {
    const auto c = static_cast<unsigned char>(s[i]);
    size_t extra;
    uint32_t code;
    if (c < 0x80) {
      ++i;
      continue;
    } else if (c >= 0xC2 && c <= 0xDF) {
      extra = 1;
      code = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
      extra = 2;
      code = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      extra = 3;
      code = c & 0x07;
    } else {
      return false;
    }
    if (i + extra >= s.size()) return false;
    for (size_t k = 1; k <= extra; ++k) {
      const auto next = static_cast<unsigned char>(s[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    const uint32_t least[] = {0, 0x80, 0x800, 0x10000};
    if (code < least[extra] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += extra + 1;
  }
  return true;
}

}  // namespace

std::optional<Value> string(const std::string& bytes) {
  Value v;
  v.kind = Value::Kind::kString;
  v.text = bytes.substr(0, std::strlen(bytes.c_str()));
  if (!valid_utf8(v.text)) return std::nullopt;
  return v;
}

namespace {

bool write_value(nmb::JsonWriter& w, const Value& value) {
  switch (value.kind) {
    case Value::Kind::kObject:
      w.begin_object();
      for (const auto& member : value.members) {
        w.key(member.key);
        if (!write_value(w, member.value)) return false;
      }
      w.end_object();
      return true;
    case Value::Kind::kArray:
      w.begin_array();
      for (const auto& item : value.items)
        if (!write_value(w, item)) return false;
      w.end_array();
      return true;
    case Value::Kind::kString:
      return w.string(value.text);
    case Value::Kind::kNumber:
      return w.number(value.number);
  }
  return false;
}

bool is_letter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Reads through a record or block view: the bytes the buffer holds, then
// zeros; an offset that overflows reads zeros.
struct At {
  nmb::ByteView view;
  uint64_t base = 0;

  uint8_t byte(uint64_t offset) const {
    uint64_t at;
    if (__builtin_add_overflow(base, offset, &at) || at >= view.readable()) return 0;
    return view.data()[at];
  }
  uint64_t le(uint64_t offset, int size) const {
    uint64_t value = 0;
    for (int i = size - 1; i >= 0; --i) value = (value << 8) | byte(offset + i);
    return value;
  }
  At plus(uint64_t offset) const {
    uint64_t at;
    if (__builtin_add_overflow(base, offset, &at)) at = UINT64_MAX;
    return At{view, at};
  }
  // At most `limit` bytes up to the first zero.
  std::string text(uint64_t offset, uint64_t limit) const {
    std::string s;
    for (uint64_t i = 0; i < limit; ++i) {
      const uint8_t b = byte(offset + i);
      if (b == 0) break;
      s.push_back(static_cast<char>(b));
    }
    return s;
  }
};

std::string printed(const char* format, auto... args) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, format, args...);
  return buffer;
}

std::string hex64(uint64_t value) {
  return printed("0x%016lx", static_cast<unsigned long>(value));
}

std::string bits(uint64_t value, int count) {
  std::string s;
  for (int i = count - 1; i >= 0; --i) s.push_back((value >> i) & 1 ? '1' : '0');
  return s;
}

std::string format_u64(uint64_t value, int32_t format) {
  if (format == 2) return hex64(value);
  if (format == 4) return "0b" + bits(value, 64);
  return printed("%lu", static_cast<unsigned long>(value));
}

std::string format_i64(int64_t value, int32_t format) {
  if (format == 2) return hex64(static_cast<uint64_t>(value));
  if (format == 4) return "0b" + bits(static_cast<uint64_t>(value), 64);
  return printed("%ld", static_cast<long>(value));
}

std::string format_f64(int32_t format, double value) {
  if (format == 2 || format == 4) {
    uint64_t raw;
    std::memcpy(&raw, &value, sizeof raw);
    return format_u64(raw, format);
  }
  // The text is made in a 32-byte buffer: large values are cut to 31 bytes.
  char text[32];
  std::snprintf(text, sizeof text, "%.6f", value);
  return text;
}

std::string format_128(const uint8_t (&b)[16], int32_t format) {
  std::string hex;
  for (uint8_t byte : b) hex += printed("%02x", byte);
  if (format == 3) {
    return hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" +
           hex.substr(16, 4) + "-" + hex.substr(20);
  }
  if (format == 2) return "0x" + hex;
  if (format == 4) {
    std::string s = "0b";
    for (uint8_t byte : b) s += bits(byte, 8);
    return s;
  }
  return hex;
}

Value text_value(const std::string& text) {
  return *string(text);  // formatter text is ASCII
}

// One counter's value.
std::optional<Value> counter_value(const nmb_counter_info_t& counter, const At& values,
                                   bool guid_switch) {
  const std::string& name = counter.name;
  const int32_t format = counter.string_format;
  const At at = values.plus(counter.offset);
  const uint64_t raw = at.le(0, 8);
  if (guid_switch && guid_word(name) && format == 1) return text_value(hex64(raw));
  switch (counter.data_type) {
    case 1:    // UINT64
    case 3: {  // BIT64
      const bool hex = format == 0   ? counter.data_type == 3 || has_guid(name)
                       : format == 1 ? has_guid(name)
                                     : false;
      if (hex) return text_value(hex64(raw));
      if (format == 0 || format == 1) return number(static_cast<double>(raw));
      return text_value(format_u64(raw, format));
    }
    case 2: {  // FP64
      double value;
      std::memcpy(&value, &raw, sizeof value);
      if (format == 0 || format == 1) return number(value);
      return text_value(format_f64(format, value));
    }
    case 4:  // INT64
      if (format == 0 || format == 1) return number(static_cast<double>(static_cast<int64_t>(raw)));
      return text_value(format_i64(static_cast<int64_t>(raw), format));
    case 5:  // STRING
      return string(at.text(0, counter.length));
    case 6:    // UINT128
    case 7: {  // INT128
      uint8_t bytes[16];
      for (int i = 0; i < 16; ++i) bytes[i] = at.byte(i);
      return text_value(format_128(bytes, format == 0 ? 1 : format));
    }
    default:
      return number(static_cast<double>(static_cast<int64_t>(raw)));
  }
}

const MetadataEntry* find_entry(const std::vector<MetadataEntry>& entries,
                                const std::string& name) {
  const MetadataEntry* held = nullptr;
  for (const auto& entry : entries) {
    if (entry.exact) {
      if (entry.pattern == name) return &entry;
    } else if (!entry.pattern.empty() && name.starts_with(entry.pattern) &&
               (held == nullptr || entry.pattern.size() > held->pattern.size())) {
      held = &entry;
    }
  }
  return held;
}

Value pairs_object(const std::vector<std::pair<std::string, std::string>>& pairs) {
  Value object;
  for (const auto& [name, value] : pairs) object.set(name, text_value(value));
  return object;
}

// A counter set object becomes an array of one object per member.
Value enriched(const Value& set, const std::vector<MetadataEntry>& entries) {
  Value array = Value::array();
  for (const auto& [name, value] : set.members) {
    const MetadataEntry* entry = find_entry(entries, name);
    std::string shown = name;
    if (entry != nullptr && !entry->exact && name.size() > entry->pattern.size())
      shown = name.substr(entry->pattern.size());
    Value member;
    member.set(shown, value);
    if (entry != nullptr && !entry->indexes.empty())
      member.set("indexes", pairs_object(entry->indexes));
    if (entry != nullptr && !entry->labels.empty())
      member.set("labels", pairs_object(entry->labels));
    array.items.push_back(std::move(member));
  }
  return array;
}

std::optional<Value> builtin_value(uint32_t code, const At& at, const std::string& field_name) {
  const uint64_t u8 = at.le(0, 1), u16 = at.le(0, 2), u32 = at.le(0, 4), u64 = at.le(0, 8);
  switch (code) {
    case 1:
    case 7:
    case 18:
      return number(static_cast<double>(u8));
    case 2:
    case 14:
      return number(static_cast<int8_t>(u8));
    case 3:
    case 15:
      return number(static_cast<int16_t>(u16));
    case 4:
    case 16:
      return number(static_cast<int32_t>(u32));
    case 5:
    case 6:
      return number(static_cast<double>(static_cast<int64_t>(u64)));
    case 8:
    case 19:
      return number(static_cast<double>(u16));
    case 9:
    case 20:
      return number(static_cast<double>(u32));
    case 10:
    case 11:
    case 21:
      if (has_guid(field_name)) return text_value(hex64(u64));
      return number(static_cast<double>(u64));
    case 12: {
      float f;
      const auto raw = static_cast<uint32_t>(u32);
      std::memcpy(&f, &raw, sizeof f);
      return number(f);
    }
    case 13: {
      double d;
      std::memcpy(&d, &u64, sizeof d);
      return number(d);
    }
    case 17:
      if (has_guid(field_name)) return text_value(hex64(u64));
      return number(static_cast<double>(static_cast<int64_t>(u64)));
    case 22:
      return number(static_cast<double>(u64));
    default:
      return std::nullopt;
  }
}

std::optional<Value> record_object(const nmb_type_definition_t& type, const At& at,
                                   bool guid_switch);

std::optional<Value> element(const nmb_type_field_definition_t& field, const At& at,
                             bool guid_switch) {
  if (field.type->type_code == 0) return record_object(*field.type, at, guid_switch);
  return builtin_value(field.type->type_code, at, field.field_name);
}

std::optional<Value> field_value(const nmb_type_field_definition_t& field, const At& at,
                                 bool guid_switch) {
  if (field.array_length == 1) return element(field, at, guid_switch);
  const uint32_t code = field.type->type_code;
  if (code == 2 || code == 7) return string(at.text(0, field.array_length));
  Value array = Value::array();
  for (uint64_t k = 0; k < field.array_length; ++k) {
    // k * type_size may not fit: such an element reads past every buffer.
    uint64_t offset;
    At item =
        __builtin_mul_overflow(k, field.type_size, &offset) ? at.plus(UINT64_MAX) : at.plus(offset);
    auto value = element(field, item, guid_switch);
    if (!value) return std::nullopt;
    array.items.push_back(std::move(*value));
  }
  return array;
}

std::optional<Value> record_object(const nmb_type_definition_t& type, const At& at,
                                   bool guid_switch) {
  Value object;
  for (const auto& field : type.fields) {
    const At value_at = at.plus(field.offset);
    if (guid_switch && guid_word(field.field_name)) {
      object.set(field.field_name, text_value(hex64(value_at.le(0, 8))));
      continue;
    }
    auto value = field_value(field, value_at, guid_switch);
    if (!value) return std::nullopt;
    object.set(field.field_name, std::move(*value));
  }
  return object;
}

}  // namespace

bool write(std::string& out, const Value& value, bool pretty) {
  nmb::JsonWriter w(out, pretty);
  return write_value(w, value);
}

bool guid_word(const std::string& name) {
  const char* s = name.c_str();
  const size_t n = std::strlen(s);
  if (n < 4) return false;
  static const char kWord[] = "guid";
  size_t matched = 0;  // letters of the word matched so far
  for (size_t i = 0; i < n; ++i) {
    const bool starts_word = i == 0 || !is_letter(s[i - 1]);
    if (lower(s[i]) == kWord[matched] && (matched > 0 || starts_word)) {
      if (++matched < 4) continue;
      if (i + 1 == n || !is_letter(s[i + 1])) return true;
    }
    // A mismatch (or a match that is no whole word) starts over after this
    // character, which is not tried again as a new start.
    matched = 0;
  }
  return false;
}

bool has_guid(const std::string& name) {
  return std::strstr(name.c_str(), "guid") != nullptr ||
         std::strstr(name.c_str(), "GUID") != nullptr;
}

bool guid_switch_from_environment() {
  const char* value = std::getenv("NMB_CONVERT_GUID_TO_HEX_STRING");
  if (value == nullptr) value = std::getenv("CONVERT_GUID_TO_HEX_STRING");
  if (value == nullptr || value[0] == '\0') return true;
  const char c = lower(value[0]);
  return c == '1' || c == 't' || c == 'y';
}

std::optional<std::string> timestamp_text(uint64_t microseconds, bool six_digits) {
  const auto seconds = static_cast<time_t>(microseconds / 1000000);
  const auto fraction = static_cast<int>(microseconds % 1000000);
  std::tm tm{};
  if (localtime_r(&seconds, &tm) == nullptr) return std::nullopt;
  char text[96];
  std::snprintf(
      text, sizeof text,
      six_digits ? "%04d-%02d-%02d %02d:%02d:%02d.%06d" : "%04d-%02d-%02d %02d:%02d:%02d.%03d",
      tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
      six_digits ? fraction : fraction / 1000);
  return std::string(text);
}

std::optional<Value> counters_block(const nmb_counters_schema_t& schema, nmb::ByteView block,
                                    const Settings& settings) {
  const At header{block, 0};
  const At values{block, 16};
  const uint64_t timestamp = header.le(8, 8);
  Value object;
  object.set("timestamp", *number(static_cast<double>(timestamp)));
  if (auto text = timestamp_text(timestamp, settings.microseconds))
    object.set("@timestamp", text_value(*text));
  Value groups = Value::array();
  for (const auto& group : schema.groups) {
    Value g;
    const char* granularity = group.granularity == 0   ? "NODE"
                              : group.granularity == 1 ? "CPU"
                              : group.granularity == 2 ? "PACKAGE"
                                                       : "unknown";
    g.set("granularity", text_value(granularity));
    auto name = string(group.has_name ? group.name : "unset");
    if (!name) return std::nullopt;
    g.set("name", std::move(*name));
    Value sets = Value::array();
    for (uint32_t s = 0; s < group.num_counter_sets; ++s) {
      Value set;
      for (const auto& counter : group.counters) {
        auto value = counter_value(counter, values, settings.guid_switch);
        if (!value) return std::nullopt;
        set.set(counter.name, std::move(*value));
      }
      sets.items.push_back(settings.metadata ? enriched(set, *settings.metadata) : std::move(set));
    }
    g.set("counter_sets", std::move(sets));
    groups.items.push_back(std::move(g));
  }
  object.set("groups", std::move(groups));
  return object;
}

std::optional<Value> event_record(const nmb_type_definition_t& type, nmb::ByteView record,
                                  uint64_t header_timestamp, const Settings& settings) {
  auto object = record_object(type, At{record, 0}, settings.guid_switch);
  if (!object) return std::nullopt;
  object->set("header_timestamp", *number(static_cast<double>(header_timestamp)));
  if (auto text = timestamp_text(header_timestamp, settings.microseconds))
    object->set("@header_timestamp", text_value(*text));
  return object;
}

}  // namespace nmb::test::reference
