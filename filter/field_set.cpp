#include "filter/field_set.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "filter/set_file.h"
#include "utils/log.h"

namespace nmb {

namespace {

constexpr const char* kDefaultType = "default";

// A type whose name is this is never traced as (not) of interest: it is
// asked about too often to be worth the lines.
constexpr const char* kQuietType = "power";

std::string without_anchors(std::string_view pattern) {
  std::string key;
  for (char c : pattern) {
    if (c != '^' && c != '$') key += c;
  }
  return key;
}

}  // namespace

// The lines between two section headers form a block; a type name is given
// the blocks of the headers that name it, so that a header naming many types
// costs its length once and not once per following line. A block is made
// when the first line applies to it: a header followed by no line costs only
// its names.
struct FieldSet::Rules {
  struct Block {
    std::vector<FieldSetToken> tokens;
    MetaMap aliases;
    MetaMap constants;
  };
  std::vector<Block> blocks;
  // The entries of tokens_by_type_: the types some line applied to.
  std::map<std::string, std::vector<size_t>, std::less<>> blocks_by_type;
  std::vector<std::string> sections;
  // The first position in `sections` of each name, and of the text before
  // the "*" of each prefix section, with the lengths of those texts. The
  // keys view the names in `sections`, which never change once indexed.
  std::unordered_map<std::string_view, size_t> first_exact;
  std::unordered_map<std::string_view, size_t> first_prefix;
  std::set<size_t> prefix_lengths;
  bool default_has_entry = false;

  // While reading: the names of the last header (views of the text read),
  // and whether a block was made for them.
  std::vector<std::string_view> current{kDefaultType};
  bool current_has_block = false;

  Rules() = default;
  Rules(const Rules&) = delete;
  Rules& operator=(const Rules&) = delete;

  void appendTokens(std::string_view type, TokenList& out) const {
    auto found = blocks_by_type.find(type);
    if (found == blocks_by_type.end()) return;
    for (size_t block : found->second) {
      for (const FieldSetToken& token : blocks[block].tokens) out.push_back(&token);
    }
  }
  // The meta map of one type: its blocks' entries, a later one replacing.
  MetaMap metaOf(const std::vector<size_t>& type_blocks, MetaMap Block::*member) const {
    MetaMap merged;
    for (size_t block : type_blocks) {
      for (const auto& [key, value] : blocks[block].*member) merged[key] = value;
    }
    return merged;
  }

  void parseLine(std::string_view line);
  void startSection(std::string_view names);
  Block& currentBlock();
  void indexSections();
};

void FieldSet::Rules::startSection(std::string_view names) {
  current.clear();
  current_has_block = false;
  // Names are taken as they stand between the commas, blanks included.
  size_t start = 0;
  for (;;) {
    const size_t comma = std::min(names.find(',', start), names.size());
    current.push_back(names.substr(start, comma - start));
    sections.emplace_back(current.back());
    if (comma == names.size()) break;
    start = comma + 1;
  }
}

FieldSet::Rules::Block& FieldSet::Rules::currentBlock() {
  if (!current_has_block) {
    const size_t block = blocks.size();
    blocks.emplace_back();
    for (std::string_view name : current) {
      // A type named twice in one header takes its lines once.
      std::vector<size_t>& type_blocks = blocks_by_type[std::string(name)];
      if (type_blocks.empty() || type_blocks.back() != block) type_blocks.push_back(block);
    }
    current_has_block = true;
  }
  return blocks.back();
}

void FieldSet::Rules::parseLine(std::string_view line) {
  if (line.front() == '[' && line.find(']') == line.size() - 1) {
    startSection(nmb_set_file_trim(line.substr(1, line.size() - 2)));
    return;
  }
  Block& block = currentBlock();
  const std::string text(line);
  const bool meta = nmb_set_file_read_meta_field_line(
      text, [&block](bool alias, const std::string& key, const std::string& value) {
        (alias ? block.aliases : block.constants)[key] = value;
      });
  if (meta) return;
  // caption=pattern: the pattern is the token (any further "=" stays in it),
  // and the field it names is shown under the caption.
  const size_t equal = line.find('=');
  std::string_view pattern = line;
  if (equal != std::string_view::npos) {
    pattern = pattern.substr(equal + 1);
    block.aliases[without_anchors(pattern)] = std::string(line.substr(0, equal));
  }
  block.tokens.push_back(FieldSetToken{std::string(pattern), nmb_filter_split_terms(pattern)});
}

void FieldSet::Rules::indexSections() {
  current.clear();  // views of the text read, which goes away
  first_exact.reserve(sections.size());
  for (size_t i = 0; i < sections.size(); ++i) {
    const std::string_view name = sections[i];
    first_exact.emplace(name, i);
    if (!name.empty() && name.back() == '*') {
      const std::string_view prefix = name.substr(0, name.size() - 1);
      first_prefix.emplace(prefix, i);
      prefix_lengths.insert(prefix.size());
    }
  }
  default_has_entry = blocks_by_type.contains(kDefaultType);
}

FieldSet::FieldSet(std::string name)
    : name_(std::move(name)), rules_(std::make_shared<const Rules>()) {}

bool FieldSet::load() {
  std::string text;
  if (!nmb_set_file_read(name_.c_str(), text)) {
    NMB_LOG(NMB_LOG_WARNING, "Cannot open field set file %s", name_.c_str());
    return false;
  }
  loadText(text);
  return true;
}

void FieldSet::loadText(std::string_view text) {
  // A ";" ends the line before anything else; blanks before a "#" stay, as
  // the line is trimmed before the comment is cut.
  std::vector<std::string_view> kept;
  SetFileLines lines(text);
  std::string_view line;
  while (lines.next(line)) {
    line = nmb_set_file_cut_at(line, ';');
    if (line.empty()) continue;
    line = nmb_set_file_cut_at(nmb_set_file_trim(line), '#');
    if (!line.empty()) kept.push_back(line);
  }
  if (nmb_log_enabled(NMB_LOG_DEBUG)) {
    nmb_log(NMB_LOG_DEBUG, "fset file %s", name_.c_str());
    for (std::string_view item : kept) {
      nmb_log(NMB_LOG_DEBUG, "%.*s", static_cast<int>(item.size()), item.data());
    }
    nmb_log(NMB_LOG_DEBUG, "-----------------------");
  }
  auto rules = std::make_shared<Rules>();
  for (std::string_view item : kept) rules->parseLine(item);
  rules->indexSections();
  rules_ = std::move(rules);
  dump();
}

bool FieldSet::isTypeOfInterest(const std::string& type_name,
                                const std::set<std::string>* names) const {
  const Rules& rules = *rules_;
  if (rules.sections.empty()) return true;
  const std::string_view name = type_name;
  if (rules.first_exact.contains(name)) return true;
  for (size_t length : rules.prefix_lengths) {
    if (length > name.size()) break;
    if (rules.first_prefix.contains(name.substr(0, length))) return true;
  }
  if (names != nullptr && names->contains(type_name)) return true;
  return rules.default_has_entry;
}

FieldSet::TokenList FieldSet::tokensFor(const std::string& type_name) const {
  const Rules& rules = *rules_;
  TokenList tokens;
  rules.appendTokens(type_name, tokens);
  // The first section in file order that takes the type decides; when it is
  // a prefix section, its tokens are the type's too.
  size_t taken_at = SIZE_MAX;
  const std::string_view name = type_name;
  auto exact = rules.first_exact.find(name);
  if (exact != rules.first_exact.end()) taken_at = exact->second;
  const std::string* prefix_section = nullptr;
  for (size_t length : rules.prefix_lengths) {
    if (length > name.size()) break;
    auto prefix = rules.first_prefix.find(name.substr(0, length));
    if (prefix != rules.first_prefix.end() && prefix->second <= taken_at) {
      taken_at = prefix->second;
      prefix_section = &rules.sections[prefix->second];
    }
  }
  if (prefix_section != nullptr) rules.appendTokens(*prefix_section, tokens);
  rules.appendTokens(kDefaultType, tokens);
  return tokens;
}

std::vector<FieldRecord> FieldSet::selectFields(const nmb_type_definition_t& type) const {
  std::vector<FieldRecord> records;
  records.reserve(type.fields.size());
  for (const nmb_type_field_definition_t& field : type.fields) {
    FieldRecord record;
    record.name = field.field_name;
    record.name_length = field.field_name.size();
    record.data_string_length = field.type_size * field.array_length;
    record.offset = field.offset;
    record.type_name = field.type_name;
    records.push_back(std::move(record));
  }
  const TokenList tokens = tokensFor(type.name);
  uint32_t kept = 0;
  if (tokens.empty()) {
    for (FieldRecord& record : records) record.order = ++kept;
    return records;
  }
  const bool traced = nmb_log_enabled(NMB_LOG_DEBUG);
  for (FieldRecord& record : records) {
    record.skip = 1;
    for (const FieldSetToken* token : tokens) {
      // Once a field is kept, later tokens only repeat their messages.
      if (record.skip == 0 && !traced) {
        nmb_filter_log_split_limit(token->terms);
        continue;
      }
      if (nmb_filter_apply_terms(record.name.c_str(), token->terms) && record.skip == 1) {
        record.skip = 0;
        record.order = ++kept;
      }
    }
  }
  return records;
}

void FieldSet::updateWithNewSchema(const nmb_type_system_t& ts, uint8_t schema_index) {
  updateWithNewSchemas(ts, {schema_index});
}

void FieldSet::updateWithNewSchemas(const nmb_type_system_t& ts,
                                    const std::vector<uint8_t>& indexes) {
  constexpr const char* kName = "updateWithNewSchemas";
  NMB_LOG(NMB_LOG_DEBUG, "[%s] updating fset with %zu new schemas", kName, indexes.size());
  for (uint8_t index : indexes) {
    const nmb_schema_t* schema = ts.schemas[index].get();
    if (schema == nullptr) continue;
    NMB_LOG(NMB_LOG_DEBUG, "[%s] new_schm_id = %d, adding schema = %s", kName, index,
            schema->name.c_str());
    if (!schema_names_.insert(schema->name).second) continue;
    NMB_LOG(NMB_LOG_DEBUG, "[%s] need to add schema '%s'", kName, schema->name.c_str());
    NMB_LOG(NMB_LOG_DEBUG, "types for td=%s", schema->name.c_str());
    for (unsigned t = 0; t < schema->num_types; ++t) {
      if (schema->types[t] == nullptr) {
        NMB_LOG(NMB_LOG_ERROR, "Type definition %u:%u not found", static_cast<unsigned>(index), t);
        continue;
      }
      NMB_LOG(NMB_LOG_DEBUG, "%s contains %s", schema->name.c_str(),
              schema->types[t]->name.c_str());
    }
    for (unsigned t = 0; t < schema->num_types; ++t) {
      const nmb_type_definition_t* type = schema->types[t].get();
      if (type == nullptr) continue;
      const bool interest = isTypeOfInterest(type->name);
      if (type->name != kQuietType) {
        NMB_LOG(NMB_LOG_DEBUG,
                interest ? "type [%s] is type of interest" : "type [%s] is not type of interest",
                type->name.c_str());
      }
      std::vector<FieldRecord> records;
      if (interest) {
        records = selectFields(*type);
        if (type->name.starts_with(NMB_FSET_SKIP_EMPTY_STRINGS_PREFIX)) {
          NMB_LOG(NMB_LOG_DEBUG, "[%s] Fields with empty strings will be skipped", kName);
          skip_empty_strings_ = true;
        }
      }
      fields_[index][static_cast<int>(t)] = std::move(records);
    }
  }
}

const std::vector<FieldRecord>* FieldSet::getFields(int schema_id, int type_id) const {
  NMB_LOG(NMB_LOG_DEBUG, "FieldSet::getFields: schema_id = %d type_id=%d", schema_id, type_id);
  auto schema = fields_.find(schema_id);
  if (schema == fields_.end()) return nullptr;
  auto type = schema->second.find(type_id);
  return type == schema->second.end() ? nullptr : &type->second;
}

std::vector<std::string> FieldSet::typesWithTokens() const {
  std::vector<std::string> types;
  for (const auto& entry : rules_->blocks_by_type) types.push_back(entry.first);
  return types;
}

FieldSet::TokenList FieldSet::ownTokens(const std::string& type_name) const {
  TokenList tokens;
  rules_->appendTokens(type_name, tokens);
  return tokens;
}

void FieldSet::dump() const {
  if (!nmb_log_enabled(NMB_LOG_DEBUG)) return;
  nmb_log(NMB_LOG_DEBUG, "tokens_by_type_:");
  for (const std::string& type : typesWithTokens()) {
    nmb_log(NMB_LOG_DEBUG, "\ttype = %s:", type.c_str());
    for (const FieldSetToken* token : ownTokens(type)) {
      nmb_log(NMB_LOG_DEBUG, "\t\t%s", token->text.c_str());
    }
  }
  for (auto [title, member] :
       {std::pair{"meta_fields_aliases_by_type_:", &Rules::Block::aliases},
        std::pair{"meta_fields_constants_by_type_:", &Rules::Block::constants}}) {
    nmb_log(NMB_LOG_DEBUG, "%s", title);
    for (const auto& entry : rules_->blocks_by_type) {
      const MetaMap meta = rules_->metaOf(entry.second, member);
      if (meta.empty()) continue;
      nmb_log(NMB_LOG_DEBUG, "\ttype = %s:", entry.first.c_str());
      for (const auto& [key, value] : meta) {
        nmb_log(NMB_LOG_DEBUG, "\t\t key : %s -> val : %s", key.c_str(), value.c_str());
      }
    }
  }
}

}  // namespace nmb
