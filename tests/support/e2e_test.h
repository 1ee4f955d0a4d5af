// The fixture of the end-to-end tests: a temporary folder, its "schema"
// folder named with -s before the arguments of every run, and nmb_read run
// with standard error's log time prefixes removed (TZ=UTC unless the
// options set it).
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/run_binary.h"

namespace nmb::test {

class E2ETest : public ::testing::Test {
 protected:
  RunResult run(std::vector<std::string> args, const RunOptions& options = {}) const {
    args.insert(args.begin(), {"-s", schema_dir_});
    RunResult result = run_binary(NMB_READ_BINARY, args, options);
    result.err = strip_log_timestamps(result.err);
    return result;
  }

  TempDir dir_;
  std::string schema_dir_ = dir_.file("schema");
};

}  // namespace nmb::test
