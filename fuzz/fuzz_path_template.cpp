// libFuzzer target: output path template expansion. The input gives the
// template, the source id, tag and node (NUL-separated), then the port and
// timestamp. Values from the data must never make a path leave its folder:
// a template without '.' expands to a path (put under the output folder)
// none of whose components is "." or ".."; each value alone is one safe
// component.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "data/path_template.h"
#include "fuzz/fuzz_inputs.h"

namespace {

bool safe_component(std::string_view c) {
  if (c.empty() || c.front() == '.') return false;
  for (char ch : c) {
    const bool plain = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') ||
                       (ch >= '0' && ch <= '9') || ch == '-' || ch == '_' || ch == '.';
    if (!plain) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_path_template");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const std::string templ = in.ConsumeRandomLengthString(256);
  const std::string source = in.ConsumeRandomLengthString(80);
  const std::string tag = in.ConsumeRandomLengthString(32);
  const std::string node = in.ConsumeRandomLengthString(32);
  nmb_path_values_t values;
  values.source = source;
  values.tag = tag;
  values.node = node;
  values.port = in.ConsumeIntegral<uint16_t>();
  values.timestamp = in.ConsumeIntegral<uint64_t>();
  const std::string id = values.timestamp ? std::to_string(values.timestamp) : "";
  values.id = id;

  for (std::string_view raw : {values.source, values.tag, values.node}) {
    if (!safe_component(nmb_path_safe_component(raw))) std::abort();
  }
  std::string out;
  if (!nmb_path_template_expand(templ, values, out)) {
    if (!out.empty()) std::abort();
    return 0;
  }
  if (templ.find('.') != std::string::npos) return 0;
  for (size_t start = 0; start <= out.size();) {
    size_t end = out.find('/', start);
    if (end == std::string::npos) end = out.size();
    std::string_view component(out.data() + start, end - start);
    if (component == "." || component == "..") std::abort();
    start = end + 1;
  }
  (void)nmb_path_source_hash(values.source, in.ConsumeIntegralInRange<uint64_t>(1, UINT64_MAX));
  return 0;
}
