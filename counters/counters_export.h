// Counters blocks as JSON: each loaded counters schema is compiled once into a
// plan (counters/counters_plan.h) and the JSON text between its values
// (counters/counters_json_text.h), so a block is written in one pass over its
// counters, with no key search and no allocation per value.
// Stage: writer.
#pragma once

#include <memory>
#include <string>

#include "counters/counters_schema.h"
#include "data/bytes.h"

struct nmb_metadata_t;  // filter/metadata.h

// The compiled plan of a counters schema.
struct nmb_counters_plan_t;
struct nmb_counters_plan_deleter {
  void operator()(nmb_counters_plan_t* plan) const;
};
using nmb_counters_plan_ptr = std::unique_ptr<nmb_counters_plan_t, nmb_counters_plan_deleter>;

// With metadata (-M), every counter set is written as an array of one-member
// objects: each counter under its shown name, with its "indexes" and
// "labels" when its entry has them. Every name is looked up here, once, so a
// block is still written in one pass. The plan keeps no reference to the
// schema's or the metadata's strings.
nmb_counters_plan_ptr nmb_counters_plan_create(const nmb_counters_schema_t& schema,
                                               const nmb_metadata_t* metadata = nullptr);

// Appends the block as one JSON object (pretty or compact) to out; false when
// a value cannot be a JSON value (out is then cut back to where it was).
bool nmb_counters_block_to_json(std::string& out, nmb::ByteView block,
                                const nmb_counters_plan_t& plan, bool microsecond_precision,
                                bool pretty);
