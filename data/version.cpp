#include "data/version.h"

#include <cstdio>
#include <cstring>

uint32_t nmb_version_parse(const char* text) {
  if (text == nullptr) return 0;
  unsigned char major = 0, minor = 0;
  unsigned short patch = 0;
  if (std::sscanf(text, "%hhu.%hhu .%hu", &major, &minor, &patch) < 2) return 0;
  return static_cast<uint32_t>(major) | static_cast<uint32_t>(minor) << 8 |
         static_cast<uint32_t>(patch) << 16;
}

const char* nmb_version_to_string(uint32_t version) {
  static thread_local char text[16];
  std::snprintf(text, sizeof text, "%u.%u.%u", version & 0xFF, (version >> 8) & 0xFF,
                version >> 16);
  return text;
}

bool nmb_version_is_compatible(const char* schema_version, const char* current_version) {
  uint32_t v = nmb_version_parse(schema_version);
  uint32_t current = nmb_version_parse(current_version);
  if (v == 0 || current == 0) return false;
  return (v & 0xFF) == (current & 0xFF) && ((current >> 8) & 0xFF) >= ((v >> 8) & 0xFF);
}

int nmb_version_compare(uint32_t a, uint32_t b) {
  int major_a = static_cast<int>(a & 0xFF), major_b = static_cast<int>(b & 0xFF);
  if (major_a == major_b) {
    return static_cast<int>((a >> 8) & 0xFF) - static_cast<int>((b >> 8) & 0xFF);
  }
  return major_a - major_b;
}

// ---- schemas and types ----------------------------------------------------
