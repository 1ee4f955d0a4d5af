// libFuzzer target: one labels block. The first byte is the start offset, the
// rest is the batch. A decoded block must lie inside the batch and be
// rebuilt byte for byte by the test builder from what was decoded; its values
// are then resolved against a fixed label values list.
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/fuzz_inputs.h"
#include "metrics/labels_block.h"
#include "tests/support/metrics_builder.h"

namespace {

using nmb::metrics::LabelEntry;
using nmb::metrics::LabelKind;

const std::vector<std::string> kLabelValues = {"node1", "", "mlx5_0", "port\xff"};

// The block the builder writes for what was decoded.
nmb::test::ByteVec rebuilt(char encoding, uint64_t label_set,
                           const std::vector<LabelEntry>& entries) {
  nmb::test::LabelsBlock block(encoding, static_cast<uint8_t>(label_set));
  for (const LabelEntry& entry : entries) {
    if (entry.kind == LabelKind::kLabelValueId) {
      block.id(static_cast<uint8_t>(entry.label_value_id));
    } else {
      block.text(entry.label_value);
    }
  }
  return block.bytes();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_labels");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint64_t start = data[0];
  // A buffer of exactly the batch's size, so that any read past it is seen.
  std::vector<uint8_t> batch(data + 1, data + size);
  uint64_t label_set = 0;
  std::vector<LabelEntry> entries;
  uint64_t end = 0;
  try {
    end = nmb::metrics::parse_labels_block(batch, start, label_set, entries, "fuzz");
  } catch (const std::runtime_error&) {
    return 0;
  }
  if (end > batch.size() || end < start + 3) std::abort();
  if (entries.size() != batch[start + 1]) std::abort();
  std::vector<uint8_t> again = rebuilt(static_cast<char>(batch[start + 2]), label_set, entries);
  if (again != std::vector<uint8_t>(batch.begin() + start, batch.begin() + end)) std::abort();

  try {
    std::vector<std::string> texts = nmb::metrics::decode_label_values(entries, kLabelValues);
    if (texts.size() != entries.size()) std::abort();
  } catch (const std::runtime_error&) {
  }
  return 0;
}
