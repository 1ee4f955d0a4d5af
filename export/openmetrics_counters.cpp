#include "export/openmetrics_counters.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <string_view>
#include <utility>

#include "export/value_format.h"
#include "filter/metadata.h"
#include "utils/openmetrics_text.h"

namespace nmb::openmetrics {

namespace {

using Kind = nmb_counter_render_kind_t;

constexpr std::string_view kPrefix = "nmb_counters_";

CounterSeries::Value value_of(Kind kind) {
  switch (kind) {
    case Kind::kUnsignedNumber:
      return CounterSeries::Value::kUnsigned;
    case Kind::kSignedNumber:
      return CounterSeries::Value::kSigned;
    case Kind::kDoubleNumber:
      return CounterSeries::Value::kDouble;
    default:
      return CounterSeries::Value::kText;
  }
}

// An entry's pairs, a repeated name holding its last value at its first place.
std::vector<nmb_metadata_pair_t> last_values(const std::vector<nmb_metadata_pair_t>& pairs) {
  std::vector<nmb_metadata_pair_t> kept;
  for (const nmb_metadata_pair_t& pair : pairs) {
    bool replaced = false;
    for (nmb_metadata_pair_t& seen : kept) {
      if (seen.name != pair.name) continue;
      seen.value = pair.value;
      replaced = true;
    }
    if (!replaced) kept.push_back(pair);
  }
  return kept;
}

}  // namespace

CountersLayout compile_counters_layout(const nmb_counters_schema_t& schema,
                                       const nmb_metadata_t* metadata, Families& families,
                                       bool guid_switch) {
  CountersLayout layout;
  for (const nmb_counter_group_t& group : schema.groups) {
    // Two counters of a group that would be one series: the later one's
    // name gets "_2", "_3", ... appended.
    std::set<std::string> series_of_group;
    for (const nmb_counter_info_t& counter : group.counters) {
      CounterSeries series;
      series.render = nmb_counter_render_compile(counter);
      if (series.render.kind == Kind::kGuidSwitched)
        series.render.kind = guid_switch ? Kind::kHex : series.render.unswitched;
      series.value = value_of(series.render.kind);

      const nmb_metadata_entry_t* entry =
          metadata != nullptr ? nmb_metadata_find(*metadata, counter.name) : nullptr;
      const std::string_view shown = nmb_metadata_shown_name(entry, counter.name);
      LabelText labels;
      labels.take_name("source_id");
      labels.take_name("source_tag");
      labels.add("granularity", nmb_granularity_name(group.granularity));
      if (group.has_name) labels.add("group", group.name);
      if (entry != nullptr) {
        for (const auto& pair : last_values(entry->indexes)) labels.add(pair.name, pair.value);
        for (const auto& pair : last_values(entry->labels)) labels.add(pair.name, pair.value);
      }
      const bool text = series.value == CounterSeries::Value::kText;
      if (text) labels.take_name("value");

      std::string base(kPrefix);
      if (group.has_name && !group.name.empty()) base.append(group.name).push_back('_');
      base.append(shown);
      base = valid_name(base, false);
      std::string name = base;
      for (unsigned n = 2; !series_of_group.insert(name + labels.text).second; ++n)
        name = base + "_" + std::to_string(n);

      const FamilyType type = text ? FamilyType::kInfo
                              : counter.counting_type == NMB_COUNTING_TYPE_RUNNING_SUM
                                  ? FamilyType::kCounter
                                  : FamilyType::kGauge;
      series.family = &families.declare(name, type);
      series.help = help_text(counter.description);
      series.labels = std::move(labels.text);
      series.writable = labels.writable;
      layout.series.push_back(std::move(series));
    }
  }
  return layout;
}

void append_series(std::string& out, const Family& family, std::string_view source_labels,
                   std::string_view labels) {
  out.append(family.sample_name);
  const size_t open = out.size();
  out.append(source_labels).append(labels);
  if (out.size() != open) {
    out[open] = '{';
    out.push_back('}');
  }
  out.push_back(' ');
}

namespace {

// The text ndjson shows for a text counter: a string's bytes up to a zero,
// or a formatter's text (which needs no escape) without its quotes.
std::string_view text_value(const nmb_counter_render_t& r, const ByteView& values,
                            std::string& format) {
  if (r.kind == Kind::kString) {
    std::span<const uint8_t> bytes = values.bytes(r.offset, r.length);
    std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return text.substr(0, text.find('\0'));
  }
  if ((r.kind == Kind::kUnsigned128 || r.kind == Kind::kSigned128) &&
      r.format != NMB_STRING_FORMAT_HEXADECIMAL && r.format != NMB_STRING_FORMAT_UUID &&
      r.format != NMB_STRING_FORMAT_BINARY) {
    // The plain hex digits json shows: the hexadecimal form without its
    // "0x", which skips the warning the json output gives per value.
    uint8_t bytes[16];
    values.copy(r.offset, bytes, sizeof bytes);
    format.resize(NMB_VALUE_TEXT_ROOM);
    const size_t length =
        nmb_format_uint128_into(bytes, NMB_STRING_FORMAT_HEXADECIMAL, format.data());
    return std::string_view(format).substr(2, length - 2);
  }
  format.resize(nmb_counter_value_room(r, values));
  char* end = nmb_counter_value_write_any<false>(format.data(), r, values, false);
  if (end == nullptr || end - format.data() < 2) return {};
  return {format.data() + 1, static_cast<size_t>(end - format.data()) - 2};
}

// Every series' text before its value for the file's source labels:
// "<sample name>{<labels>} " (for a text counter, without "} ").
void bind_source(CountersLayout& layout, const std::string& source_labels) {
  layout.source = source_labels;
  layout.bound = true;
  layout.room = 0;
  for (CounterSeries& series : layout.series) {
    series.prefix.clear();
    append_series(series.prefix, *series.family, source_labels, series.labels);
    size_t value_room = kValueRoom;
    if (series.value == CounterSeries::Value::kText) {
      series.prefix.resize(series.prefix.size() - 2);
      // ",value=\"" + the text escaped (twice its bytes at most) + "\"} 1".
      const size_t text =
          series.render.kind == Kind::kString ? series.render.length : NMB_VALUE_TEXT_ROOM;
      value_room = 8 + 2 * text + 4;
    }
    layout.room += series.prefix.size() + value_room + kLineEndRoom;
  }
}

// Writes the block's lines at `at` (the layout's room); returns the end.
char* write_lines(char* at, const CountersLayout& layout, const ByteView& values,
                  std::string_view time, Scratch& scratch, SampleTally& tally) {
  for (const CounterSeries& series : layout.series) {
    if (!series.writable) {
      if (tally.unwritable++ == 0) tally.first_unwritable = series.family;
      continue;
    }
    char* const line = at;
    at = std::copy_n(series.prefix.data(), series.prefix.size(), at);
    const nmb_counter_render_t& r = series.render;
    const uint64_t bits =
        series.value == CounterSeries::Value::kText ? 0 : values.read<uint64_t, false>(r.offset);
    switch (series.value) {
      case CounterSeries::Value::kUnsigned:
        at = write_unsigned(at, bits);
        break;
      case CounterSeries::Value::kSigned:
        at = write_signed(at, static_cast<int64_t>(bits));
        break;
      case CounterSeries::Value::kDouble: {
        double value;
        std::memcpy(&value, &bits, sizeof value);
        at = write_double(at, value);
        break;
      }
      case CounterSeries::Value::kText: {
        const std::string_view text = text_value(r, values, scratch.format);
        if (!text.empty()) {
          at = std::copy_n(",value=\"", 8, at);
          at = write_label_value(at, text);
          if (at == nullptr) {
            if (tally.unwritable++ == 0) tally.first_unwritable = series.family;
            at = line;
            continue;
          }
          *at++ = '"';
        }
        at = std::copy_n("} 1", 3, at);
        break;
      }
    }
    at = std::copy_n(time.data(), time.size(), at);
  }
  return at;
}

}  // namespace

void write_counters_block(std::string& out, CountersLayout& layout, ByteView values,
                          uint64_t timestamp, const std::string& source_labels, Scratch& scratch,
                          SampleTally& tally) {
  if (!layout.bound || layout.source != source_labels) bind_source(layout, source_labels);
  char time[kLineEndRoom];
  const std::string_view line_end(time, write_line_end(time, timestamp));
  if (!layout.announced) {
    // Every family announced before its first line; then the block is
    // written as the others are.
    for (const CounterSeries& series : layout.series) {
      if (series.writable) Families::announce(out, *series.family, series.help);
    }
    layout.announced = true;
  }
  const size_t start = out.size();
  out.resize(start + layout.room);
  char* end = write_lines(out.data() + start, layout, values, line_end, scratch, tally);
  out.resize(static_cast<size_t>(end - out.data()));
}

}  // namespace nmb::openmetrics
