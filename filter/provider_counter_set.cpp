#include "filter/provider_counter_set.h"

#include <new>

#include "utils/log.h"

namespace {

constexpr const char* kCreate = "nmb_provider_counter_set_create";

// Reads the set through `read` (the file or text form of the reader).
template <typename Read>
std::unique_ptr<nmb_provider_counter_set_t> create(const char* cset_filename, Read read) {
  if (cset_filename == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] missing cset_filename parameter", kCreate);
    return nullptr;
  }
  std::unique_ptr<nmb_provider_counter_set_t> set;
  try {
    set = std::make_unique<nmb_provider_counter_set_t>();
    set->counter_set.name = cset_filename;
  } catch (const std::bad_alloc&) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] failed to allocate nmb_provider_counter_set_t", kCreate);
    return nullptr;
  }
  if (read(set->counter_set, set->tokens) < 0) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] failed to read cset file '%s'", kCreate, cset_filename);
    return nullptr;
  }
  set->parsed.reserve(set->tokens.size());
  for (const std::string& line : set->tokens) set->parsed.push_back(nmb_cset_token_parse(line));
  return set;
}

bool include_counter(const void* context, const char* counter_name) {
  return nmb_provider_counter_set_should_include_counter(
             static_cast<const nmb_provider_counter_set_t*>(context), counter_name) == 1;
}

}  // namespace

std::unique_ptr<nmb_provider_counter_set_t> nmb_provider_counter_set_create(
    const char* cset_filename) {
  return create(cset_filename, [](nmb_counter_set_t& set, nmb_string_array_t& tokens) {
    return nmb_read_cset_file(set, tokens);
  });
}

std::unique_ptr<nmb_provider_counter_set_t> nmb_provider_counter_set_create_from_text(
    const char* cset_filename, std::string_view text) {
  return create(cset_filename, [text](nmb_counter_set_t& set, nmb_string_array_t& tokens) {
    return nmb_read_cset_text(set, text, tokens);
  });
}

int nmb_provider_counter_set_should_include_counter(const nmb_provider_counter_set_t* set,
                                                    const char* counter_name) {
  constexpr const char* kName = "nmb_provider_counter_set_should_include_counter";
  if (set == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] missing counter_set parameter", kName);
    return 0;
  }
  if (counter_name == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] missing counter_name parameter", kName);
    return 0;
  }
  if (set->parsed.empty()) return 1;
  // The caption a line gives is not kept: the schema keeps the counter's name.
  return nmb_cset_tokens_select(set->parsed, counter_name, nullptr) ? 1 : 0;
}

nmb_counter_filter_t nmb_provider_counter_set_filter(const nmb_provider_counter_set_t& set) {
  nmb_counter_filter_t filter;
  filter.include = include_counter;
  filter.context = &set;
  return filter;
}
