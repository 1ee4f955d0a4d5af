#include "utils/json_writer.h"

#include <charconv>
#include <cmath>
#include <cstring>

namespace nmb {

namespace {

constexpr char kHex[] = "0123456789abcdef";

// Escape text for bytes below 0x20, '"' and '\\'; empty for bytes written as
// they are.
struct EscapeTable {
  char text[256][7] = {};
  constexpr EscapeTable() {
    for (int c = 0; c < 0x20; ++c) {
      text[c][0] = '\\';
      text[c][1] = 'u';
      text[c][2] = '0';
      text[c][3] = '0';
      text[c][4] = kHex[c >> 4];
      text[c][5] = kHex[c & 15];
    }
    const char shorts[][2] = {{'\b', 'b'}, {'\f', 'f'}, {'\n', 'n'}, {'\r', 'r'},
                              {'\t', 't'}, {'"', '"'},  {'\\', '\\'}};
    for (const auto& s : shorts) {
      unsigned char c = static_cast<unsigned char>(s[0]);
      for (char& ch : text[c]) ch = 0;
      text[c][0] = '\\';
      text[c][1] = s[1];
    }
  }
};
constexpr EscapeTable kEscapes;

std::string_view until_nul(std::string_view text) {
  if (text.empty()) return text;
  const void* nul = std::memchr(text.data(), 0, text.size());
  if (nul == nullptr) return text;
  return text.substr(0, static_cast<size_t>(static_cast<const char*>(nul) - text.data()));
}

}  // namespace

bool json_is_valid_utf8(const char* data, size_t length) {
  const auto* p = reinterpret_cast<const unsigned char*>(data);
  size_t i = 0;
  while (i < length) {
    unsigned char c = p[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t n;
    unsigned char lo = 0x80, hi = 0xBF;  // bounds of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
      n = 1;
    } else if (c >= 0xE0 && c <= 0xEF) {
      n = 2;
      if (c == 0xE0) lo = 0xA0;  // overlong
      if (c == 0xED) hi = 0x9F;  // surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
      n = 3;
      if (c == 0xF0) lo = 0x90;  // overlong
      if (c == 0xF4) hi = 0x8F;  // above U+10FFFF
    } else {
      return false;
    }
    if (n > length - i - 1) return false;
    if (p[i + 1] < lo || p[i + 1] > hi) return false;
    for (size_t k = 2; k <= n; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return false;
    }
    i += n + 1;
  }
  return true;
}

namespace {

// Escapes `text` (already cut at its first zero byte) through `put(data,
// length)` calls for its plain runs and escapes.
template <typename Put>
void escape_into(std::string_view text, Put&& put) {
  size_t plain_start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char* escape = kEscapes.text[static_cast<unsigned char>(text[i])];
    if (escape[0] == 0) continue;
    put(text.data() + plain_start, i - plain_start);
    put(escape, std::strlen(escape));
    plain_start = i + 1;
  }
  put(text.data() + plain_start, text.size() - plain_start);
}

}  // namespace

char* json_write_string(char* at, std::string_view text) {
  text = until_nul(text);
  if (!json_is_valid_utf8(text.data(), text.size())) return nullptr;
  *at++ = '"';
  escape_into(text, [&](const char* data, size_t length) {
    std::memcpy(at, data, length);
    at += length;
  });
  *at++ = '"';
  return at;
}

void json_append_escaped(std::string& out, std::string_view text) {
  escape_into(until_nul(text), [&](const char* data, size_t length) { out.append(data, length); });
}

std::string json_escape_key(std::string_view key) {
  std::string text;
  text.reserve(key.size() + 2);
  text.push_back('"');
  json_append_escaped(text, key);
  text.push_back('"');
  return text;
}

char* json_write_number(char* at, double value) {
  if (!std::isfinite(value)) return nullptr;
  // Integral values below 1e17 print as plain digits under "%1.17g" too.
  if (value == std::trunc(value) && std::fabs(value) < 1e17 &&
      !(value == 0 && std::signbit(value))) {
    return std::to_chars(at, at + kJsonNumberRoom, static_cast<int64_t>(value)).ptr;
  }
  return std::to_chars(at, at + kJsonNumberRoom, value, std::chars_format::general, 17).ptr;
}

bool json_append_number(std::string& out, double value) {
  char buffer[kJsonNumberRoom];
  char* end = json_write_number(buffer, value);
  if (end == nullptr) return false;
  out.append(buffer, static_cast<size_t>(end - buffer));
  return true;
}

bool json_append_string(std::string& out, std::string_view text) {
  text = until_nul(text);
  if (!json_is_valid_utf8(text.data(), text.size())) return false;
  out.push_back('"');
  json_append_escaped(out, text);
  out.push_back('"');
  return true;
}

}  // namespace nmb
