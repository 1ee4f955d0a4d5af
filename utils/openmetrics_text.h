// The text rules of OpenMetrics exposition lines: names made valid, label
// values and help texts escaped, numbers and timestamps written the way
// Prometheus reads them back unchanged.
// Stage: base.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace nmb::openmetrics {

// `text` as a metric name ([a-zA-Z_:][a-zA-Z0-9_:]*) or, with
// `label` set, as a label name ([a-zA-Z_][a-zA-Z0-9_]*): every other byte
// becomes '_', a name that would start with a digit (or be empty) gets a
// leading '_', and a label name that would start with "__" (kept for
// Prometheus's own labels) gets a leading 'x'.
std::string valid_name(std::string_view text, bool label);

// Appends the label value escaped (\\, \" and \n); false, with nothing
// appended, when the value is not valid UTF-8.
bool append_label_value(std::string& out, std::string_view value);

// Appends a # HELP text escaped (\\ and \n); false, with nothing appended,
// when it is not valid UTF-8.
bool append_help(std::string& out, std::string_view help);

// Sample values written at `at` (kValueRoom bytes of room); return the
// end. Integers whose magnitude is below 2^53 exactly, others as the
// nearest double in its shortest form; NaN, +Inf and -Inf as such.
inline constexpr size_t kValueRoom = 32;
char* write_unsigned(char* at, uint64_t value);
char* write_signed(char* at, int64_t value);
char* write_double(char* at, double value);

// A label value escaped at `at` (room for twice its bytes); the end, or
// nullptr when it is not valid UTF-8.
char* write_label_value(char* at, std::string_view value);

// A timestamp in microseconds as seconds with three decimals (the
// milliseconds Prometheus keeps; the microseconds are cut, not rounded),
// written at `at` (room for 24 bytes); returns the length.
size_t append_timestamp_into(char* at, uint64_t microseconds);

// The end of a sample line, " <timestamp>\n", at `at` (kLineEndRoom bytes);
// returns its length.
inline constexpr size_t kLineEndRoom = 32;
size_t write_line_end(char* at, uint64_t microseconds);

}  // namespace nmb::openmetrics
