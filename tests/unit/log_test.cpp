#include "utils/log.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/run_binary.h"
#include "utils/env.h"

namespace {

class Logger : public testing::Test {
 protected:
  void TearDown() override {
    unsetenv("NMB_API_LOG_LEVEL");
    unsetenv("API_LOG_LEVEL");
    unsetenv("NMB_LOG_THREAD_SAFE");
    unsetenv("NMB_X_TEST");
    unsetenv("X_TEST");
    nmb_logger_reset_for_tests();
  }
  std::string capture(uint32_t level, const char* text) {
    nmb::test::capture_stderr();
    nmb_log(level, "%s", text);
    return nmb::test::captured_log();
  }
};

TEST_F(Logger, LevelWordsAndThreshold) {
  nmb_init_stderr_logger(6);
  EXPECT_EQ(capture(NMB_LOG_ERROR, "e"), "[error] e\n");
  EXPECT_EQ(capture(NMB_LOG_WARNING, "w"), "[warning] w\n");
  EXPECT_EQ(capture(5, "notice"), "notice\n");
  EXPECT_EQ(capture(NMB_LOG_INFO, "i"), "[info] i\n");
  EXPECT_EQ(capture(NMB_LOG_DEBUG, "d"), "");
}

TEST_F(Logger, TimestampPrefixHasMilliseconds) {
  nmb_init_stderr_logger(6);
  nmb::test::capture_stderr();
  nmb_log(NMB_LOG_INFO, "text %d", 1);
  std::string line = nmb::test::captured_stderr();
  EXPECT_TRUE(nmb::test::starts_with_log_timestamp(line)) << line;
  EXPECT_EQ(nmb::test::strip_log_timestamps(line), "[info] text 1\n");
}

TEST_F(Logger, LazyLevelComesFromTheEnvironment) {
  nmb_logger_reset_for_tests();
  setenv("NMB_API_LOG_LEVEL", "7", 1);
  EXPECT_TRUE(nmb_log_enabled(NMB_LOG_DEBUG));
  nmb_logger_reset_for_tests();
  setenv("NMB_API_LOG_LEVEL", "junk", 1);
  EXPECT_FALSE(nmb_log_enabled(NMB_LOG_ERROR)) << "an unparsable level is 0";
  nmb_logger_reset_for_tests();
  unsetenv("NMB_API_LOG_LEVEL");
  setenv("API_LOG_LEVEL", "3", 1);
  EXPECT_TRUE(nmb_log_enabled(NMB_LOG_ERROR));
  EXPECT_FALSE(nmb_log_enabled(NMB_LOG_WARNING));
}

TEST_F(Logger, DisabledDebugDoesNotEvaluateArguments) {
  nmb_init_stderr_logger(6);
  int evaluated = 0;
  auto touch = [&] { return ++evaluated; };
  NMB_LOG(NMB_LOG_DEBUG, "%d", touch());
  EXPECT_EQ(evaluated, 0);
}

TEST_F(Logger, ThreadSafetySwitch) {
  setenv("NMB_LOG_THREAD_SAFE", "no", 1);
  nmb::test::capture_stderr();
  nmb_init_stderr_logger(7);
  std::string text = nmb::test::captured_log();
  EXPECT_NE(text.find("[debug] [logger] [_nmb_init_logger_mutex] Thread safety is disabled by "
                      "environment variable NMB_LOG_THREAD_SAFE\n"),
            std::string::npos);
  EXPECT_NE(text.find("[debug] [logger] [nmb_init_stderr_logger] Initialized logger without "
                      "thread-safety\n"),
            std::string::npos);
  setenv("NMB_LOG_THREAD_SAFE", "", 1);
  nmb::test::capture_stderr();
  nmb_init_stderr_logger(7);
  EXPECT_EQ(nmb::test::captured_stderr(), "");
}

TEST_F(Logger, RegisteredConfigurationCannotBeReinitialised) {
  nmb_init_stderr_logger(7);
  auto config = nmb_export_logger_config();
  ASSERT_TRUE(config);
  config->level = 4;
  EXPECT_TRUE(nmb_adopt_logger_config(config.get()));
  EXPECT_FALSE(nmb_init_stderr_logger(7));
  EXPECT_FALSE(nmb_log_enabled(NMB_LOG_INFO));
  EXPECT_FALSE(nmb_adopt_logger_config(nullptr));
}

TEST_F(Logger, AdoptedConfigurationWithoutStreamOrLevelStillLogs) {
  // A snapshot taken before the sharing module initialised its logger: no
  // stream, level still unset. Initialising is then refused, and the refusal
  // itself must not start the initialisation over and over.
  nmb_init_stderr_logger(6);
  nmb_logger_config_t config;
  config.level = NMB_LOG_LEVEL_UNSET;
  ASSERT_TRUE(nmb_adopt_logger_config(&config));
  nmb::test::capture_stderr();
  nmb_log(NMB_LOG_ERROR, "%s", "still here");
  std::string text = nmb::test::captured_log();
  EXPECT_NE(text.find("[error] still here\n"), std::string::npos) << text;
}

TEST_F(Logger, UnsetLevelFromTheEnvironmentDoesNotRecurse) {
  // "-1" reads as the all-ones "not yet initialised" level; the messages that
  // the initialisation itself logs must not restart it.
  nmb_logger_reset_for_tests();
  setenv("NMB_API_LOG_LEVEL", "-1", 1);
  setenv("NMB_LOG_THREAD_SAFE", "no", 1);
  nmb::test::capture_stderr();
  nmb_log(NMB_LOG_DEBUG, "%s", "shown");
  std::string text = nmb::test::captured_log();
  EXPECT_NE(text.find("[debug] shown\n"), std::string::npos) << text;
}

TEST_F(Logger, CallbackReceivesUnformattedMessages) {
  static std::string seen;
  seen.clear();
  nmb_register_log_callback([](uint32_t level, const char* format,
                               va_list) { seen = std::to_string(level) + ":" + format; },
                            6);
  nmb_log(NMB_LOG_INFO, "value %d", 5);
  EXPECT_EQ(seen, "6:value %d");
}

TEST_F(Logger, HexDumpOfTwentyBytes) {
  nmb_init_stderr_logger(7);
  unsigned char bytes[20];
  for (int i = 0; i < 20; ++i) bytes[i] = static_cast<unsigned char>(0x41 + i);
  bytes[3] = 0x00;
  bytes[17] = 0x7F;
  nmb::test::capture_stderr();
  nmb_log_hex_dump(bytes, sizeof bytes);
  std::string text = nmb::test::captured_log();
  EXPECT_EQ(text,
            "[debug] 41 42 43 00 45 46 47 48  49 4A 4B 4C 4D 4E 4F 50  |  ABC.EFGHIJKLMNOP \n"
            "[debug] 51 7F 53 54                                       |  Q.ST \n");
}

TEST_F(Logger, HexDumpLinesAlignForEveryLength) {
  unsigned char bytes[16] = {};
  char full[100];
  size_t width = nmb_format_hex_dump_line(bytes, 16, full, sizeof full);
  for (size_t n = 1; n < 16; ++n) {
    char line[100];
    nmb_format_hex_dump_line(bytes, n, line, sizeof line);
    EXPECT_EQ(std::string(line).find('|'), std::string(full).find('|')) << n;
    EXPECT_EQ(std::string(line).size(), width - (16 - n)) << n;
  }
}

TEST_F(Logger, GetenvPrefersThePrefixedNameAndWarns) {
  nmb_init_stderr_logger(4);
  setenv("NMB_X_TEST", "1", 1);
  setenv("X_TEST", "2", 1);
  for (const char* name : {"X_TEST", "NMB_X_TEST"}) {
    nmb::test::capture_stderr();
    EXPECT_STREQ(nmb_getenv(name), "1");
    EXPECT_EQ(nmb::test::captured_log(),
              "[warning] [nmb_getenv] Environment variables conflict - NMB_X_TEST=1 and "
              "X_TEST=2. Using NMB_X_TEST\n");
  }
  setenv("X_TEST", "1", 1);
  nmb::test::capture_stderr();
  EXPECT_STREQ(nmb_getenv("X_TEST"), "1");
  EXPECT_EQ(nmb::test::captured_stderr(), "");
  unsetenv("NMB_X_TEST");
  EXPECT_STREQ(nmb_getenv("NMB_X_TEST"), "1") << "the plain name alone is found";
  unsetenv("X_TEST");
  EXPECT_EQ(nmb_getenv("X_TEST"), nullptr);
}

TEST(Env, TruthRule) {
  EXPECT_TRUE(nmb_env_is_true("1"));
  EXPECT_TRUE(nmb_env_is_true("True"));
  EXPECT_TRUE(nmb_env_is_true("yes"));
  EXPECT_FALSE(nmb_env_is_true("0"));
  EXPECT_FALSE(nmb_env_is_true("no"));
  EXPECT_FALSE(nmb_env_is_true(""));
}

}  // namespace
