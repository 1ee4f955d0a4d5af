#include "filter/provider_field_set.h"

#include <new>

#include "utils/log.h"

namespace {

bool type_of_interest(const void* context, const char* type_name) {
  return nmb_provider_field_set_is_type_of_interest(
             static_cast<const nmb_provider_field_set_t*>(context), type_name) == 1;
}

int include_field(const void* context, const char* type_name, const char* field_name) {
  uint8_t included = 0;
  if (nmb_provider_field_set_should_include_field(
          static_cast<const nmb_provider_field_set_t*>(context), type_name, field_name,
          &included) != 1) {
    return -1;
  }
  return included;
}

}  // namespace

std::unique_ptr<nmb_provider_field_set_t> nmb_provider_field_set_create_from_file(
    const char* fset_filename) {
  constexpr const char* kName = "nmb_provider_field_set_create_from_file";
  if (fset_filename == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] missing fset_filename parameter", kName);
    return nullptr;
  }
  auto provider = std::make_unique<nmb_provider_field_set_t>(
      nmb_provider_field_set_t{nmb::FieldSet(fset_filename)});
  if (!provider->set.load()) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] failed to initialize FieldSet from '%s'", kName, fset_filename);
    return nullptr;
  }
  return provider;
}

std::unique_ptr<nmb_provider_field_set_t> nmb_provider_field_set_create_from_text(
    const char* fset_filename, std::string_view text) {
  if (fset_filename == nullptr) return nullptr;
  auto provider = std::make_unique<nmb_provider_field_set_t>(
      nmb_provider_field_set_t{nmb::FieldSet(fset_filename)});
  provider->set.loadText(text);
  return provider;
}

int nmb_provider_field_set_is_type_of_interest(const nmb_provider_field_set_t* set,
                                               const char* type_name) {
  constexpr const char* kName = "nmb_provider_field_set_is_type_of_interest";
  if (set == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] missing field_set parameter", kName);
    return 1;
  }
  if (type_name == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] missing type_name parameter", kName);
    return 1;
  }
  return set->set.isTypeOfInterest(type_name) ? 1 : 0;
}

int nmb_provider_field_set_should_include_field(const nmb_provider_field_set_t* set,
                                                const char* type_name, const char* field_name,
                                                uint8_t* included) {
  constexpr const char* kName = "nmb_provider_field_set_should_include_field";
  if (included == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] missing included out-parameter", kName);
    return 0;
  }
  if (set == nullptr || type_name == nullptr || field_name == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] missing parameter", kName);
    return 0;
  }
  // The field is put alone into a draft type and the set applied to it, so
  // that one field is decided exactly as in a whole type.
  std::unique_ptr<nmb_type_system_t> draft;
  try {
    draft = nmb_type_system_create();
  } catch (const std::bad_alloc&) {
  }
  if (draft == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] failed to allocate draft type system", kName);
    return 0;
  }
  uint8_t schema_index = 0;
  nmb_schema_t* schema = nmb_type_system_add_schema(*draft, "draft", 0, &schema_index);
  if (schema == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] failed to add draft schema", kName);
    return 0;
  }
  const nmb_field_info_t field{field_name, "", "uint64_t", NMB_COUNTING_MODE_ABSOLUTE, 1};
  uint8_t type_index = 0;
  if (nmb_schema_add_type(*schema, type_name, &field, 1, &type_index) != NMB_SCHEMA_OK) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] failed to add draft type '%s'", kName, type_name);
    return 0;
  }
  // Copies share the rules read from the file: the set itself is not changed.
  nmb::FieldSet applied = set->set;
  applied.updateWithNewSchema(*draft, schema_index);
  const std::vector<nmb::FieldRecord>* fields = applied.getFields(schema_index, type_index);
  *included = 0;
  if (fields != nullptr) {
    for (const nmb::FieldRecord& record : *fields) {
      if (record.name == field_name && record.skip == 0) *included = 1;
    }
  }
  return 1;
}

int nmb_provider_field_set_get_name(const nmb_provider_field_set_t* set, std::string* out) {
  constexpr const char* kName = "nmb_provider_field_set_get_name";
  if (set == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] missing field_set parameter", kName);
    return 0;
  }
  if (out == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] failed to copy field set name", kName);
    return 0;
  }
  *out = set->set.name();
  return 1;
}

void nmb_provider_field_set_print_configuration(const nmb_provider_field_set_t* set) {
  constexpr const char* kName = "nmb_provider_field_set_print_configuration";
  if (set == nullptr || !nmb_log_enabled(NMB_LOG_INFO)) return;
  const std::vector<std::string> types = set->set.typesWithTokens();
  nmb_log(NMB_LOG_INFO, "[%s] '%s' configuration:", kName, set->set.name().c_str());
  nmb_log(NMB_LOG_INFO, "[%s]   Sections: %zu", kName, types.size());
  for (const std::string& type : types) {
    nmb_log(NMB_LOG_INFO, "[%s]   [%s]", kName, type.c_str());
    for (const nmb::FieldSetToken* token : set->set.ownTokens(type)) {
      nmb_log(NMB_LOG_INFO, "[%s]     %s", kName, token->text.c_str());
    }
  }
}

nmb_event_field_filter_t nmb_provider_field_set_filter(const nmb_provider_field_set_t& set) {
  nmb_event_field_filter_t filter;
  filter.type_of_interest = type_of_interest;
  filter.include_field = include_field;
  filter.context = &set;
  return filter;
}
