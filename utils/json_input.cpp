#include "utils/json_input.h"

#include <cmath>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

namespace nmb {

namespace {

constexpr int kMaxNesting = 2048;

// A SAX handler that builds the document through the library's own DOM
// builder and applies the input rules on the way: a repeated key in one
// object or nesting deeper than kMaxNesting stops the parse. (The library's
// callback parser is not used: it scans the parent container after every
// nested value, which makes an array of many objects quadratic to read.)
class InputRules {
 public:
  explicit InputRules(Json& result) : dom_(result, false) {}

  bool null() { return value() && dom_.null(); }
  bool boolean(bool v) { return value() && dom_.boolean(v); }
  bool number_integer(Json::number_integer_t v) { return value() && dom_.number_integer(v); }
  bool number_unsigned(Json::number_unsigned_t v) { return value() && dom_.number_unsigned(v); }
  bool number_float(Json::number_float_t v, const Json::string_t& text) {
    return value() && dom_.number_float(v, text);
  }
  bool string(Json::string_t& v) { return value() && dom_.string(v); }
  bool binary(Json::binary_t& v) { return value() && dom_.binary(v); }
  bool start_object(std::size_t length) {
    if (!value()) return false;
    keys_.emplace_back(std::in_place);
    return dom_.start_object(length);
  }
  bool key(Json::string_t& k) {
    if (!keys_.back()->insert(k).second) return false;
    return dom_.key(k);
  }
  bool end_object() {
    keys_.pop_back();
    return dom_.end_object();
  }
  bool start_array(std::size_t length) {
    if (!value()) return false;
    keys_.emplace_back(std::nullopt);
    return dom_.start_array(length);
  }
  bool end_array() {
    keys_.pop_back();
    return dom_.end_array();
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) {
    return false;
  }

 private:
  // The depth of a value is the number of containers around it.
  bool value() const { return keys_.size() <= kMaxNesting; }

  nlohmann::detail::json_sax_dom_parser<Json> dom_;
  std::vector<std::optional<std::set<std::string>>> keys_;
};

bool same_kind(const Json& a, const Json& b) {
  if (a.is_number() && b.is_number()) return true;
  return a.type() == b.type();
}

}  // namespace

std::optional<Json> json_parse_text(std::string_view text) {
  if (text.size() >= 3 && text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  Json parsed;
  InputRules rules(parsed);
  try {
    if (!Json::sax_parse(text.begin(), text.end(), &rules)) return std::nullopt;
  } catch (const Json::exception&) {
    return std::nullopt;
  }
  if (parsed.is_discarded()) return std::nullopt;
  return parsed;
}

std::optional<Json> json_parse_file(const char* path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return json_parse_text(text);
}

bool json_matches_template(const Json& value, const Json& templ) {
  if (templ.is_null()) return true;
  if (!same_kind(value, templ)) return false;
  if (templ.is_object()) {
    for (auto it = templ.begin(); it != templ.end(); ++it) {
      auto found = value.find(it.key());
      if (found == value.end() || !json_matches_template(*found, it.value())) return false;
    }
    return true;
  }
  if (templ.is_array()) {
    if (templ.empty()) return true;
    for (const Json& item : value) {
      if (!json_matches_template(item, templ.front())) return false;
    }
  }
  return true;
}

bool json_get_double(const Json& object, const char* key, double& out) {
  auto found = object.find(key);
  if (found == object.end() || !found->is_number()) return false;
  out = found->get<double>();
  return true;
}

bool json_number_to_u64(double value, uint64_t max, uint64_t& out) {
  if (!std::isfinite(value) || value < 0 || std::floor(value) != value) return false;
  // 2^64 as a double: anything at or above it does not fit.
  if (value >= 18446744073709551616.0 || static_cast<uint64_t>(value) > max) return false;
  out = static_cast<uint64_t>(value);
  return true;
}

bool json_get_u64(const Json& object, const char* key, uint64_t& out) {
  double value = 0;
  return json_get_double(object, key, value) && json_number_to_u64(value, UINT64_MAX, out);
}

}  // namespace nmb
