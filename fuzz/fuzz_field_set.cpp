// libFuzzer target: one field set file, given as bytes. The set is applied to
// a fixed schema as a whole, and every field is also decided alone, as the
// event schema loader asks: both answers must agree, a type that is not of
// interest keeps no field, and the kept fields are numbered 1, 2, 3, ... in
// field order. The configuration print runs too.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "filter/field_set.h"
#include "filter/provider_field_set.h"
#include "fuzz/fuzz_inputs.h"

namespace {

struct TypeFields {
  const char* name;
  std::vector<const char*> fields;
};

const TypeFields kTypes[] = {
    {"port", {"rcv_data", "xmit_data", "port_rcv", "PORT_ERRORS"}},
    {"netdev", {"a", "b+c", "^x$"}},
    {"power", {"watts"}},
    {"vendor_x", {"name", ""}},
    {"default", {"x"}},
    {"net*", {"abxab"}},
};

std::unique_ptr<nmb_type_system_t> g_types;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_fset");
  g_types = nmb_type_system_create();
  nmb_schema_t* schema = nmb_type_system_add_schema(*g_types, "fuzz", 0, nullptr);
  for (const TypeFields& type : kTypes) {
    std::vector<nmb_field_info_t> infos;
    for (const char* field : type.fields) {
      infos.push_back({field, "", "uint64_t", NMB_COUNTING_MODE_ABSOLUTE, 1});
    }
    if (nmb_schema_add_type(*schema, type.name, infos.data(), infos.size(), nullptr) != 0) {
      std::abort();
    }
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto provider = nmb_provider_field_set_create_from_text("fuzz.fset", text);
  if (provider == nullptr) std::abort();
  nmb::FieldSet whole = provider->set;
  whole.updateWithNewSchema(*g_types, 0);
  for (size_t t = 0; t < std::size(kTypes); ++t) {
    const TypeFields& type = kTypes[t];
    const bool interest = nmb_provider_field_set_is_type_of_interest(provider.get(), type.name);
    const std::vector<nmb::FieldRecord>* records = whole.getFields(0, static_cast<int>(t));
    if (records == nullptr) std::abort();
    if (!interest) {
      if (!records->empty()) std::abort();
      continue;
    }
    if (records->size() != type.fields.size()) std::abort();
    uint32_t kept = 0;
    for (size_t f = 0; f < type.fields.size(); ++f) {
      const nmb::FieldRecord& record = (*records)[f];
      if (record.skip == 0 ? record.order != ++kept : record.order != 0) std::abort();
      uint8_t included = 2;
      if (nmb_provider_field_set_should_include_field(provider.get(), type.name, type.fields[f],
                                                      &included) != 1) {
        std::abort();
      }
      if (included != (record.skip == 0 ? 1 : 0)) std::abort();
    }
  }
  nmb_provider_field_set_print_configuration(provider.get());
  return 0;
}
