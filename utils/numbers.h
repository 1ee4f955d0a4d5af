// Whole-string number parsing in any C base notation (decimal, 0x hex, 0 octal).
// Stage: base.
#pragma once

#include <cstdint>

// Each fails on a range error or any trailing character; an empty text is 0.
bool nmb_parse_int64(const char* text, int64_t& value);
bool nmb_parse_uint64(const char* text, uint64_t& value);
