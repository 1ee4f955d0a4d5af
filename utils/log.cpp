#include "utils/log.h"

#include <pthread.h>
#include <syslog.h>
#include <time.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "utils/env.h"
#include "utils/output.h"
#include "utils/status_line.h"

namespace nmb::detail {
uint32_t g_log_level = NMB_LOG_LEVEL_UNSET;
}  // namespace nmb::detail

namespace {

uint32_t& g_level = nmb::detail::g_log_level;

uint32_t g_mode = NMB_LOGGER_STDERR;
FILE* g_stream = nullptr;
nmb_log_callback_t g_callback = nullptr;
pthread_mutex_t g_static_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t* g_mutex = nullptr;
bool g_registered = false;

const char* level_word(uint32_t level) {
  switch (level) {
    case NMB_LOG_ERROR:
      return "[error] ";
    case NMB_LOG_WARNING:
      return "[warning] ";
    case NMB_LOG_INFO:
      return "[info] ";
    case NMB_LOG_DEBUG:
      return "[debug] ";
    default:
      return "";
  }
}

void destroy_mutex_at_exit() {
  if (!g_registered && g_mutex != nullptr) {
    pthread_mutex_destroy(g_mutex);
    g_mutex = nullptr;
  }
}

// Thread safety is on unless NMB_LOG_THREAD_SAFE says otherwise.
bool init_logger_mutex() {
  const char* setting = nmb_getenv("NMB_LOG_THREAD_SAFE");
  if (setting != nullptr && setting[0] != '\0' && !nmb_env_is_true(setting)) {
    NMB_LOG(NMB_LOG_DEBUG,
            "[logger] [%s] Thread safety is disabled by environment variable NMB_LOG_THREAD_SAFE",
            "_nmb_init_logger_mutex");
    return false;
  }
  if (g_registered || g_mutex != nullptr) return true;
  if (pthread_mutex_init(&g_static_mutex, nullptr) != 0) {
    NMB_LOG(NMB_LOG_ERROR, "[logger] [%s] failed to initialize logger mutex",
            "_nmb_init_logger_mutex");
    return false;
  }
  g_mutex = &g_static_mutex;
  static bool exit_handler_registered = false;
  if (!exit_handler_registered) {
    exit_handler_registered = true;
    std::atexit(destroy_mutex_at_exit);
  }
  return true;
}

// "[YYYY-mm-dd HH:MM:SS.mmm] " into `out` (room for 40 characters).
void format_timestamp_prefix(char (&out)[40]) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  long millis = now.tv_nsec / 1000000;
  if (millis > 999) {
    now.tv_sec += 1;
    millis -= 1000;
  }
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char buffer[26];
  strftime(buffer, sizeof buffer, "[%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(out, sizeof out, "%s.%03d] ", buffer, static_cast<int>(millis));
}

void default_printer(uint32_t level, const char* format, va_list args) {
  if (g_mode == NMB_LOGGER_SYSLOG) {
    vsyslog(static_cast<int>(level), format, args);
    return;
  }
  if (g_stream == nullptr) {
    // An adopted configuration may carry no stream, and then the
    // initialisation is refused and logs that refusal: the nested call must
    // not try again, and the line still goes to standard error.
    static bool initialising = false;
    if (!initialising) {
      initialising = true;
      nmb_init_stderr_logger(g_level);
      initialising = false;
    }
  }
  FILE* stream = g_stream != nullptr ? g_stream : stderr;
  char prefix[40];
  format_timestamp_prefix(prefix);
  nmb::OutputBuffer* capture = stream == stderr ? nmb::stderr_capture() : nullptr;
  if (capture != nullptr) {
    // A file processed on a worker thread: its lines wait for its turn.
    capture->write(prefix);
    capture->write(level_word(level));
    capture->vprintf(format, args);
    capture->put('\n');
    capture->commit();
    return;
  }
  if (g_mutex != nullptr) pthread_mutex_lock(g_mutex);
  nmb::StderrWrite clear_status_line(stream == stderr);
  std::fputs(prefix, stream);
  std::fputs(level_word(level), stream);
  std::vfprintf(stream, format, args);
  std::fputc('\n', stream);
  std::fflush(stream);
  if (g_mutex != nullptr) pthread_mutex_unlock(g_mutex);
}

}  // namespace

uint32_t nmb::detail::log_level_slow() {
  // A registered (adopted) logger whose level is still unset refuses the
  // initialisation and logs the refusal; that message must not start the
  // initialisation again, so while it runs nothing is logged.
  static bool initialising = false;
  if (initialising) return 0;
  if (g_level == NMB_LOG_LEVEL_UNSET) {
    initialising = true;
    int level = 0;
    const char* text = nmb_getenv("NMB_API_LOG_LEVEL");
    if (text == nullptr || std::sscanf(text, "%d", &level) != 1) level = 0;
    nmb_init_stderr_logger(static_cast<uint32_t>(level));
    initialising = false;
  }
  return g_level;
}

void nmb_vlog(uint32_t level, const char* format, va_list args) {
  if (!nmb_log_enabled(level)) return;
  if (nmb_log_callback_t callback = nmb_get_log_callback()) {
    callback(level, format, args);
  } else {
    default_printer(level, format, args);
  }
}

void nmb_log(uint32_t level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  nmb_vlog(level, format, args);
  va_end(args);
}

bool nmb_log_lines_capturable() {
  return nmb_get_log_callback() == nullptr && g_mode == NMB_LOGGER_STDERR && g_stream == stderr;
}

void nmb_log_write_captured(std::string_view lines) {
  if (lines.empty()) return;
  if (nmb::OutputBuffer* capture = nmb::stderr_capture()) {
    capture->write(lines);
    capture->commit();
    return;
  }
  if (g_mutex != nullptr) pthread_mutex_lock(g_mutex);
  std::fwrite(lines.data(), 1, lines.size(), stderr);
  std::fflush(stderr);
  if (g_mutex != nullptr) pthread_mutex_unlock(g_mutex);
}

bool nmb_init_stderr_logger(uint32_t level) {
  if (g_registered) {
    NMB_LOG(NMB_LOG_DEBUG, "[logger] [%s] registered logger cannot initialize logger",
            "nmb_init_stderr_logger");
    return false;
  }
  g_mode = NMB_LOGGER_STDERR;
  g_level = level;
  g_stream = stderr;
  if (!init_logger_mutex()) {
    NMB_LOG(NMB_LOG_DEBUG, "[logger] [%s] Initialized logger without thread-safety",
            "nmb_init_stderr_logger");
  }
  return true;
}

bool nmb_init_file_logger(const char* path, uint32_t level) {
  if (g_registered) {
    NMB_LOG(NMB_LOG_DEBUG, "[logger] [%s] registered logger cannot initialize logger",
            "nmb_init_file_logger");
    return false;
  }
  nmb_close_logger();
  FILE* file = std::fopen(path, "w");
  if (file == nullptr) {
    nmb_init_stderr_logger(level);
    return false;
  }
  g_mode = NMB_LOGGER_FILE;
  g_level = level;
  g_stream = file;
  if (!init_logger_mutex()) {
    NMB_LOG(NMB_LOG_DEBUG, "[logger] [%s] Initialized logger without thread-safety",
            "nmb_init_file_logger");
  }
  return true;
}

bool nmb_init_syslog_logger(const char* ident, uint32_t level) {
  if (g_registered) {
    NMB_LOG(NMB_LOG_DEBUG, "[logger] [%s] registered logger cannot initialize logger",
            "nmb_init_syslog_logger");
    return false;
  }
  // Unlike the file logger, a previous file logger is deliberately left open.
  openlog(ident, LOG_PID | LOG_CONS, LOG_DAEMON);
  g_mode = NMB_LOGGER_SYSLOG;
  g_level = level;
  if (!init_logger_mutex()) {
    NMB_LOG(NMB_LOG_DEBUG, "[logger] [%s] Initialized logger without thread-safety",
            "nmb_init_syslog_logger");
  }
  return true;
}

void nmb_close_logger() {
  if (g_registered) {
    NMB_LOG(NMB_LOG_DEBUG, "[logger] [%s] tried closing a registered logger, skipping closure",
            "nmb_close_logger");
    return;
  }
  if (g_mode == NMB_LOGGER_SYSLOG) {
    closelog();
  } else if (g_mode == NMB_LOGGER_FILE && g_stream != nullptr) {
    std::fclose(g_stream);
    g_stream = nullptr;
  }
  nmb_init_stderr_logger(g_level);
}

void nmb_register_log_callback(nmb_log_callback_t callback, uint32_t level) {
  g_callback = callback;
  g_mode = NMB_LOGGER_CALLBACK;
  g_level = level;
}

uint32_t nmb_set_log_level(uint32_t level) {
  uint32_t previous = g_level;
  g_level = level;
  return previous;
}

nmb_log_callback_t nmb_get_log_callback() {
  return g_callback;
}

std::unique_ptr<nmb_logger_config_t> nmb_export_logger_config() {
  // The logger never fails its caller: no snapshot when memory is short.
  std::unique_ptr<nmb_logger_config_t> config(new (std::nothrow) nmb_logger_config_t());
  if (config == nullptr) return nullptr;
  config->mode = g_mode;
  config->level = g_level;
  config->mutex = g_mutex;
  if (g_mode == NMB_LOGGER_STDERR || g_mode == NMB_LOGGER_FILE) config->stream = g_stream;
  if (g_mode == NMB_LOGGER_CALLBACK) config->callback = g_callback;
  return config;
}

bool nmb_adopt_logger_config(const nmb_logger_config_t* config) {
  if (config == nullptr) return false;
  bool same =
      config->mode == g_mode && config->level == g_level && config->mutex == g_mutex &&
      config->stream ==
          ((g_mode == NMB_LOGGER_STDERR || g_mode == NMB_LOGGER_FILE) ? g_stream : nullptr) &&
      config->callback == (g_mode == NMB_LOGGER_CALLBACK ? g_callback : nullptr);
  if (same) return true;
  g_mutex = static_cast<pthread_mutex_t*>(config->mutex);
  g_registered = true;
  g_level = config->level;
  g_mode = config->mode;
  if (g_mode == NMB_LOGGER_CALLBACK) {
    g_callback = config->callback;
  } else if (g_mode == NMB_LOGGER_STDERR || g_mode == NMB_LOGGER_FILE) {
    g_stream = config->stream;
  }
  return true;
}

size_t nmb_format_hex_dump_line(const unsigned char* data, size_t count, char* out, size_t room) {
  std::string line;
  line.reserve(100);
  char hex[4];
  for (size_t i = 0; i < count; ++i) {
    std::snprintf(hex, sizeof hex, "%02X ", data[i]);
    line += hex;
    if (i == 7 || i == count - 1) line += ' ';
  }
  if (count < 16) {
    if (count < 9) line += ' ';
    line.append(3 * (16 - count), ' ');
  }
  line += "|  ";
  for (size_t i = 0; i < count; ++i) {
    unsigned char c = data[i];
    line += (c >= 0x20 && c <= 0x7E) ? static_cast<char>(c) : '.';
  }
  line += ' ';
  size_t n = line.size() < room ? line.size() : (room ? room - 1 : 0);
  if (room) {
    std::memcpy(out, line.data(), n);
    out[n] = '\0';
  }
  return n;
}

void nmb_log_hex_dump(const void* data, size_t length) {
  if (!nmb_log_enabled(NMB_LOG_DEBUG)) return;
  const auto* bytes = static_cast<const unsigned char*>(data);
  char line[100];
  for (size_t start = 0; start < length; start += 16) {
    size_t count = length - start < 16 ? length - start : 16;
    nmb_format_hex_dump_line(bytes + start, count, line, sizeof line);
    nmb_log(NMB_LOG_DEBUG, "%s", line);
  }
}

void nmb_logger_reset_for_tests() {
  g_registered = false;
  g_callback = nullptr;
  g_mode = NMB_LOGGER_STDERR;
  g_stream = nullptr;
  g_level = NMB_LOG_LEVEL_UNSET;
}
