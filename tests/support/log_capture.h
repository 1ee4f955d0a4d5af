// Capturing what the logger writes to standard error, for the tests: the one
// place that uses gtest's capture. capture_stderr() starts a capture;
// captured_log() ends it and returns the text with the log lines' time
// prefixes removed, captured_stderr() returns it as written.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/support/run_binary.h"
#include "utils/log.h"

namespace nmb::test {

inline void capture_stderr() {
  testing::internal::CaptureStderr();
}
inline std::string captured_stderr() {
  return testing::internal::GetCapturedStderr();
}
inline std::string captured_log() {
  return strip_log_timestamps(captured_stderr());
}

// A test whose logger writes to standard error at error level, with the
// lines between start() and logged() captured.
class LoggedTest : public testing::Test {
 protected:
  void SetUp() override { nmb_init_stderr_logger(NMB_LOG_ERROR); }
  void TearDown() override { nmb_logger_reset_for_tests(); }
  void start() { capture_stderr(); }
  std::string logged() { return captured_log(); }
};

}  // namespace nmb::test
