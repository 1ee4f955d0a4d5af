// The process-wide logger: timestamped, level-worded lines on standard error
// by default, or a file, the system log or an embedder's callback.
// Stage: base.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string_view>

// Levels in the system-log numbering.
enum : uint32_t {
  NMB_LOG_ERROR = 3,
  NMB_LOG_WARNING = 4,
  NMB_LOG_INFO = 6,
  NMB_LOG_DEBUG = 7,
};

inline constexpr uint32_t NMB_LOG_LEVEL_UNSET = UINT32_MAX;

// Logger modes.
enum : uint32_t {
  NMB_LOGGER_STDERR = 0,
  NMB_LOGGER_SYSLOG = 1,
  NMB_LOGGER_FILE = 2,
  NMB_LOGGER_CALLBACK = 3,
};

using nmb_log_callback_t = void (*)(uint32_t level, const char* format, va_list args);

// A snapshot that lets another module share this logger.
struct nmb_logger_config_t {
  uint32_t mode = 0;
  FILE* stream = nullptr;
  nmb_log_callback_t callback = nullptr;
  uint32_t level = 0;
  void* mutex = nullptr;
};

namespace nmb::detail {
extern uint32_t g_log_level;
// Runs the lazy level initialisation; returns the level then in force.
uint32_t log_level_slow();
}  // namespace nmb::detail

// True when a message of `level` would be written. Costs one comparison once
// the logger is initialised.
inline bool nmb_log_enabled(uint32_t level) {
  uint32_t current = nmb::detail::g_log_level;
  if (current == NMB_LOG_LEVEL_UNSET) current = nmb::detail::log_level_slow();
  return level <= current;
}

// Writes one message; callers normally go through NMB_LOG so that arguments
// are not even evaluated when the level is off.
void nmb_log(uint32_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void nmb_vlog(uint32_t level, const char* format, va_list args);

#define NMB_LOG(level, ...)                                  \
  do {                                                       \
    if (nmb_log_enabled(level)) nmb_log(level, __VA_ARGS__); \
  } while (0)

bool nmb_init_stderr_logger(uint32_t level);
bool nmb_init_file_logger(const char* path, uint32_t level);
bool nmb_init_syslog_logger(const char* ident, uint32_t level);
void nmb_close_logger();
void nmb_register_log_callback(nmb_log_callback_t callback, uint32_t level);
// Stores a new level and returns the previous one.
uint32_t nmb_set_log_level(uint32_t level);
nmb_log_callback_t nmb_get_log_callback();
// Empty when the snapshot cannot be allocated.
std::unique_ptr<nmb_logger_config_t> nmb_export_logger_config();
bool nmb_adopt_logger_config(const nmb_logger_config_t* config);

// True when log lines go to standard error through this logger, where the
// lines a thread logs can be captured (nmb::ThreadCapture) and written later.
bool nmb_log_lines_capturable();
// Writes lines logged earlier and captured, as they were formatted then.
void nmb_log_write_captured(std::string_view lines);

// Logs `length` bytes at debug level, 16 to a line, when debug is on.
void nmb_log_hex_dump(const void* data, size_t length);
// One hex dump line of up to 16 bytes, as logged by nmb_log_hex_dump.
size_t nmb_format_hex_dump_line(const unsigned char* data, size_t count, char* out, size_t room);

// Test hook: returns the logger to its start state (level unset, standard error).
void nmb_logger_reset_for_tests();
