// Event records as Influx lines that InfluxDB 1.x stores one point each (the
// mapping is described in docs/INFLUX.md):
//   <measurement>,<tags sorted by key>,seq=<n> <fields> <header time in ns>
// Tags are the file's source id and source tag, the type name, the type's
// key (index) fields and char-array fields; fields are every other value.
// Everything a record needs that does not depend on its bytes (measurement,
// escaped keys, which member is a tag) is compiled per type on its first
// record; a record is then one pass with no allocation.
// Stage: writer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "data/bytes.h"

struct nmb_event_plan_t;

namespace nmb::data {

class InfluxSerializer {
 public:
  InfluxSerializer();
  ~InfluxSerializer();

  // The file header's source id and source tag (empty ones are left out).
  void set_source(std::string_view source_id, std::string_view source_tag);
  // The type system changed: the compiled types go, and so do the sequence
  // counts.
  void clear_types();

  // Appends the record's line and its newline to `out`. False, with nothing
  // appended, when the record leaves nothing to write.
  bool serialize(const nmb_event_plan_t& plan, ByteView record, uint64_t header_timestamp,
                 std::string& out);

  struct Members;
  struct TypeLines;

 private:
  const Members& members_of(const nmb_event_plan_t& plan);
  TypeLines& lines_of(const nmb_event_plan_t& plan);

  std::string source_id_;   // escaped
  std::string source_tag_;  // escaped
  std::unordered_map<const nmb_event_plan_t*, std::unique_ptr<Members>> members_;
  std::unordered_map<const nmb_event_plan_t*, std::unique_ptr<TypeLines>> types_;
  const nmb_event_plan_t* last_plan_ = nullptr;  // the type of the previous record
  TypeLines* last_lines_ = nullptr;
  std::string prefix_;  // the key path of nested values, reused
};

}  // namespace nmb::data
