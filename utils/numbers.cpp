#include "utils/numbers.h"

#include <cerrno>
#include <cstdlib>

// Only a range error or text after the number refuses the argument: an empty
// text converts to 0 (there is nothing after the number), the way the C
// conversion functions read it; leading blanks and a sign are accepted too.
bool nmb_parse_int64(const char* text, int64_t& value) {
  if (text == nullptr) return false;
  char* end = nullptr;
  errno = 0;
  long long parsed = std::strtoll(text, &end, 0);
  if (errno == ERANGE || *end != '\0') return false;
  value = parsed;
  return true;
}

bool nmb_parse_uint64(const char* text, uint64_t& value) {
  if (text == nullptr) return false;
  char* end = nullptr;
  errno = 0;
  unsigned long long parsed = std::strtoull(text, &end, 0);
  if (errno == ERANGE || *end != '\0') return false;
  value = parsed;
  return true;
}
