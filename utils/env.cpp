#include "utils/env.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "utils/log.h"

const char* nmb_getenv(const char* name) {
  if (name == nullptr) return nullptr;
  std::string prefixed;
  const char* plain = name;
  if (std::strncmp(name, "NMB_", 4) == 0) {
    prefixed = name;
    plain = name + 4;
  } else {
    prefixed = std::string("NMB_") + name;
  }
  const char* prefixed_value = std::getenv(prefixed.c_str());
  const char* plain_value = std::getenv(plain);
  // The log level lookup runs while the logger initialises: it must not log.
  if (prefixed == "NMB_API_LOG_LEVEL") return prefixed_value ? prefixed_value : plain_value;
  if (prefixed_value == nullptr) return plain_value;
  if (plain_value == nullptr || std::strcmp(prefixed_value, plain_value) == 0) {
    return prefixed_value;
  }
  NMB_LOG(NMB_LOG_WARNING, "[%s] Environment variables conflict - %s=%s and %s=%s. Using %s",
          "nmb_getenv", prefixed.c_str(), prefixed_value, plain, plain_value, prefixed.c_str());
  return prefixed_value;
}

bool nmb_env_is_true(std::string_view value) {
  if (value.empty()) return false;
  int c = std::tolower(static_cast<unsigned char>(value[0]));
  return c == '1' || c == 't' || c == 'y';
}
