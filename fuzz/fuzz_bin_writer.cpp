// libFuzzer target: the -f bin data file writer fed with decoded pages. Each
// input is a run of pages (header fields, content and writer limits from the
// input) written into a scratch folder, which must stay inside that folder;
// every data file written is then read back by the reader.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "data/data_page.h"
#include "data/data_writer.h"
#include "data/reader.h"
#include "fuzz/fuzz_inputs.h"
#include "tests/support/recording_sink.h"

namespace {

namespace fs = std::filesystem;

std::string g_dir;
std::string g_out;
const char* const kTemplates[] = {
    NMB_DEFAULT_PATH_TEMPLATE, "{{source}}/{{hash4}}/{{tag}}_{{timestamp}}.bin",
    "{{node}}_{{port}}/{{year}}{{month}}{{day}}{{hour}}{{minute}}{{second}}_{{id}}.bin",
    "flat.bin"};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_dir = nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_bin_writer");
  nmb::fuzz::write_fuzz_schemas(g_dir + "/schema");
  g_out = g_dir + "/out";
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  fs::remove_all(g_out);
  fs::create_directories(g_out);
  {
    nmb::DataWriterConfig config;
    config.output_dir = g_out;
    config.path_template = kTemplates[in.ConsumeIntegralInRange<size_t>(0, 3)];
    config.file_size_limit = in.ConsumeIntegralInRange<uint64_t>(0, 1 << 16);
    config.time_span_limit = in.ConsumeIntegralInRange<uint64_t>(0, 10000000);
    config.data_size_limit = in.ConsumeIntegralInRange<uint64_t>(0, 1 << 16);
    config.keep_open = in.ConsumeBool();
    config.node = "host";
    config.port = 1;
    nmb::DataWriter writer(config);
    const nmb::fuzz::FuzzSchemas ids = nmb::fuzz::fuzz_schema_ids();
    uint8_t event_ids[NMB_FH_EVENT_SCHEMA_COUNT][NMB_SCHEMA_ID_SIZE] = {};
    std::copy(ids.events.begin(), ids.events.end(), event_ids[0]);
    writer.set_initial_schema_ids(ids.counters.data(), &event_ids[0][0]);

    nmb::DataPage page;
    for (int p = 0; p < 8 && in.remaining_bytes() > 0; ++p) {
      const std::vector<uint8_t> content =
          in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(0, 4096));
      page.reset(NMB_DATA_PAGE_HEADER_SIZE + content.size());
      std::copy(content.begin(), content.end(), page.data() + NMB_DATA_PAGE_HEADER_SIZE);
      page.set_version(in.ConsumeBool() ? 1 : in.ConsumeIntegral<uint8_t>(),
                       in.ConsumeBool() ? 7 : in.ConsumeIntegral<uint8_t>());
      page.set_filled(in.ConsumeBool() ? page.size() : in.ConsumeIntegral<uint64_t>());
      // The tool takes the block size of the input file, below 120 MiB;
      // within 64 KiB the files stay small.
      page.set_block_size(in.ConsumeBool() ? 256 : in.ConsumeIntegralInRange<uint32_t>(0, 65536));
      const uint64_t first = 1700000000000000 + in.ConsumeIntegralInRange<uint64_t>(0, 1 << 24);
      page.set_times(in.ConsumeBool() ? first : in.ConsumeIntegral<uint64_t>(),
                     first + in.ConsumeIntegralInRange<uint64_t>(0, 1 << 20));
      page.set_counters_schema_id(ids.counters.data());
      const std::string source = in.ConsumeRandomLengthString(70);
      const std::string tag = in.ConsumeRandomLengthString(20);
      page.set_source(source.data(), source.size(), tag.data(), tag.size());
      writer.save_page(page, nullptr);
    }
  }
  for (const auto& entry : fs::directory_iterator(g_dir)) {
    const std::string name = entry.path().filename().string();
    if (name != "schema" && name != "out") std::abort();  // written outside the folder
  }
  nmb_reader_settings_t settings;
  settings.schema_path = g_dir + "/schema";
  const std::string root = fs::canonical(g_out).string() + "/";
  for (const auto& entry : fs::recursive_directory_iterator(g_out)) {
    if (fs::canonical(entry.path()).string().rfind(root, 0) != 0) std::abort();
    if (!entry.is_regular_file() || entry.path().extension() != ".bin") continue;
    nmb::test::RecordingSink sink;
    nmb_process_file(entry.path().c_str(), settings, sink, true);
  }
  return 0;
}
