#include "export/influx_line.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "data/type_system.h"

void nmb_influx_append_key(std::string& out, std::string_view text) {
  // A backslash before the separator would escape it: trailing ones go.
  while (!text.empty() && text.back() == '\\') text.remove_suffix(1);
  for (char c : text) {
    switch (c) {
      case ',':
      case '=':
      case ' ':
        out.push_back('\\');
        out.push_back(c);
        break;
      case '\n':
        out.append("\\n");
        break;
      case '\r':
        out.append("\\r");
        break;
      default:
        out.push_back(c);
    }
  }
}

void nmb_influx_append_string(std::string& out, std::string_view text) {
  out.push_back('"');
  for (char c : text) {
    if (c == '"' || c == '\\') out.push_back('\\');
    out.push_back(c);
  }
  out.push_back('"');
}

namespace {

// What a word of a name says about the thing measured, strongest first.
enum class Subject { kPort, kHca, kCpu, kNode, kNone };

Subject word_subject(std::string_view word) {
  static constexpr std::string_view kPort[] = {"port", "ports"};
  static constexpr std::string_view kHca[] = {"hca",  "hcas", "adapter", "adapters", "nic",
                                              "nics", "ib",   "mlx",     "rdma",     "guid"};
  static constexpr std::string_view kCpu[] = {"cpu", "cpus", "core", "cores"};
  static constexpr std::string_view kNode[] = {"node", "nodes", "host", "system", "machine"};
  auto in = [&](const auto& words) {
    return std::find(std::begin(words), std::end(words), word) != std::end(words);
  };
  if (in(kPort)) return Subject::kPort;
  if (in(kHca)) return Subject::kHca;
  if (in(kCpu)) return Subject::kCpu;
  if (in(kNode)) return Subject::kNode;
  return Subject::kNone;
}

// The strongest subject among the words of a name. Words are runs of letters
// or of digits, also split where a lower-case letter meets an upper-case one
// ("portCounters", "mlx5_0" and "cpu-load" are all split).
Subject name_subject(std::string_view name) {
  Subject best = Subject::kNone;
  char word[32];
  size_t length = 0;
  bool too_long = false;
  auto end_word = [&] {
    if (length > 0 && !too_long) best = std::min(best, word_subject({word, length}));
    length = 0;
    too_long = false;
  };
  for (size_t i = 0; i < name.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    const unsigned char prev = i > 0 ? static_cast<unsigned char>(name[i - 1]) : 0;
    const bool alpha = std::isalpha(c) != 0;
    const bool digit = std::isdigit(c) != 0;
    if (!alpha && !digit) {
      end_word();
      continue;
    }
    if (length > 0 &&
        ((alpha != (std::isalpha(prev) != 0)) || (std::isupper(c) && std::islower(prev)))) {
      end_word();
    }
    if (length < sizeof word) {
      word[length++] = static_cast<char>(std::tolower(c));
    } else {
      too_long = true;  // no listed word is this long
    }
  }
  end_word();
  return best;
}

const char* measurement_of(Subject subject) {
  switch (subject) {
    case Subject::kPort:
      return "hca_port_counters";
    case Subject::kHca:
      return "hca_counters";
    case Subject::kCpu:
      return "cpu_counters";
    default:
      return "node_counters";
  }
}

}  // namespace

const char* nmb_influx_measurement(const nmb_type_definition_t& type) {
  // The type name decides when it names a subject; a name that names the node
  // keeps node_counters even when a field names a port or a CPU.
  const Subject by_name = name_subject(type.name);
  if (by_name != Subject::kNone) return measurement_of(by_name);
  // Otherwise the fields: a port number makes port counters, an adapter word
  // or a GUID ("node_guid") adapter counters, a CPU or core number CPU
  // counters.
  Subject best = Subject::kNone;
  for (const auto& field : type.fields) {
    Subject subject = name_subject(field.field_name);
    if (subject == Subject::kNode) subject = Subject::kNone;  // a field named "node" or "host"
    best = std::min(best, subject);
  }
  return measurement_of(best);
}
