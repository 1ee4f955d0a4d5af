// libFuzzer target: one counter set file, given as bytes. It is read as the
// reader reads it and asked about fixed counter names; the same bytes, read
// from a file into a counter set built over a counters schema of those names,
// must keep exactly the counters the reader's set keeps.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "filter/counter_set.h"
#include "filter/provider_counter_set.h"
#include "fuzz/fuzz_inputs.h"

namespace {

constexpr const char* kNames[] = {
    "port_rcv_data", "PortXmit", "",         "temp",           "a+b-c", "^x$", "rx",
    "timestamp",     "abxab",    "data\xff", "PORT_RCV_ERRORS"};

std::string g_path;
nmb_counters_schema_t g_schema;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_path = nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_cset") + "/fuzz.cset";
  nmb_counter_group_t group;
  group.num_counter_sets = 1;
  for (const char* name : kNames) {
    nmb_counter_info_t counter;
    counter.name = name;
    counter.data_type = NMB_COUNTER_DATA_TYPE_UINT64;
    group.counters.push_back(counter);
  }
  g_schema.groups.push_back(group);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto set = nmb_provider_counter_set_create_from_text(g_path.c_str(), text);
  if (set == nullptr) std::abort();
  int answers[std::size(kNames)];
  for (size_t i = 0; i < std::size(kNames); ++i) {
    answers[i] = nmb_provider_counter_set_should_include_counter(set.get(), kNames[i]);
    if (set->tokens.empty() && answers[i] != 1) std::abort();
  }

  nmb::test::write_file(g_path, nmb::test::ByteVec(data, data + size));
  auto over_schema = nmb_counter_set_create(g_schema, g_path.c_str());
  if (over_schema == nullptr || over_schema->elements.size() != std::size(kNames)) std::abort();
  size_t kept = 0;
  for (size_t i = 0; i < std::size(kNames); ++i) {
    if ((over_schema->skip[i] == 0) != (answers[i] == 1)) std::abort();
    kept += answers[i];
  }
  if (over_schema->filtered_size != kept) std::abort();
  if (over_schema->filtered_meta_count > over_schema->meta_fields.size()) std::abort();
  if (over_schema->meta_fields.size() != set->counter_set.meta_fields.size()) std::abort();
  return 0;
}
