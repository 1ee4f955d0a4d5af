#include "utils/json_input.h"

#include <cmath>
#include <fstream>
#include <iterator>
#include <set>
#include <vector>

namespace nmb {

namespace {

constexpr int kMaxNesting = 2048;

// A SAX handler that builds the document and applies the input rules on the
// way: a repeated key in one object or nesting deeper than kMaxNesting stops
// the parse. Members are appended to their object directly, as the key is
// known to be new: the library's own insertion (its DOM builder, and its
// callback parser, which also scans the parent container after every nested
// value) searches the members for the key first, which makes an object or
// array of n members take n * n steps to read.
class InputRules {
 public:
  explicit InputRules(Json& result) : root_(result) {}

  bool null() { return put(Json(nullptr)) != nullptr; }
  bool boolean(bool v) { return put(Json(v)) != nullptr; }
  bool number_integer(Json::number_integer_t v) { return put(Json(v)) != nullptr; }
  bool number_unsigned(Json::number_unsigned_t v) { return put(Json(v)) != nullptr; }
  bool number_float(Json::number_float_t v, const Json::string_t&) {
    return put(Json(v)) != nullptr;
  }
  bool string(Json::string_t& v) { return put(Json(std::move(v))) != nullptr; }
  bool binary(Json::binary_t& v) { return put(Json::binary(std::move(v))) != nullptr; }
  bool start_object(std::size_t) {
    Json* object = put(Json::object());
    if (object == nullptr) return false;
    open_.push_back(object);
    keys_.emplace_back(std::in_place);
    return true;
  }
  bool key(Json::string_t& k) {
    if (!keys_.back()->insert(k).second) return false;
    auto& members =
        static_cast<Json::object_t::Container&>(*open_.back()->get_ptr<Json::object_t*>());
    members.emplace_back(std::move(k), nullptr);
    member_ = &members.back().second;
    return true;
  }
  bool end_object() {
    open_.pop_back();
    keys_.pop_back();
    return true;
  }
  bool start_array(std::size_t) {
    Json* array = put(Json::array());
    if (array == nullptr) return false;
    open_.push_back(array);
    keys_.emplace_back(std::nullopt);
    return true;
  }
  bool end_array() {
    open_.pop_back();
    keys_.pop_back();
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) {
    return false;
  }

 private:
  // Places a value where the parse stands (the root, the next item of the
  // open array, or the member whose key came last); nullptr when it would
  // nest too deep. The depth of a value is the number of containers around
  // it. Containers on the stack stay in place: their parent only grows after
  // they are closed.
  Json* put(Json value) {
    if (keys_.size() > kMaxNesting) return nullptr;
    if (open_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    if (Json::array_t* items = open_.back()->get_ptr<Json::array_t*>()) {
      items->push_back(std::move(value));
      return &items->back();
    }
    *member_ = std::move(value);
    return member_;
  }

  Json& root_;
  std::vector<Json*> open_;  // the containers being read, innermost last
  Json* member_ = nullptr;   // the member whose key was read last
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
