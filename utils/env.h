// Environment settings, each looked up with and without the "NMB_" prefix.
// Stage: base.
#pragma once

#include <string_view>

// Returns the value of NAME or NMB_NAME (either spelling may be given); when
// both are set and differ, warns and returns the prefixed value.
const char* nmb_getenv(const char* name);

// The truth rule for environment values: first character 1, t or y.
bool nmb_env_is_true(std::string_view value);
