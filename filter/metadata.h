// Metadata of a counters schema (-M): a table of name entries, each a counter
// name pattern (a prefix, or a whole name when exact) with the index values
// the prefix stands for and labels. Counters export looks every counter name
// up once per schema load and shows a prefixed counter under the rest of its
// name, with its indexes and labels.
//
// A metadata file names its patterns with "$MATCH" placeholders that each
// match object fills in, so one pattern text can stand in thousands of
// entries. Expanded texts are therefore never materialized: an entry keeps
// its pieces (views into the loaded document) and a hash of the whole text,
// and loading stays linear in the size of the file, however long a pattern
// and however many its matches.
// Stage: model.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct nmb_metadata_pair_t {
  std::string_view name;
  std::string_view value;
};

struct nmb_metadata_entry_t {
  bool exact = false;  // matches the whole name only; otherwise a prefix
  size_t pattern_length = 0;
  std::vector<nmb_metadata_pair_t> indexes;  // (index name, index value)
  std::vector<nmb_metadata_pair_t> labels;   // (label name, label value)
};

// The table of one metadata file; the strings of its entries live as long as
// it does.
struct nmb_metadata_t;
struct nmb_metadata_deleter {
  void operator()(nmb_metadata_t* metadata) const;
};
using nmb_metadata_ptr = std::unique_ptr<nmb_metadata_t, nmb_metadata_deleter>;

// The metadata of the counters schema whose id reads `id_text`, looked up
// from the schema folder: "metadata/metadata_<id>.json" beside the folder,
// then "metadata_<id>.json" in it, then the first "metadata_*.json" in it by
// name. Nothing (no error) when none yields a table.
nmb_metadata_ptr nmb_metadata_locate(std::string_view schema_path, std::string_view id_text);
// One metadata file; nothing when it is missing, unreadable, not JSON, or
// holds no match object.
nmb_metadata_ptr nmb_metadata_load_file(const char* path);
// The same for a document already in memory; `path` names it in messages.
nmb_metadata_ptr nmb_metadata_load_text(std::string_view text, const char* path);

size_t nmb_metadata_size(const nmb_metadata_t& metadata);
const nmb_metadata_entry_t& nmb_metadata_entry(const nmb_metadata_t& metadata, size_t index);
// The expanded pattern text of an entry (built on demand; for tests and
// messages, never on the export path).
std::string nmb_metadata_entry_pattern(const nmb_metadata_t& metadata,
                                       const nmb_metadata_entry_t& entry);

// The entry for a counter name: the first exact entry equal to the name,
// else the longest non-empty prefix entry that begins it (the first of
// equally long ones), else nullptr. Time linear in the name's length.
const nmb_metadata_entry_t* nmb_metadata_find(const nmb_metadata_t& metadata,
                                              std::string_view name);
// The name a counter is shown under: without the prefix of a prefix entry,
// unless nothing would remain; the whole name otherwise.
std::string_view nmb_metadata_shown_name(const nmb_metadata_entry_t* entry, std::string_view name);
