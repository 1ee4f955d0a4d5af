// Packed version numbers of schemas: major, minor and patch in one value.
// Stage: model.
#pragma once

#include <cstdint>

// Versions: major in bits 0-7, minor in 8-15, patch in 16-31; 0 is invalid.
uint32_t nmb_version_parse(const char* text);
// Points into one static buffer that each call overwrites.
const char* nmb_version_to_string(uint32_t version);
bool nmb_version_is_compatible(const char* schema_version, const char* current_version);
int nmb_version_compare(uint32_t a, uint32_t b);
