// What counter set and field set files share: reading the file, cutting it
// into lines, trimming, and the meta field lines ("meta_field_alias:key=value"
// and "meta_field_add:key=value").
// Stage: model.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

inline constexpr std::string_view NMB_META_FIELD_ALIAS_PREFIX = "meta_field_alias:";
inline constexpr std::string_view NMB_META_FIELD_ADD_PREFIX = "meta_field_add:";
// Keys and values of meta field lines are cut to one byte less than this.
inline constexpr size_t NMB_META_FIELD_TEXT_SIZE = 256;

// Reads a whole file into `out`; false when it cannot be opened or read. A
// folder cannot be read; pipes and other streams can.
bool nmb_set_file_read(const char* path, std::string& out);

namespace nmb {

// The lines of a set file's text, in order. A line ends at its newline; its
// text ends at its first NUL byte, as the text of a C string would. A last
// line without a newline is a line too.
class SetFileLines {
 public:
  explicit SetFileLines(std::string_view text) : text_(text) {}
  // False when every line has been taken.
  bool next(std::string_view& line);

 private:
  std::string_view text_;
  size_t at_ = 0;
};

}  // namespace nmb

// Blanks (space, tab, newline, vertical tab, form feed, carriage return)
// removed at both ends.
std::string_view nmb_set_file_trim(std::string_view text);
// The text before the first `c` (all of it when there is none).
std::string_view nmb_set_file_cut_at(std::string_view text, char c);

// Tells whether `line` is a meta field line of `prefix`. A line that holds
// the prefix but no "=", or an "=" before the key's end, is not one (logged),
// so that it can still be taken as another kind of line. When it is one,
// *valid tells whether both key and value were found. The key is the text
// from the prefix's length up to the first "=", the value all text after it;
// neither is trimmed, each is cut to NMB_META_FIELD_TEXT_SIZE - 1 bytes.
bool nmb_set_file_parser_check_custom_meta_field(const std::string& line, std::string_view prefix,
                                                 std::string& key, std::string& value, bool* valid);

// What a valid meta field line gives: its kind (alias or constant), key, value.
using nmb_meta_field_sink_t =
    std::function<void(bool alias, const std::string& key, const std::string& value)>;

// Tests `line` as a "meta_field_alias:" line, then as a "meta_field_add:"
// line, and hands each valid one to `add`. True when the line was taken as a
// meta field line (valid or not); false when it is to be read as a token.
bool nmb_set_file_read_meta_field_line(const std::string& line, const nmb_meta_field_sink_t& add);
