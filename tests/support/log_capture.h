// A test fixture whose logger writes to standard error at error level, with
// the lines between start() and logged() captured (timestamps removed).
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/support/run_binary.h"
#include "utils/log.h"

namespace nmb::test {

class LoggedTest : public testing::Test {
 protected:
  void SetUp() override { nmb_init_stderr_logger(NMB_LOG_ERROR); }
  void TearDown() override { nmb_logger_reset_for_tests(); }
  void start() { testing::internal::CaptureStderr(); }
  std::string logged() { return strip_log_timestamps(testing::internal::GetCapturedStderr()); }
};

}  // namespace nmb::test
