#include "export/openmetrics_families.h"

#include <algorithm>

#include "utils/openmetrics_text.h"

namespace nmb::openmetrics {

namespace {

std::string_view suffix_of(FamilyType type) {
  switch (type) {
    case FamilyType::kCounter:
      return "_total";
    case FamilyType::kInfo:
      return "_info";
    default:
      return {};
  }
}

const char* type_name(FamilyType type) {
  switch (type) {
    case FamilyType::kCounter:
      return "counter";
    case FamilyType::kInfo:
      return "info";
    case FamilyType::kUnknown:
      return "unknown";
    default:
      return "gauge";
  }
}

}  // namespace

std::string help_text(std::string_view description) {
  std::string help;
  if (!append_help(help, description)) help.clear();
  return help;
}

Family& Families::declare(std::string_view name, FamilyType type) {
  const std::string_view suffix = suffix_of(type);
  if (!suffix.empty() && name.size() > suffix.size() && name.ends_with(suffix))
    name.remove_suffix(suffix.size());
  std::string candidate(name);
  for (unsigned n = 2;; ++n) {
    auto found = families_.find(candidate);
    if (found != families_.end() && found->second->type == type) return *found->second;
    const std::string samples = candidate + std::string(suffix);
    if (found == families_.end() && !taken_.contains(candidate) && !taken_.contains(samples)) break;
    candidate = std::string(name) + "_" + std::to_string(n);
  }
  auto family = std::make_unique<Family>();
  family->name = candidate;
  family->sample_name = candidate + std::string(suffix);
  family->type = type;
  Family& made = *family;
  taken_.emplace(made.name, &made);
  taken_.emplace(made.sample_name, &made);
  families_.emplace(candidate, std::move(family));
  return made;
}

void Families::write_header(std::string& out, Family& family, std::string_view help) {
  out.append("# TYPE ").append(family.name).push_back(' ');
  out.append(type_name(family.type)).push_back('\n');
  if (!help.empty())
    out.append("# HELP ").append(family.name).append(" ").append(help).push_back('\n');
  family.announced = true;
}

std::string LabelText::take_name(std::string_view name) {
  std::string valid = valid_name(name, true);
  while (std::find(names_.begin(), names_.end(), valid) != names_.end()) valid.push_back('_');
  names_.push_back(valid);
  return valid;
}

bool LabelText::add(std::string_view name, std::string_view value) {
  const std::string key = take_name(name);
  if (value.empty()) return true;
  const size_t mark = text.size();
  text.append(",").append(key).append("=\"");
  if (!append_label_value(text, value)) {
    text.resize(mark);
    writable = false;
    return false;
  }
  text.push_back('"');
  return true;
}

}  // namespace nmb::openmetrics
