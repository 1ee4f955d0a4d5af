// Field sets: which fields of which event types a field set file keeps.
//
//   port_rcv            tokens before any section apply to every type ("default")
//   [port, link]        the following lines apply to the types port and link
//   [net*]              ... and to every type whose name begins with net
//   rx=^port_rcv$       a token, and the alias port_rcv shown as rx
//   meta_field_alias:port_rcv=rx
//   meta_field_add:site=lab1
//
// A token is a term string of the term language (filter/terms.h); tokens are
// ORed, and the kept fields of a type are numbered in field order.
// Stage: model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "data/type_system.h"
#include "filter/terms.h"

// Event types whose names begin with this are exported without their empty
// string fields.
inline constexpr std::string_view NMB_FSET_SKIP_EMPTY_STRINGS_PREFIX = "vendor_";

namespace nmb {

// One field of a type as a field set sees it.
struct FieldRecord {
  std::string name;
  size_t name_length = 0;
  size_t data_string_length = 0;  // the bytes the field takes in a record
  uint64_t offset = 0;
  std::string type_name;
  uint8_t skip = 0;    // 1: dropped
  uint32_t order = 0;  // 1-based among the kept fields; 0 when dropped
};

// One token: its term string and the terms split from it once.
struct FieldSetToken {
  std::string text;
  nmb_filter_terms_t terms;
};

class FieldSet {
 public:
  using TokenList = std::vector<const FieldSetToken*>;
  using MetaMap = std::map<std::string, std::string>;

  // The rules read from a file; shared, never changed, by copies of a set.
  struct Rules;

  // A set without rules (it keeps every field of every type) until loaded.
  explicit FieldSet(std::string name);

  // Reads the file named by the set's name; false (logged) when it cannot.
  bool load();
  // Reads the rules from text held in memory.
  void loadText(std::string_view text);

  const std::string& name() const { return name_; }
  // Whether the fields of a type are looked at (otherwise none is kept).
  // `names` are more type names that take a type, as a section would.
  bool isTypeOfInterest(const std::string& type_name,
                        const std::set<std::string>* names = nullptr) const;
  // Builds the field records of every type of the schemas not seen yet.
  void updateWithNewSchema(const nmb_type_system_t& ts, uint8_t schema_index);
  void updateWithNewSchemas(const nmb_type_system_t& ts, const std::vector<uint8_t>& indexes);
  // The field records of one type; null when none were built.
  const std::vector<FieldRecord>* getFields(int schema_id, int type_id) const;
  // Set once a type of the vendor family has been selected.
  bool skipEmptyStrings() const { return skip_empty_strings_; }

  // The entries of tokens_by_type_, in name order: every type name that some
  // line other than a section header applied to.
  std::vector<std::string> typesWithTokens() const;
  // The tokens the lines of the file gave to one type name.
  TokenList ownTokens(const std::string& type_name) const;
  // Logs the rules at debug level.
  void dump() const;

 private:
  // The tokens a type of interest is tested with: its own, those of the
  // prefix section that took it, then those of "default".
  TokenList tokensFor(const std::string& type_name) const;
  std::vector<FieldRecord> selectFields(const nmb_type_definition_t& type) const;

  std::string name_;
  std::shared_ptr<const Rules> rules_;
  std::set<std::string> schema_names_;
  std::map<int, std::map<int, std::vector<FieldRecord>>> fields_;
  bool skip_empty_strings_ = false;
};

}  // namespace nmb
