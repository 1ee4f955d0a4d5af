// libFuzzer target: arbitrary bytes as one metrics block. Parses it with the
// debug dumps on (every log line is formatted), parses it again into the same
// tables (the label names map is updated in place and must come out the
// same), and writes its object in both JSON forms. A written object must be
// JSON that a parser accepts whenever its keys are valid UTF-8, and a block
// that fails while writing must leave nothing written.
#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/fuzz_inputs.h"
#include "metrics/metrics_export.h"
#include "metrics/metrics_parser.h"
#include "utils/json_writer.h"

namespace {

using nmb::metrics::MetricsTables;

bool valid_key(const std::string& key) {
  return nmb::json_is_valid_utf8(key.c_str(), std::strlen(key.c_str()));
}

// True when every key the object can hold is valid UTF-8.
bool keys_are_valid(const MetricsTables& tables) {
  for (const std::string& name : tables.metric_names)
    if (!valid_key(name)) return false;
  for (const auto& [set, names] : tables.label_names)
    for (const std::string& name : names)
      if (!valid_key(name)) return false;
  for (const auto& [name, value] : tables.common_labels)
    if (!valid_key(name)) return false;
  return true;
}

void write_both_forms(const MetricsTables& tables) {
  for (bool pretty : {false, true}) {
    std::string out;
    nmb::JsonWriter writer(out, pretty);
    bool written = false;
    try {
      written = nmb_metrics_to_json(writer, tables, pretty);
    } catch (const std::runtime_error&) {
    }
    if (!written) {
      if (!out.empty()) std::abort();  // a failed block writes nothing
      continue;
    }
    if (keys_are_valid(tables) && !nlohmann::json::accept(out)) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_metrics");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A buffer of exactly the block's size, so that any read past it is seen.
  std::vector<uint8_t> block(data, data + size);
  MetricsTables tables;
  std::string error;
  if (!nmb::metrics::parse_metrics_payload(block, tables, error)) {
    if (error.empty()) std::abort();
    return 0;
  }
  size_t samples = 0;
  for (const auto& batch : tables.batches) samples += batch.samples.size();
  if (samples * sizeof(nmb::metrics::Sample) > size) std::abort();

  MetricsTables again;
  again.label_names[0] = {"stale"};
  again.label_names[300] = {"stale"};
  if (!nmb::metrics::parse_metrics_payload(block, again, error)) std::abort();
  if (again.label_names != tables.label_names) std::abort();

  write_both_forms(tables);
  return 0;
}
