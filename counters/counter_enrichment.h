// Counters with metadata (-M): what stands for a counter in its set's array
// (its shown name and its entry's "indexes" and "labels" objects), compiled
// once per counter from the metadata, each entry's objects rendered once.
// Stage: plan.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

struct nmb_metadata_t;        // filter/metadata.h
struct nmb_metadata_entry_t;  // filter/metadata.h

namespace nmb {

// The "indexes" or "labels" object of a metadata entry: (key, value) as
// quoted JSON strings, a repeated key holding its last value at its first
// position.
using PairList = std::vector<std::pair<std::string, std::string>>;

// The object that stands for one counter in its counter set's array: its
// members in order, each the counter value (pairs == nullptr) or an
// "indexes" or "labels" object.
struct EnrichedMember {
  struct Part {
    std::string key;  // quoted and escaped
    std::shared_ptr<const PairList> pairs;
  };
  std::vector<Part> parts;
  // The shown name is "indexes" or "labels" and that object took the value's
  // place: the value is still built (it can fail the block), not written.
  bool value_hidden = false;
};

// Looks counter names up in the metadata and compiles their enriched form.
class CounterEnrichment {
 public:
  explicit CounterEnrichment(const nmb_metadata_t& metadata) : metadata_(metadata) {}

  EnrichedMember compile(std::string_view name);

 private:
  using Rendered = std::pair<std::shared_ptr<const PairList>, std::shared_ptr<const PairList>>;
  const nmb_metadata_t& metadata_;
  std::unordered_map<const nmb_metadata_entry_t*, Rendered> rendered_;
};

}  // namespace nmb
