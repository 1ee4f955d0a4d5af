#include "data/path_template.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "utils/log.h"

std::string nmb_path_safe_component(std::string_view raw) {
  raw = raw.substr(0, raw.find('\0'));
  std::string out;
  out.reserve(raw.size());
  for (char c : raw) {
    const bool safe = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '-' || c == '_' || c == '.';
    out.push_back(safe ? c : '_');
  }
  if (out.empty()) return "_";
  if (out[0] == '.') out[0] = '_';
  return out;
}

uint64_t nmb_path_source_hash(std::string_view source, uint64_t n) {
  if (n == 0) return 0;
  source = source.substr(0, source.find('\0'));
  if (source.size() >= 2 && source[0] == '0' && source[1] == 'x') {
    std::string text(source);
    unsigned long value = 0;
    if (std::sscanf(text.c_str(), "0x%lx", &value) == 1) return value % n;
  }
  uint64_t sum = 0;
  for (char c : source) sum += static_cast<unsigned char>(c);
  return sum % n;
}

namespace {

// The value of one variable; false when the name is not one.
bool variable_value(std::string_view name, const nmb_path_values_t& values, const std::tm& date,
                    std::string& out) {
  char text[32];
  auto number = [&](const char* format, long value) {
    std::snprintf(text, sizeof text, format, value);
    out += text;
  };
  if (name == "year") {
    number("%04ld", date.tm_year + 1900L);
  } else if (name == "month") {
    number("%02ld", date.tm_mon + 1L);
  } else if (name == "day") {
    number("%02ld", static_cast<long>(date.tm_mday));
  } else if (name == "hour") {
    number("%02ld", static_cast<long>(date.tm_hour));
  } else if (name == "minute") {
    number("%02ld", static_cast<long>(date.tm_min));
  } else if (name == "second") {
    number("%02ld", static_cast<long>(date.tm_sec));
  } else if (name == "source") {
    out += nmb_path_safe_component(values.source);
  } else if (name == "tag") {
    out += nmb_path_safe_component(values.tag);
  } else if (name == "node") {
    out += nmb_path_safe_component(values.node);
  } else if (name == "port") {
    number("%ld", static_cast<long>(values.port));
  } else if (name == "timestamp") {
    std::snprintf(text, sizeof text, "%" PRIu64, values.timestamp);
    out += text;
  } else if (name == "id") {
    if (!values.id.empty()) out += nmb_path_safe_component(values.id);
  } else {
    return false;
  }
  return true;
}

}  // namespace

bool nmb_path_template_expand(std::string_view path_template, const nmb_path_values_t& values,
                              std::string& out) {
  out.clear();
  const std::time_t seconds = static_cast<std::time_t>(values.timestamp / 1000000);
  std::tm date{};
  if (localtime_r(&seconds, &date) == nullptr) date = std::tm{};

  size_t at = 0;
  while (at < path_template.size()) {
    const size_t open = path_template.find("{{", at);
    if (open == std::string_view::npos) {
      out.append(path_template.substr(at));
      break;
    }
    out.append(path_template.substr(at, open - at));
    const size_t close = path_template.find("}}", open + 2);
    std::string_view name = path_template.substr(
        open + 2, close == std::string_view::npos ? std::string_view::npos : close - open - 2);
    if (name.starts_with("hash")) {
      if (close == std::string_view::npos) {
        NMB_LOG(NMB_LOG_ERROR, "path_template expects {{hash[num]}}, missing closing braces");
        out.clear();
        return false;
      }
      std::string_view digits = name.substr(4);
      uint64_t n = 0;
      bool valid = !digits.empty() && digits.size() <= 18;
      for (char c : digits) {
        valid = valid && c >= '0' && c <= '9';
        if (valid) n = n * 10 + static_cast<uint64_t>(c - '0');
      }
      if (!valid || n == 0) {
        NMB_LOG(NMB_LOG_ERROR,
                "path_template expects {{hash[num]}}, '[num]' - a positive integer, actually "
                "received %.*s",
                static_cast<int>(digits.size()), digits.data());
        out.clear();
        return false;
      }
      out += std::to_string(nmb_path_source_hash(values.source, n));
    } else if (close == std::string_view::npos || !variable_value(name, values, date, out)) {
      // Not a variable: the text stays as it stands.
      const size_t end = close == std::string_view::npos ? path_template.size() : close + 2;
      out.append(path_template.substr(open, end - open));
      at = end;
      continue;
    }
    at = close + 2;
  }
  return true;
}
