#include "filter/set_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "utils/log.h"

namespace {

// Closes the descriptor when the read is done.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

constexpr const char* kMetaParser = "nmb_set_file_parser_check_custom_meta_field";

}  // namespace

bool nmb_set_file_read(const char* path, std::string& out) {
  out.clear();
  FileDescriptor file(open(path, O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) return false;
  struct stat info {};
  if (fstat(file.get(), &info) != 0) return false;
  if (S_ISDIR(info.st_mode)) {
    errno = EISDIR;
    return false;
  }
  char buffer[65536];
  for (;;) {
    ssize_t got = read(file.get(), buffer, sizeof buffer);
    if (got == 0) return true;
    if (got < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    out.append(buffer, static_cast<size_t>(got));
  }
}

bool nmb::SetFileLines::next(std::string_view& line) {
  if (at_ >= text_.size()) return false;
  size_t end = text_.find('\n', at_);
  if (end == std::string_view::npos) end = text_.size();
  line = nmb_set_file_cut_at(text_.substr(at_, end - at_), '\0');
  at_ = end + 1;
  return true;
}

std::string_view nmb_set_file_trim(std::string_view text) {
  constexpr std::string_view blanks = " \t\n\v\f\r";
  const size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  const size_t last = text.find_last_not_of(blanks);
  return text.substr(first, last - first + 1);
}

std::string_view nmb_set_file_cut_at(std::string_view text, char c) {
  return text.substr(0, text.find(c));
}

bool nmb_set_file_parser_check_custom_meta_field(const std::string& line, std::string_view prefix,
                                                 std::string& key, std::string& value,
                                                 bool* valid) {
  if (valid != nullptr) *valid = false;
  if (line.find(prefix) == std::string::npos) return false;
  const size_t pos_equal = line.find('=');
  if (pos_equal == std::string::npos) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] meta field line should include '=' character", kMetaParser);
    return false;
  }
  if (nmb_log_enabled(NMB_LOG_DEBUG)) {
    const std::string prefix_text(prefix);
    nmb_log(NMB_LOG_DEBUG, "[%s] ---------------------", kMetaParser);
    nmb_log(NMB_LOG_DEBUG, "[%s] original line = '%s'", kMetaParser, line.c_str());
    nmb_log(NMB_LOG_DEBUG, "[%s] prefix        = '%s'", kMetaParser, prefix_text.c_str());
    nmb_log(NMB_LOG_DEBUG, "[%s] prefix size   = %zu", kMetaParser, prefix.size());
    nmb_log(NMB_LOG_DEBUG, "[%s] pos_equal     = %zu", kMetaParser, pos_equal);
  }
  if (pos_equal <= prefix.size()) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] invalid format: '=' before key end", kMetaParser);
    return false;
  }
  // The prefix is expected at the very start of the line: the key is counted
  // from the prefix's length wherever the prefix stands.
  constexpr size_t kMaxText = NMB_META_FIELD_TEXT_SIZE - 1;
  key = line.substr(prefix.size(), std::min(pos_equal - prefix.size(), kMaxText));
  value = line.substr(pos_equal + 1, kMaxText);
  if (key.empty() || value.empty()) {
    NMB_LOG(NMB_LOG_WARNING, "[%s] error parsing line '%s'", kMetaParser, line.c_str());
    return true;
  }
  NMB_LOG(NMB_LOG_DEBUG, "[%s] key           = '%s'", kMetaParser, key.c_str());
  NMB_LOG(NMB_LOG_DEBUG, "[%s] val           = '%s'", kMetaParser, value.c_str());
  NMB_LOG(NMB_LOG_DEBUG, "[%s] ---------------------", kMetaParser);
  if (valid != nullptr) *valid = true;
  return true;
}

bool nmb_set_file_read_meta_field_line(const std::string& line, const nmb_meta_field_sink_t& add) {
  std::string key;
  std::string value;
  bool valid = false;
  bool taken = false;
  if (nmb_set_file_parser_check_custom_meta_field(line, NMB_META_FIELD_ALIAS_PREFIX, key, value,
                                                  &valid)) {
    if (valid) add(true, key, value);
    taken = true;
  }
  if (nmb_set_file_parser_check_custom_meta_field(line, NMB_META_FIELD_ADD_PREFIX, key, value,
                                                  &valid)) {
    if (valid) add(false, key, value);
    taken = true;
  }
  return taken;
}
