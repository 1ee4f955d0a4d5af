// The tool's json and ndjson output against the reference renderer, over a
// fixed series of random schemas and blocks. The GUID switch is the
// environment's: the test command runs this test again with the switch off
// and with the two variables set against each other.
#include "tests/support/differential.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <random>

#include "tests/support/data_builder.h"

namespace {

TEST(Differential, FastWritersMatchTheReference) {
  setenv("TZ", "UTC", 1);
  tzset();
  nmb::test::TempDir dir("nmb_differential");
  // NMB_DIFFERENTIAL_CASES sets how many (the runs with other switch settings
  // take fewer).
  const char* cases = std::getenv("NMB_DIFFERENTIAL_CASES");
  const int kCases = cases != nullptr ? std::atoi(cases) : 2000;
  int failures = 0;
  for (int seed = 0; seed < kCases && failures < 3; ++seed) {
    std::mt19937_64 random(static_cast<uint64_t>(seed));
    const nmb::test::Choose choose = [&](uint64_t bound) { return random() % bound; };
    const nmb::test::DifferentialResult result =
        nmb::test::run_differential_case(choose, dir.path());
    if (!result.agreed) {
      ++failures;
      ADD_FAILURE() << "seed " << seed << ": " << result.report;
    }
  }
}

}  // namespace
