// Differential runs: a random counters schema, event schema, metadata file and
// data file, exported by the tool's json and ndjson sinks and by the reference
// sink; the outputs must be equal byte for byte. Shared by the seeded unit
// test and the fuzz target, which differ only in where the choices come from.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace nmb::test {

// A number in [0, bound) for every choice the case makes (bound >= 1).
using Choose = std::function<uint64_t(uint64_t bound)>;

struct DifferentialResult {
  bool agreed = true;
  // When they differ: the schemas, the format and the first difference.
  std::string report;
};

// Builds one case in `dir` (files are overwritten) and compares the outputs.
// The GUID switch is the one the environment sets for this process.
DifferentialResult run_differential_case(const Choose& choose, const std::string& dir);

}  // namespace nmb::test
