#include "utils/json_input.h"

#include <cmath>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

namespace nmb {

namespace {

constexpr int kMaxNesting = 2048;

struct Refused {};

// Tracks nesting and the keys of each open object while the parser runs, so
// that a repeated key or a too deep document fails the whole parse.
class InputRules {
 public:
  bool operator()(int depth, Json::parse_event_t event, Json& parsed) {
    (void)depth;
    switch (event) {
      case Json::parse_event_t::object_start:
        check_depth();
        keys_.emplace_back(std::in_place);
        break;
      case Json::parse_event_t::array_start:
        check_depth();
        keys_.emplace_back(std::nullopt);
        break;
      case Json::parse_event_t::object_end:
      case Json::parse_event_t::array_end:
        keys_.pop_back();
        break;
      case Json::parse_event_t::key:
        if (!keys_.back()->insert(parsed.get<std::string>()).second) throw Refused{};
        break;
      case Json::parse_event_t::value:
        check_depth();
        break;
    }
    return true;
  }

 private:
  // The depth of a value is the number of containers around it.
  void check_depth() const {
    if (keys_.size() > kMaxNesting) throw Refused{};
  }
  std::vector<std::optional<std::set<std::string>>> keys_;
};

bool same_kind(const Json& a, const Json& b) {
  if (a.is_number() && b.is_number()) return true;
  return a.type() == b.type();
}

}  // namespace

std::optional<Json> json_parse_text(std::string_view text) {
  if (text.size() >= 3 && text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  InputRules rules;
  try {
    Json parsed = Json::parse(text.begin(), text.end(),
                              [&rules](int depth, Json::parse_event_t event, Json& value) {
                                return rules(depth, event, value);
                              });
    if (parsed.is_discarded()) return std::nullopt;
    return parsed;
  } catch (const Refused&) {
    return std::nullopt;
  } catch (const Json::exception&) {
    return std::nullopt;
  }
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
