// The field set the reader holds while it loads event schemas (-F). The
// event schema loader asks it whether a type is of interest and whether each
// field of such a type is kept.
// Stage: model.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "data/schema_json.h"
#include "filter/field_set.h"

struct nmb_provider_field_set_t {
  nmb::FieldSet set;
};

// Loads a field set file; null (logged) when the name is null or the file
// cannot be read. The set is named by the path as given.
std::unique_ptr<nmb_provider_field_set_t> nmb_provider_field_set_create_from_file(
    const char* fset_filename);
// The same over text held in memory; `fset_filename` names the set.
std::unique_ptr<nmb_provider_field_set_t> nmb_provider_field_set_create_from_text(
    const char* fset_filename, std::string_view text);

// 1 when the type is of interest, else 0; 1 (logged) for a null argument.
int nmb_provider_field_set_is_type_of_interest(const nmb_provider_field_set_t* set,
                                               const char* type_name);
// Decides one field, as the set would decide it in a type holding only that
// field: 1 with the answer in *included, or 0 (logged) when it could not.
int nmb_provider_field_set_should_include_field(const nmb_provider_field_set_t* set,
                                                const char* type_name, const char* field_name,
                                                uint8_t* included);
// Copies the set's name; 1, or 0 (logged) for a null set.
int nmb_provider_field_set_get_name(const nmb_provider_field_set_t* set, std::string* out);
// Logs the sections and their tokens at info level.
void nmb_provider_field_set_print_configuration(const nmb_provider_field_set_t* set);

// The event schema loader's hooks asking `set` (which must outlive them).
nmb_event_field_filter_t nmb_provider_field_set_filter(const nmb_provider_field_set_t& set);
