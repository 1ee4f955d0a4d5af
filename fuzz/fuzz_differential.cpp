// libFuzzer target: the tool's json and ndjson output against the reference
// renderer. The input makes every choice of a random counters schema, event
// schema, metadata file and data file (tests/support/differential.h); any
// difference aborts with the case and the first differing bytes. The GUID
// switch is the environment's (set NMB_CONVERT_GUID_TO_HEX_STRING=0 to fuzz
// the switch off).
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "fuzz/fuzz_inputs.h"
#include "tests/support/differential.h"

namespace {
std::string g_dir;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("TZ", "UTC", 1);
  tzset();
  g_dir = nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_differential");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const nmb::test::Choose choose = [&](uint64_t bound) {
    return in.ConsumeIntegralInRange<uint64_t>(0, bound - 1);
  };
  const nmb::test::DifferentialResult result = nmb::test::run_differential_case(choose, g_dir);
  if (!result.agreed) {
    std::fprintf(stderr, "%s", result.report.c_str());
    std::abort();
  }
  return 0;
}
