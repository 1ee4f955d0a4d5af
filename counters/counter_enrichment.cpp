#include "counters/counter_enrichment.h"

#include "filter/metadata.h"
#include "utils/json_writer.h"

namespace nmb {

namespace {

// The rendered "indexes" or "labels" object of an entry; nullptr when empty.
std::shared_ptr<const PairList> render_pairs(const std::vector<nmb_metadata_pair_t>& pairs) {
  if (pairs.empty()) return nullptr;
  auto list = std::make_shared<PairList>();
  std::unordered_map<std::string_view, size_t> position;
  for (const auto& pair : pairs) {
    auto [at, inserted] = position.emplace(pair.name, list->size());
    std::string value = json_escape_key(pair.value);
    if (inserted) {
      list->emplace_back(json_escape_key(pair.name), std::move(value));
    } else {
      (*list)[at->second].second = std::move(value);
    }
  }
  return list;
}

}  // namespace

EnrichedMember CounterEnrichment::compile(std::string_view name) {
  const nmb_metadata_entry_t* entry = nmb_metadata_find(metadata_, name);
  const std::string_view shown = nmb_metadata_shown_name(entry, name);
  EnrichedMember member;
  member.parts.push_back({json_escape_key(shown), nullptr});
  if (entry == nullptr) return member;
  auto [at, inserted] = rendered_.try_emplace(entry);
  if (inserted) at->second = {render_pairs(entry->indexes), render_pairs(entry->labels)};
  // Set as members of an object are: a key already present (the shown name
  // can be "indexes") keeps its position and takes the new value.
  std::vector<std::string_view> keys{shown};
  auto set = [&](std::string_view key, const std::shared_ptr<const PairList>& pairs) {
    if (!pairs) return;
    for (size_t i = 0; i < keys.size(); ++i) {
      if (keys[i] != key) continue;
      if (!member.parts[i].pairs) member.value_hidden = true;
      member.parts[i].pairs = pairs;
      return;
    }
    keys.push_back(key);
    member.parts.push_back({json_escape_key(key), pairs});
  };
  set("indexes", at->second.first);
  set("labels", at->second.second);
  return member;
}

}  // namespace nmb
