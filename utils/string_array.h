// An ordered list of owned strings: input files, patterns, tokens, names.
// Stage: base.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

using nmb_string_array_t = std::vector<std::string>;

// Appends a private copy; false when the string is null.
bool nmb_string_array_append(nmb_string_array_t& array, const char* text);
// Logs every element as "label[index] = element" at `level`.
void nmb_string_array_print(uint32_t level, const nmb_string_array_t& array, const char* label);
// With `sorted`, drops each element equal to the one kept before it.
// Unsorted arrays are refused (not implemented).
bool nmb_string_array_remove_duplicates(nmb_string_array_t& array, bool sorted);
// Appends each trimmed line of a text file, skipping blank and "#" lines.
bool nmb_string_array_load_file(nmb_string_array_t& array, const char* path, const char* label);
