#include "utils/string_array.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "utils/log.h"

bool nmb_string_array_append(nmb_string_array_t& array, const char* text) {
  if (text == nullptr) return false;
  array.emplace_back(text);
  return true;
}

void nmb_string_array_print(uint32_t level, const nmb_string_array_t& array, const char* label) {
  if (!nmb_log_enabled(level)) return;
  for (size_t i = 0; i < array.size(); ++i) {
    nmb_log(level, "%s[%zu] = %s", label, i, array[i].c_str());
  }
}

bool nmb_string_array_remove_duplicates(nmb_string_array_t& array, bool sorted) {
  if (!sorted) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] not implemented", "nmb_string_array_remove_duplicates");
    return false;
  }
  if (array.size() < 2) return true;
  size_t kept = 1;
  for (size_t i = 1; i < array.size(); ++i) {
    if (array[i] != array[kept - 1]) array[kept++] = std::move(array[i]);
  }
  array.resize(kept);
  array.shrink_to_fit();
  return true;
}

namespace {
std::string_view trim(std::string_view text) {
  constexpr std::string_view blanks = " \t\n\r\f\v";
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  size_t last = text.find_last_not_of(blanks);
  return text.substr(first, last - first + 1);
}
}  // namespace

bool nmb_string_array_load_file(nmb_string_array_t& array, const char* path, const char* label) {
  if (label != nullptr) NMB_LOG(NMB_LOG_INFO, "Loading %s from %s", label, path);
  errno = 0;
  std::ifstream in(path);
  if (!in) {
    NMB_LOG(NMB_LOG_INFO, "Could not open %s file %s: %s", label ? label : "", path,
            std::strerror(errno));
    return false;
  }
  std::string line;
  while (std::getline(in, line)) {
    std::string_view item = trim(line);
    if (item.empty() || item.front() == '#') continue;
    array.emplace_back(item);
  }
  return true;
}
