#include "utils/openmetrics_text.h"

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

template <typename T>
void append_number(std::string& out, T value) {
  char text[32];
  const auto r = std::to_chars(text, text + sizeof text, value);
  out.append(text, r.ptr);
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

bool append_label_value(std::string& out, std::string_view value) {
  if (!json_is_valid_utf8(value.data(), value.size())) return false;
  for (char c : value) {
    switch (c) {
      case '\\':
        out.append("\\\\");
        break;
      case '"':
        out.append("\\\"");
        break;
      case '\n':
        out.append("\\n");
        break;
      default:
        out.push_back(c);
    }
  }
  return true;
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

void append_unsigned(std::string& out, uint64_t value) {
  if (value < kExactBound) {
    append_number(out, value);
  } else {
    append_number(out, static_cast<double>(value));
  }
}

void append_signed(std::string& out, int64_t value) {
  if (value > -static_cast<int64_t>(kExactBound) && value < static_cast<int64_t>(kExactBound)) {
    append_number(out, value);
  } else {
    append_number(out, static_cast<double>(value));
  }
}

void append_double(std::string& out, double value) {
  if (std::isnan(value)) {
    out.append("NaN");
  } else if (std::isinf(value)) {
    out.append(value > 0 ? "+Inf" : "-Inf");
  } else {
    append_number(out, value);
  }
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

void append_timestamp(std::string& out, uint64_t microseconds) {
  char text[24];
  out.append(text, append_timestamp_into(text, microseconds));
}

}  // namespace nmb::openmetrics
