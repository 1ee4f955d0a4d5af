// libFuzzer target: arbitrary bytes as a metadata file. Loads it (every log
// message formatted), then checks the lookup of counter names against a
// plain walk over the expanded patterns (when they are small enough to
// build), and writes a counters block of those names with the metadata in
// both JSON forms, which a JSON parser must accept.
#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "counters/counters_export.h"
#include "counters/counters_schema.h"
#include "filter/metadata.h"
#include "fuzz/fuzz_inputs.h"
#include "tests/support/data_builder.h"
#include "utils/json_writer.h"

namespace {

// Expanded patterns are built for the reference walk only up to this total.
constexpr size_t kMaxReferenceText = 1 << 20;

// The lookup rule written as a walk over the table.
const nmb_metadata_entry_t* reference_find(const nmb_metadata_t& md,
                                           const std::vector<std::string>& patterns,
                                           std::string_view name) {
  const nmb_metadata_entry_t* held = nullptr;
  for (size_t i = 0; i < patterns.size(); ++i) {
    const nmb_metadata_entry_t& entry = nmb_metadata_entry(md, i);
    if (entry.exact && patterns[i] == name) return &entry;
    if (!entry.exact && !patterns[i].empty() && name.starts_with(patterns[i]) &&
        (held == nullptr || patterns[i].size() > held->pattern_length))
      held = &entry;
  }
  return held;
}

// Names that meet the table's patterns: some fixed ones, and for the first
// entries their pattern, the pattern with more after it, and with less.
std::vector<std::string> counter_names(const nmb_metadata_t& md) {
  std::vector<std::string> names = {"", "a", "port_1_rcv", "dev_1_x", "indexes", "labels"};
  for (size_t i = 0; i < nmb_metadata_size(md) && i < 8; ++i) {
    const nmb_metadata_entry_t& entry = nmb_metadata_entry(md, i);
    if (entry.pattern_length > 4096) continue;
    std::string pattern = nmb_metadata_entry_pattern(md, entry);
    names.push_back(pattern + "_x");
    names.push_back(pattern + "indexes");
    std::string shorter = pattern.substr(0, pattern.empty() ? 0 : pattern.size() - 1);
    if (nmb::json_is_valid_utf8(shorter.data(), shorter.size())) names.push_back(shorter);
    names.push_back(std::move(pattern));
  }
  return names;
}

void check_lookup(const nmb_metadata_t& md, const std::vector<std::string>& names) {
  size_t total = 0;
  for (size_t i = 0; i < nmb_metadata_size(md); ++i)
    total += nmb_metadata_entry(md, i).pattern_length;
  if (total > kMaxReferenceText) return;
  std::vector<std::string> patterns;
  for (size_t i = 0; i < nmb_metadata_size(md); ++i)
    patterns.push_back(nmb_metadata_entry_pattern(md, nmb_metadata_entry(md, i)));
  for (const std::string& name : names) {
    if (nmb_metadata_find(md, name) != reference_find(md, patterns, name)) std::abort();
  }
}

void write_block(const nmb_metadata_t& md, const std::vector<std::string>& names) {
  nmb::test::CounterGroup group("g");
  nmb::test::Bytes values;
  for (size_t i = 0; i < names.size(); ++i) {
    group.counter(names[i]);
    values.u64(i);
  }
  const std::string text = nmb::test::CountersSchema().group(group).json();
  auto schema = nmb_counters_schema_from_text(text.data(), text.size());
  if (!schema) return;
  auto plan = nmb_counters_plan_create(*schema, &md);
  const nmb::test::ByteVec block = nmb::test::counters_block(1000, values);
  for (bool pretty : {false, true}) {
    std::string out;
    if (!nmb_counters_block_to_json(out, nmb::ByteView(block), *plan, false, pretty)) std::abort();
    if (!nlohmann::json::accept(out)) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_metadata");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  nmb_metadata_ptr md = nmb_metadata_load_text(text, "fuzz.json");
  if (!md) return 0;
  const std::vector<std::string> names = counter_names(*md);
  check_lookup(*md, names);
  write_block(*md, names);
  return 0;
}
