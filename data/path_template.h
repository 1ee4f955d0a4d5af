// Output paths of re-exported data files: a template whose variables ("{{year}}",
// "{{source}}", "{{hash16}}", ...) are filled from the page being written.
// Values from the data are made safe before they are put in, so that no path
// leaves the output folder whatever the bytes.
// Stage: model.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// The default layout under the output folder: one folder per day, source and
// tag, one file per first timestamp.
inline constexpr const char* NMB_DEFAULT_PATH_TEMPLATE =
    "{{year}}/{{month}}{{day}}/{{source}}/{{tag}}/{{source}}_{{tag}}_{{id}}.bin";

struct nmb_path_values_t {
  std::string_view source;  // the raw source id (up to its first zero byte)
  std::string_view tag;     // the raw source tag
  std::string_view node;    // the client's host name
  uint16_t port = 0;        // the client's port
  uint64_t timestamp = 0;   // the file's first timestamp, microseconds
  std::string_view id;      // the file id ("" for timestamp 0)
};

// One path component made of untrusted bytes: cut at the first zero byte;
// every byte but ASCII letters, digits, '-', '_' and '.' becomes '_'; a
// leading '.' becomes '_' (no "." or ".." and no hidden names); an empty
// value becomes "_".
std::string nmb_path_safe_component(std::string_view raw);

// The value of "{{hash<n>}}": the source as "0x%lx" modulo n when it begins
// with "0x", otherwise the sum of its bytes modulo n.
uint64_t nmb_path_source_hash(std::string_view source, uint64_t n);

// Expands the template; false (logged, `out` empty) when it is malformed.
// Unknown variables are kept as they stand.
bool nmb_path_template_expand(std::string_view path_template, const nmb_path_values_t& values,
                              std::string& out);
