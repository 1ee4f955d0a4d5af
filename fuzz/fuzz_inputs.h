// The schema folder and the seed data files that the reader fuzzer starts from.
// Schema ids follow the schema texts, so the fuzzer and the seed writer agree.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tests/support/data_builder.h"

namespace nmb::fuzz {

struct FuzzSchemas {
  nmb::test::SchemaId counters;
  nmb::test::SchemaId events;
  nmb::test::SchemaId more_events;  // named by a schemas block
};

// Writes the counters schema and two event schemas into `dir`.
FuzzSchemas write_fuzz_schemas(const std::string& dir);
// The ids write_fuzz_schemas gives, without writing anything.
FuzzSchemas fuzz_schema_ids();
// The start-up every fuzz target shares: standard output goes to /dev/null,
// log messages are formatted (so that bad format arguments are found) and
// dropped, and a fresh folder under /dev/shm named after `prefix` is made and
// removed at exit. Returns the folder.
std::string quiet_fuzz_setup(const char* prefix);

// Named data files covering every block kind and both page encodings.
std::vector<std::pair<std::string, nmb::test::ByteVec>> fuzz_seed_files(const FuzzSchemas& ids);

}  // namespace nmb::fuzz
