#include "filter/counter_set.h"

#include <algorithm>
#include <new>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "filter/set_file.h"
#include "utils/log.h"

namespace {

// Adds one meta field; false (logged) when the list cannot grow.
bool add_meta_field(nmb_counter_set_t& set, nmb_meta_field_t field) {
  try {
    set.meta_fields.push_back(std::move(field));
    return true;
  } catch (const std::bad_alloc&) {
    NMB_LOG(NMB_LOG_ERROR, set.meta_fields.empty()
                               ? "[counter_set] allocation of meta_fields failed!"
                               : "[counter_set] reallocation of meta_fields failed!");
    return false;
  }
}

void add_alias(nmb_counter_set_t& set, const std::string& key, const std::string& value,
               const std::string& line) {
  NMB_LOG(NMB_LOG_DEBUG, "[counter_set] found meta alias field: key='%s' val='%s'", key.c_str(),
          value.c_str());
  nmb_meta_field_t field;
  field.name = value;
  field.builtin_field = nmb_builtin_field_from_name(key);
  if (field.builtin_field != NMB_BUILTIN_FIELD_NONE) {
    field.kind = NMB_META_FIELD_BUILTIN_ALIAS;
  } else {
    field.kind = NMB_META_FIELD_COUNTER_ALIAS;
    field.counter_name = key;
    field.hidden = 1;  // until the aliased counter is found
  }
  if (!add_meta_field(set, std::move(field))) {
    NMB_LOG(NMB_LOG_ERROR, "Meta field alias '%s' will be ignored", line.c_str());
  }
}

void add_constant(nmb_counter_set_t& set, const std::string& key, const std::string& value,
                  const std::string& line) {
  NMB_LOG(NMB_LOG_DEBUG, "[counter_set] found meta const field: key='%s' val='%s'", key.c_str(),
          value.c_str());
  nmb_meta_field_t field;
  field.kind = NMB_META_FIELD_CONSTANT;
  field.name = key;
  field.value = value;
  if (!add_meta_field(set, std::move(field))) {
    NMB_LOG(NMB_LOG_ERROR, "Meta constant field '%s' will be ignored", line.c_str());
  }
}

nmb_counter_element_t element_of(const nmb_counter_group_t& group,
                                 const nmb_counter_info_t& counter) {
  nmb_counter_element_t element;
  element.name = counter.name;
  const char* type = nmb_counter_data_type_name(counter.data_type);
  element.field_type = type != nullptr ? type : "";
  element.counter = &counter;
  element.offset = counter.offset;
  element.length = counter.length;
  element.count = group.num_counter_sets;
  element.counting_type = static_cast<uint32_t>(counter.counting_type);
  element.hidden = counter.hidden ? 1 : 0;
  return element;
}

// Gives the meta fields their shown or hidden state: a counter alias is
// shown once its counter is found; any meta field whose name is taken by a
// kept counter or a built-in field is hidden.
void resolve_meta_fields(nmb_counter_set_t& set) {
  std::unordered_map<std::string_view, size_t> first_by_name;
  std::unordered_set<std::string_view> kept_names;
  for (size_t i = 0; i < set.elements.size(); ++i) {
    first_by_name.emplace(set.elements[i].name, i);
    if (set.skip[i] == 0) kept_names.insert(set.elements[i].name);
  }
  set.filtered_meta_count = 0;
  for (nmb_meta_field_t& field : set.meta_fields) {
    if (field.kind == NMB_META_FIELD_COUNTER_ALIAS) {
      auto found = first_by_name.find(field.counter_name);
      if (found == first_by_name.end()) {
        field.hidden = 1;
        continue;
      }
      field.counter = set.elements[found->second];
    }
    if (nmb_builtin_field_from_name(field.name) != NMB_BUILTIN_FIELD_NONE ||
        kept_names.contains(field.name)) {
      field.hidden = 1;
      NMB_LOG(NMB_LOG_WARNING,
              "[counter_set] meta_field '%s' will not be shown during export. A counter with the "
              "same name already exists!",
              field.name.c_str());
      continue;
    }
    field.hidden = 0;
    ++set.filtered_meta_count;
  }
}

std::vector<nmb_cset_token_t> parse_tokens(const nmb_string_array_t& lines) {
  std::vector<nmb_cset_token_t> tokens;
  tokens.reserve(lines.size());
  for (const std::string& line : lines) tokens.push_back(nmb_cset_token_parse(line));
  return tokens;
}

}  // namespace

int nmb_builtin_field_from_name(std::string_view name) {
  if (name == "timestamp") return NMB_BUILTIN_FIELD_TIMESTAMP;
  if (name == "source") return NMB_BUILTIN_FIELD_SOURCE;
  if (name == "type") return NMB_BUILTIN_FIELD_TYPE;
  return NMB_BUILTIN_FIELD_NONE;
}

nmb_cset_token_t nmb_cset_token_parse(std::string_view line) {
  nmb_cset_token_t token;
  token.line = line;
  // Parts are the runs of text between "=" characters; three are enough to
  // know that the line cannot be parsed.
  std::string_view parts[3];
  size_t count = 0;
  size_t at = 0;
  while (count < 3) {
    while (at < line.size() && line[at] == '=') ++at;
    if (at == line.size()) break;
    const size_t end = std::min(line.find('=', at), line.size());
    parts[count++] = line.substr(at, end - at);
    at = end;
  }
  if (count == 1) {
    token.terms = nmb_filter_split_terms(parts[0]);
  } else if (count == 2) {
    token.caption = std::string(parts[0]);
    token.terms = nmb_filter_split_terms(parts[1]);
  }
  token.parsed = count == 1 || count == 2;
  return token;
}

bool nmb_cset_token_matches(const nmb_cset_token_t& token, const char* name) {
  if (!token.parsed) {
    NMB_LOG(NMB_LOG_ERROR, "Unable to parse counterset token %s", token.line.c_str());
    return false;
  }
  return nmb_filter_apply_terms(name, token.terms);
}

bool nmb_cset_tokens_select(const std::vector<nmb_cset_token_t>& tokens, const char* name,
                            std::optional<std::string>* caption) {
  bool kept = false;
  // Every line is applied, also once the name is kept, so that each line's
  // messages come for every name; only the first matching line decides.
  for (const nmb_cset_token_t& token : tokens) {
    if (nmb_cset_token_matches(token, name) && !kept) {
      kept = true;
      if (caption != nullptr && token.caption) *caption = token.caption;
    }
  }
  return kept;
}

int nmb_read_cset_file(nmb_counter_set_t& set, nmb_string_array_t& tokens) {
  std::string text;
  if (!nmb_set_file_read(set.name.c_str(), text)) {
    NMB_LOG(NMB_LOG_ERROR, "Cannot open counterset file '%s'", set.name.c_str());
    return -1;
  }
  return nmb_read_cset_text(set, text, tokens);
}

int nmb_read_cset_text(nmb_counter_set_t& set, std::string_view text, nmb_string_array_t& tokens) {
  tokens.clear();
  nmb::SetFileLines lines(text);
  std::string_view raw;
  while (lines.next(raw)) {
    // There is no escape: "#" always starts a comment.
    std::string line(nmb_set_file_trim(nmb_set_file_cut_at(raw, '#')));
    // Section header lines such as "[counters]" are ignored wherever they stand.
    if (line.empty() || line.front() == '[') continue;
    // A line that holds a meta field prefix but is not well formed for it
    // falls through to the other prefix and, failing that, is a token line.
    const bool meta = nmb_set_file_read_meta_field_line(
        line, [&](bool alias, const std::string& key, const std::string& value) {
          if (alias) {
            add_alias(set, key, value, line);
          } else {
            add_constant(set, key, value, line);
          }
        });
    if (meta) continue;
    tokens.push_back(std::move(line));
  }
  NMB_LOG(NMB_LOG_INFO, "Tokens from file '%s':", set.name.c_str());
  nmb_string_array_print(NMB_LOG_INFO, tokens, set.name.c_str());
  return 1;
}

std::unique_ptr<nmb_counter_set_t> nmb_counter_set_create(const nmb_counters_schema_t& schema,
                                                          const char* cset_filename) {
  try {
    auto set = std::make_unique<nmb_counter_set_t>();
    set->name = cset_filename != nullptr ? cset_filename : "default";
    for (const nmb_counter_group_t& group : schema.groups) {
      for (const nmb_counter_info_t& counter : group.counters) {
        set->elements.push_back(element_of(group, counter));
      }
    }
    set->skip.assign(set->elements.size(), 1);
    nmb_string_array_t lines;
    if (cset_filename != nullptr && nmb_read_cset_file(*set, lines) < 0) {
      NMB_LOG(NMB_LOG_INFO, "Cannot open '%s', will export whole counter set.", cset_filename);
    }
    if (lines.empty()) {
      set->skip.assign(set->elements.size(), 0);
      set->filtered_size = set->elements.size();
    } else {
      const std::vector<nmb_cset_token_t> tokens = parse_tokens(lines);
      for (size_t i = 0; i < set->elements.size(); ++i) {
        nmb_counter_element_t& element = set->elements[i];
        if (nmb_cset_tokens_select(tokens, element.name.c_str(), &element.caption)) {
          set->skip[i] = 0;
          ++set->filtered_size;
        }
      }
    }
    resolve_meta_fields(*set);
    nmb_counter_set_print(*set);
    return set;
  } catch (const std::bad_alloc&) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to allocate memory for counter_set");
    return nullptr;
  }
}

void nmb_counter_set_print(const nmb_counter_set_t& set) {
  if (!nmb_log_enabled(NMB_LOG_DEBUG)) return;
  nmb_log(NMB_LOG_DEBUG, "[PRINT COUNTER SET]");
  nmb_log(NMB_LOG_DEBUG, "name: %s", set.name.c_str());
  nmb_log(NMB_LOG_DEBUG, "filtered_size = %zu", set.filtered_size);
  for (size_t i = 0; i < set.elements.size(); ++i) {
    const nmb_counter_element_t& element = set.elements[i];
    nmb_log(NMB_LOG_DEBUG, "    elem: %zu", i);
    nmb_log(NMB_LOG_DEBUG, "      name         = %s", element.name.c_str());
    if (element.caption) {
      nmb_log(NMB_LOG_DEBUG, "      caption      = %s", element.caption->c_str());
    }
    nmb_log(NMB_LOG_DEBUG, "      skip         = %d", static_cast<int>(set.skip[i]));
    nmb_log(NMB_LOG_DEBUG, "      name_len     = %zu", element.name.size());
    nmb_log(NMB_LOG_DEBUG, "      offset       = %zu", static_cast<size_t>(element.offset));
    nmb_log(NMB_LOG_DEBUG, "      field_type   = %s", element.field_type.c_str());
  }
}
