#include "utils/openmetrics_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "utils/json_writer.h"

namespace nmb::openmetrics {

namespace {

constexpr uint64_t kExactBound = uint64_t{1} << 53;

bool is_alpha(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

}  // namespace

std::string valid_name(std::string_view text, bool label) {
  std::string name;
  name.reserve(text.size() + 1);
  if (text.empty() || is_digit(text.front())) name.push_back('_');
  for (char c : text) {
    const bool ok = is_alpha(c) || is_digit(c) || (!label && c == ':');
    name.push_back(ok ? c : '_');
  }
  if (label && name.size() >= 2 && name[0] == '_' && name[1] == '_') name.insert(0, 1, 'x');
  return name;
}

char* write_label_value(char* at, std::string_view value) {
  if (!json_is_valid_utf8(value.data(), value.size())) return nullptr;
  for (char c : value) {
    switch (c) {
      case '\\':
        *at++ = '\\';
        *at++ = '\\';
        break;
      case '"':
        *at++ = '\\';
        *at++ = '"';
        break;
      case '\n':
        *at++ = '\\';
        *at++ = 'n';
        break;
      default:
        *at++ = c;
    }
  }
  return at;
}

bool append_label_value(std::string& out, std::string_view value) {
  const size_t mark = out.size();
  out.resize(mark + 2 * value.size());
  char* end = write_label_value(out.data() + mark, value);
  out.resize(end != nullptr ? static_cast<size_t>(end - out.data()) : mark);
  return end != nullptr;
}

bool append_help(std::string& out, std::string_view help) {
  if (!json_is_valid_utf8(help.data(), help.size())) return false;
  for (char c : help) {
    if (c == '\\') {
      out.append("\\\\");
    } else if (c == '\n') {
      out.append("\\n");
    } else {
      out.push_back(c);
    }
  }
  return true;
}

char* write_unsigned(char* at, uint64_t value) {
  if (value < kExactBound) return std::to_chars(at, at + kValueRoom, value).ptr;
  return std::to_chars(at, at + kValueRoom, static_cast<double>(value)).ptr;
}

char* write_signed(char* at, int64_t value) {
  if (value > -static_cast<int64_t>(kExactBound) && value < static_cast<int64_t>(kExactBound))
    return std::to_chars(at, at + kValueRoom, value).ptr;
  return std::to_chars(at, at + kValueRoom, static_cast<double>(value)).ptr;
}

char* write_double(char* at, double value) {
  if (std::isnan(value)) return std::copy_n("NaN", 3, at);
  if (std::isinf(value)) return std::copy_n(value > 0 ? "+Inf" : "-Inf", 4, at);
  return std::to_chars(at, at + kValueRoom, value).ptr;
}

size_t append_timestamp_into(char* at, uint64_t microseconds) {
  char* end = std::to_chars(at, at + 20, microseconds / 1000000).ptr;
  const auto millis = static_cast<unsigned>(microseconds / 1000 % 1000);
  end[0] = '.';
  end[1] = static_cast<char>('0' + millis / 100);
  end[2] = static_cast<char>('0' + millis / 10 % 10);
  end[3] = static_cast<char>('0' + millis % 10);
  return static_cast<size_t>(end + 4 - at);
}

size_t write_line_end(char* at, uint64_t microseconds) {
  at[0] = ' ';
  const size_t length = append_timestamp_into(at + 1, microseconds) + 1;
  at[length] = '\n';
  return length + 1;
}

}  // namespace nmb::openmetrics
