#include "tests/support/reference_sink.h"

#include <cstring>

#include "data/type_system.h"

namespace nmb::test::reference {

void ReferenceSink::begin_run() {
  if (pretty_) out_ += "{";
}

void ReferenceSink::end_run(bool completed) {
  if (pretty_ && completed) out_ += "}";
}

bool ReferenceSink::file_opened(const char* /*path*/) {
  records_ = 0;
  ts_ = nullptr;
  enrich_ = false;
  return true;
}

void ReferenceSink::begin_data(const char* path, bool first) {
  if (!pretty_) return;
  std::string base = path;
  base = base.substr(base.rfind('/') + 1);
  base = base.substr(0, base.find('.'));
  out_ += (first ? "\"" : ",\"") + base + "\":[";
}

void ReferenceSink::end_data(bool ok) {
  if (pretty_ && ok) out_ += "]";
}

bool ReferenceSink::put(const std::optional<Value>& record) {
  if (!record) return false;
  std::string text;
  if (!write(text, *record, pretty_)) return false;
  if (pretty_ && records_ > 0) out_ += ",\n";
  out_ += text;
  if (!pretty_) out_ += "\n";
  return true;
}

bool ReferenceSink::counters_block(nmb::ByteView block) {
  Settings settings = settings_;
  settings.metadata = enrich_ ? &metadata_ : nullptr;
  const bool ok = put(reference::counters_block(*ts_->counters_schema, block, settings));
  ++records_;  // every counters block counts, written or not
  return ok;
}

size_t ReferenceSink::events_block(nmb::ByteView area) {
  // "NMBE", timestamp, schema index, type index (its low byte names the
  // type), number of records.
  auto byte = [&](size_t i) -> uint64_t { return i < area.readable() ? area.data()[i] : 0; };
  uint64_t timestamp = 0;
  for (int i = 7; i >= 0; --i) timestamp = (timestamp << 8) | byte(4 + i);
  const uint64_t schema_index = byte(12), type_index = byte(13), count = byte(15);
  const nmb_schema_t* schema = ts_ != nullptr && schema_index < ts_->num_schemas
                                   ? ts_->schemas[schema_index].get()
                                   : nullptr;
  const nmb_type_definition_t* type = schema != nullptr && type_index < schema->num_types
                                          ? schema->types[type_index].get()
                                          : nullptr;
  if (type == nullptr) return 0;
  const uint64_t length = area.size();
  if (count == 0 || length < 16 || type->size > length - 16) return 16;
  uint64_t offset = 16;
  for (uint64_t n = 0; n < count && type->size <= length - offset; ++n) {
    if (!put(event_record(*type, area.from(offset), timestamp, settings_))) return 0;
    ++records_;
    offset += type->size;
  }
  return offset;
}

}  // namespace nmb::test::reference
