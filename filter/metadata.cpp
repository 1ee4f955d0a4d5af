#include "filter/metadata.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <utility>

#include "utils/json_input.h"
#include "utils/log.h"

namespace {

using nmb::Json;

// Strings of a document are C strings here: they end at their first zero byte.
std::string_view c_text(const std::string& text) {
  return std::string_view(text.c_str());
}

std::string_view text_of(const Json& value) {
  return value.is_string() ? c_text(value.get_ref<const std::string&>()) : std::string_view();
}

// The member `key` of an object when it has the kind asked for.
const Json* member(const Json& object, const char* key, Json::value_t kind) {
  if (!object.is_object()) return nullptr;
  auto found = object.find(key);
  return found != object.end() && found->type() == kind ? &*found : nullptr;
}

// Pattern texts are compared through a polynomial hash modulo the Mersenne
// prime 2^61 - 1: the hash of joined texts follows from the hashes and
// lengths of the parts, so an expanded pattern is hashed from its pieces
// without being built. Equal hashes are confirmed by comparing the texts.
constexpr uint64_t kModulus = (uint64_t{1} << 61) - 1;
constexpr uint64_t kBase = 1000003;

uint64_t mul_mod(uint64_t a, uint64_t b) {
  const unsigned __int128 product = static_cast<unsigned __int128>(a) * b;
  const uint64_t r =
      static_cast<uint64_t>(product & kModulus) + static_cast<uint64_t>(product >> 61);
  return r >= kModulus ? r - kModulus : r;
}

uint64_t add_mod(uint64_t a, uint64_t b) {
  const uint64_t r = a + b;
  return r >= kModulus ? r - kModulus : r;
}

uint64_t base_power(uint64_t exponent) {
  uint64_t result = 1;
  uint64_t factor = kBase;
  for (; exponent != 0; exponent >>= 1) {
    if (exponent & 1) result = mul_mod(result, factor);
    factor = mul_mod(factor, factor);
  }
  return result;
}

uint64_t hash_step(uint64_t hash, char c) {
  return add_mod(mul_mod(hash, kBase), static_cast<uint8_t>(c));
}

struct TextHash {
  uint64_t hash = 0;
  uint64_t length = 0;

  static TextHash of(std::string_view text) {
    TextHash h;
    for (char c : text) h.hash = hash_step(h.hash, c);
    h.length = text.size();
    return h;
  }
  void append(const TextHash& tail) {
    if (tail.length == 0) return;
    hash = add_mod(mul_mod(hash, base_power(tail.length)), tail.hash);
    length += tail.length;
  }
};

constexpr std::string_view kPlaceholder = "$MATCH";

// An item's pattern without its markers, cut at its placeholders: k
// placeholders leave k + 1 literal segments. A match with n values fills the
// first n placeholders; the segments from n on then follow one another (the
// tail), the remaining placeholders vanishing.
struct ItemPattern {
  bool exact = false;
  std::vector<std::string_view> segments;
  std::vector<TextHash> segment_hashes;
  std::vector<TextHash> tails;            // tails[j]: segments j..k joined
  std::vector<size_t> nonempty_segments;  // for comparing texts piece by piece

  explicit ItemPattern(std::string_view text) {
    if (!text.empty() && text.front() == '^') text.remove_prefix(1);
    if (!text.empty() && text.back() == '$') {
      text.remove_suffix(1);
      exact = true;
    }
    for (;;) {
      const size_t at = text.find(kPlaceholder);
      segments.push_back(text.substr(0, at));
      if (at == std::string_view::npos) break;
      text.remove_prefix(at + kPlaceholder.size());
    }
    segment_hashes.reserve(segments.size());
    for (size_t j = 0; j < segments.size(); ++j) {
      segment_hashes.push_back(TextHash::of(segments[j]));
      if (!segments[j].empty()) nonempty_segments.push_back(j);
    }
    tails.resize(segments.size() + 1);
    for (size_t j = segments.size(); j-- > 0;) {
      tails[j] = segment_hashes[j];
      tails[j].append(tails[j + 1]);
    }
  }
  size_t placeholders() const { return segments.size() - 1; }
};

// The expanded pattern of an entry: its non-empty pieces up to the last
// filled placeholder, then the item's segments from `tail` on.
struct EntryText {
  TextHash whole;
  std::vector<std::string_view> head;
  size_t item = 0;
  size_t tail = 0;
};

struct TextKey {
  uint64_t length;
  uint64_t hash;
  bool operator==(const TextKey&) const = default;
};
struct TextKeyHash {
  size_t operator()(const TextKey& key) const {
    return static_cast<size_t>(key.hash ^ (key.length * 0x9E3779B97F4A7C15ull));
  }
};

constexpr size_t kNoEntry = SIZE_MAX;

// Entries of one kind (exact or prefix) by pattern text: the first entry of
// each text, and through `next` the later ones with the same key, in table
// order.
struct EntryIndex {
  struct Chain {
    size_t first;
    size_t last;
  };
  std::unordered_map<TextKey, Chain, TextKeyHash> chains;
};

}  // namespace

struct nmb_metadata_t {
  Json document;  // every view of the entries points into it
  std::vector<ItemPattern> items;
  std::vector<nmb_metadata_entry_t> entries;
  std::vector<EntryText> texts;  // one per entry
  EntryIndex exact;
  EntryIndex prefix;
  std::vector<size_t> next;  // the next entry with the same key, or kNoEntry
};

void nmb_metadata_deleter::operator()(nmb_metadata_t* metadata) const {
  delete metadata;
}

namespace {

void add_entry(nmb_metadata_t& md, size_t item_index, const Json& match, const Json& values,
               const Json* item_index_names) {
  const ItemPattern& pattern = md.items[item_index];
  EntryText text;
  text.item = item_index;
  text.tail = std::min(pattern.placeholders(), values.size());
  for (size_t i = 0; i < text.tail; ++i) {
    const std::string_view segment = pattern.segments[i];
    const std::string_view value = text_of(values[i]);
    text.whole.append(pattern.segment_hashes[i]);
    text.whole.append(TextHash::of(value));
    if (!segment.empty()) text.head.push_back(segment);
    if (!value.empty()) text.head.push_back(value);
  }
  text.whole.append(pattern.tails[text.tail]);

  nmb_metadata_entry_t entry;
  entry.exact = pattern.exact;
  entry.pattern_length = static_cast<size_t>(text.whole.length);
  const Json* names = member(match, "index_names", Json::value_t::array);
  if (names == nullptr) names = item_index_names;
  if (names != nullptr) {
    const Json* index_values = member(match, "index_values", Json::value_t::array);
    const size_t count = std::min(names->size(), values.size());
    entry.indexes.reserve(count);
    for (size_t i = 0; i < count; ++i) {
      const bool own_value =
          index_values != nullptr && i < index_values->size() && (*index_values)[i].is_string();
      entry.indexes.push_back(
          {text_of((*names)[i]), text_of(own_value ? (*index_values)[i] : values[i])});
    }
  }
  if (const Json* labels = member(match, "labels", Json::value_t::object)) {
    entry.labels.reserve(labels->size());
    for (auto it = labels->begin(); it != labels->end(); ++it)
      entry.labels.push_back({c_text(it.key()), text_of(it.value())});
  }
  md.entries.push_back(std::move(entry));
  md.texts.push_back(std::move(text));
}

void index_entries(nmb_metadata_t& md) {
  md.next.assign(md.entries.size(), kNoEntry);
  for (size_t i = 0; i < md.entries.size(); ++i) {
    const nmb_metadata_entry_t& entry = md.entries[i];
    // An empty prefix would begin every name: it never matches.
    if (!entry.exact && entry.pattern_length == 0) continue;
    EntryIndex& index = entry.exact ? md.exact : md.prefix;
    const TextHash& whole = md.texts[i].whole;
    auto [at, inserted] =
        index.chains.try_emplace(TextKey{whole.length, whole.hash}, EntryIndex::Chain{i, i});
    if (!inserted) {
      md.next[at->second.last] = i;
      at->second.last = i;
    }
  }
}

// The table of a parsed document, or nothing when it holds no match object.
nmb_metadata_ptr build_table(Json document, const char* path) {
  nmb_metadata_ptr md(new nmb_metadata_t());
  md->document = std::move(document);
  const Json* content = member(md->document, "metadata_content", Json::value_t::object);
  const Json* counters = content ? member(*content, "counters", Json::value_t::object) : nullptr;
  const Json* list =
      counters ? member(*counters, "name_match_labels", Json::value_t::array) : nullptr;
  if (list == nullptr || list->empty()) return nullptr;
  size_t match_count = 0;
  for (const Json& item : *list) {
    if (const Json* matches = member(item, "matches_and_labels", Json::value_t::array))
      match_count += matches->size();
  }
  if (match_count == 0) return nullptr;

  for (size_t i = 0; i < list->size(); ++i) {
    const Json& item = (*list)[i];
    const Json* pattern = member(item, "pattern", Json::value_t::string);
    if (pattern == nullptr) {
      NMB_LOG(NMB_LOG_WARNING, "metadata: name_match_labels[%zu] missing 'pattern'; skipping", i);
      continue;
    }
    const Json* matches = member(item, "matches_and_labels", Json::value_t::array);
    if (matches == nullptr || matches->empty()) continue;
    const Json* item_index_names = member(item, "index_names", Json::value_t::array);
    md->items.emplace_back(text_of(*pattern));
    for (const Json& match : *matches) {
      const Json* values = member(match, "pattern_match", Json::value_t::array);
      if (values != nullptr) add_entry(*md, md->items.size() - 1, match, *values, item_index_names);
    }
  }
  index_entries(*md);
  NMB_LOG(NMB_LOG_INFO, "Loaded metadata with %d entries from %s",
          static_cast<int>(md->entries.size()), path);
  return md;
}

// Calls `piece` with each non-empty piece of an entry's expanded pattern, in
// order, until it returns false; false then.
template <typename Piece>
bool for_each_piece(const nmb_metadata_t& md, size_t index, Piece piece) {
  const EntryText& text = md.texts[index];
  for (std::string_view part : text.head)
    if (!piece(part)) return false;
  const ItemPattern& pattern = md.items[text.item];
  auto it = std::lower_bound(pattern.nonempty_segments.begin(), pattern.nonempty_segments.end(),
                             text.tail);
  for (; it != pattern.nonempty_segments.end(); ++it)
    if (!piece(pattern.segments[*it])) return false;
  return true;
}

bool pattern_equals(const nmb_metadata_t& md, size_t index, std::string_view name) {
  if (md.texts[index].whole.length != name.size()) return false;
  size_t at = 0;
  return for_each_piece(md, index, [&](std::string_view part) {
    if (name.compare(at, part.size(), part) != 0) return false;
    at += part.size();
    return true;
  });
}

// The first entry of `index` whose pattern is `text` (hashed as `key`).
const nmb_metadata_entry_t* first_with_text(const nmb_metadata_t& md, const EntryIndex& index,
                                            const TextKey& key, std::string_view text) {
  auto found = index.chains.find(key);
  if (found == index.chains.end()) return nullptr;
  for (size_t i = found->second.first; i != kNoEntry; i = md.next[i])
    if (pattern_equals(md, i, text)) return &md.entries[i];
  return nullptr;
}

// The folder a "metadata" folder beside the schema folder lives in.
std::string beside_schema_folder(std::string_view schema_path) {
  while (schema_path.size() > 1 && schema_path.back() == '/') schema_path.remove_suffix(1);
  const size_t slash = schema_path.rfind('/');
  if (slash == std::string_view::npos) return "./metadata";
  if (slash == 0) return "/metadata";
  return std::string(schema_path.substr(0, slash)) + "/metadata";
}

// The first "metadata_*.json" of the folder by name (byte order), so that
// the choice does not depend on the order the file system lists entries in.
nmb_metadata_ptr load_first_in_folder(std::string_view folder) {
  const std::string path(folder);
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(path.c_str()), &closedir);
  std::string first;
  while (dir != nullptr) {
    const dirent* entry = readdir(dir.get());
    if (entry == nullptr) break;
    const std::string_view name(entry->d_name);
    if (name.size() >= 15 && name.starts_with("metadata_") && name.ends_with(".json") &&
        (first.empty() || name < first))
      first = name;
  }
  if (first.empty()) {
    NMB_LOG(NMB_LOG_DEBUG, "No metadata JSON found in %s", path.c_str());
    return nullptr;
  }
  return nmb_metadata_load_file((path + "/" + first).c_str());
}

}  // namespace

nmb_metadata_ptr nmb_metadata_load_text(std::string_view text, const char* path) {
  NMB_LOG(NMB_LOG_DEBUG, "Loading metadata from %s", path);
  std::optional<Json> document = nmb::json_parse_text(text);
  if (!document) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to parse metadata JSON %s", path);
    return nullptr;
  }
  return build_table(std::move(*document), path);
}

nmb_metadata_ptr nmb_metadata_load_file(const char* path) {
  NMB_LOG(NMB_LOG_DEBUG, "Loading metadata from %s", path);
  // A candidate that does not exist is simply not there: only a file that
  // exists and cannot be read or parsed is worth an error.
  struct stat status;
  if (stat(path, &status) != 0 && (errno == ENOENT || errno == ENOTDIR)) return nullptr;
  std::optional<Json> document = nmb::json_parse_file(path);
  if (!document) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to parse metadata JSON %s", path);
    return nullptr;
  }
  return build_table(std::move(*document), path);
}

nmb_metadata_ptr nmb_metadata_locate(std::string_view schema_path, std::string_view id_text) {
  const std::string file_name = "/metadata_" + std::string(id_text) + ".json";
  if (!schema_path.empty()) {
    if (auto md = nmb_metadata_load_file((beside_schema_folder(schema_path) + file_name).c_str()))
      return md;
  }
  if (auto md = nmb_metadata_load_file((std::string(schema_path) + file_name).c_str())) return md;
  return load_first_in_folder(schema_path);
}

size_t nmb_metadata_size(const nmb_metadata_t& metadata) {
  return metadata.entries.size();
}

const nmb_metadata_entry_t& nmb_metadata_entry(const nmb_metadata_t& metadata, size_t index) {
  return metadata.entries.at(index);
}

std::string nmb_metadata_entry_pattern(const nmb_metadata_t& metadata,
                                       const nmb_metadata_entry_t& entry) {
  std::string text;
  for_each_piece(metadata, static_cast<size_t>(&entry - metadata.entries.data()),
                 [&](std::string_view part) {
                   text.append(part);
                   return true;
                 });
  return text;
}

const nmb_metadata_entry_t* nmb_metadata_find(const nmb_metadata_t& metadata,
                                              std::string_view name) {
  if (metadata.entries.empty()) return nullptr;
  // prefix[l]: the hash of the name's first l bytes.
  std::vector<uint64_t> prefix(name.size() + 1, 0);
  for (size_t i = 0; i < name.size(); ++i) prefix[i + 1] = hash_step(prefix[i], name[i]);
  if (const nmb_metadata_entry_t* entry = first_with_text(
          metadata, metadata.exact, TextKey{name.size(), prefix[name.size()]}, name))
    return entry;
  if (metadata.prefix.chains.empty()) return nullptr;
  for (size_t length = name.size(); length > 0; --length) {
    if (const nmb_metadata_entry_t* entry = first_with_text(
            metadata, metadata.prefix, TextKey{length, prefix[length]}, name.substr(0, length)))
      return entry;
  }
  return nullptr;
}

std::string_view nmb_metadata_shown_name(const nmb_metadata_entry_t* entry, std::string_view name) {
  if (entry == nullptr || entry->exact || entry->pattern_length >= name.size()) return name;
  return name.substr(entry->pattern_length);
}
