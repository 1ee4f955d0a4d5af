// Reading JSON input documents (schemas, filter and metadata files) and
// matching them against literal templates. Include only where documents are
// read: the JSON library header is heavy.
// Stage: base.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace nmb {

using Json = nlohmann::ordered_json;

// Parses text with the input rules: a repeated key in one object, nesting
// deeper than 2048 levels, an empty text or trailing garbage fail; a leading
// UTF-8 byte order mark is skipped. Empty on failure.
std::optional<Json> json_parse_text(std::string_view text);
// The same for a whole file; empty when it cannot be read or parsed.
std::optional<Json> json_parse_file(const char* path);

// Structural template match: every key of the template is present in the
// value with the same JSON kind, recursively; an empty template object or
// array matches any object or array, a non-empty template array requires every
// item to match its first item, and a null template matches anything. Extra
// keys in the value are allowed.
bool json_matches_template(const Json& value, const Json& templ);

// Every number is read as a double first, then converted. These conversions
// refuse negative, fractional, non-finite and out-of-range values.
bool json_get_double(const Json& object, const char* key, double& out);
bool json_get_u64(const Json& object, const char* key, uint64_t& out);
bool json_number_to_u64(double value, uint64_t max, uint64_t& out);

}  // namespace nmb
