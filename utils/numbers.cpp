#include "utils/numbers.h"

#include <cerrno>
#include <cstdlib>

bool nmb_parse_int64(const char* text, int64_t& value) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  errno = 0;
  long long parsed = std::strtoll(text, &end, 0);
  if (errno == ERANGE || end == text || *end != '\0') return false;
  value = parsed;
  return true;
}

bool nmb_parse_uint64(const char* text, uint64_t& value) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  errno = 0;
  unsigned long long parsed = std::strtoull(text, &end, 0);
  if (errno == ERANGE || end == text || *end != '\0') return false;
  value = parsed;
  return true;
}
