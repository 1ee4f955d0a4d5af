// libFuzzer target: arbitrary bytes as one page chunk. Covers the packed page
// walk (sizes, trailers), the decoded sizes and both decoders, the decoded
// page cut into blocks and dispatched (counters, events, schemas blocks), and
// the encoded-payload header readers and builders fed with the same bytes.
// The first byte picks the output: ndjson, json, txt or -p.
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "app/options.h"
#include "app/run.h"
#include "data/format.h"
#include "data/packed_page.h"
#include "data/reader.h"
#include "fuzz/fuzz_inputs.h"
#include "utils/log.h"
#include "utils/output.h"

namespace {

std::string g_work_dir;
nmb_read_options_t g_options[4];
uint8_t g_header[NMB_FILE_HEADER_SIZE] = {};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_work_dir = nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_page");
  const std::string schema_dir = g_work_dir + "/schema";
  nmb::fuzz::FuzzSchemas ids = nmb::fuzz::write_fuzz_schemas(schema_dir);
  std::memcpy(g_header + NMB_FH_COUNTERS_SCHEMA_ID, ids.counters.data(), NMB_SCHEMA_ID_SIZE);
  std::memcpy(g_header + NMB_FH_EVENT_SCHEMA_IDS, ids.events.data(), NMB_SCHEMA_ID_SIZE);

  const int formats[4] = {NMB_FORMAT_NDJSON, NMB_FORMAT_JSON, NMB_FORMAT_TXT, NMB_FORMAT_TXT};
  for (int i = 0; i < 4; ++i) {
    g_options[i].schema_path = schema_dir;
    g_options[i].format = formats[i];
    nmb_string_array_append(g_options[i].include, "*");
  }
  g_options[3].print_headers = true;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const nmb_read_options_t& options = g_options[data[0] & 3];
  ++data;
  --size;

  // The payload functions and header readers on the bytes after the magic.
  if (size >= NMB_NMBP_MAGIC_SIZE) {
    std::span<const uint8_t> payload(data + NMB_NMBP_MAGIC_SIZE, size - NMB_NMBP_MAGIC_SIZE);
    // The new-buffer form fills its buffer ahead: only for modest claims.
    if (nmb_encoded_payload_decoded_size(payload) <= (uint64_t{1} << 24)) {
      std::vector<uint8_t> decoded;
      uint64_t decoded_size = 0;
      nmb_decode_payload_into_new_buffer(payload, decoded, &decoded_size);
    }
    if (!payload.empty()) {
      nmb_page_identity_t page;
      nmb_nmbp_header_copy_identity(payload.data(), std::min<size_t>(payload[0], payload.size()),
                                    page);
      uint8_t built[256];
      nmb_copy_nmbp_header_into_buffer(page, payload[0], payload.size(), built, sizeof built);
      if (payload.size() >= NMB_NMBP_FIXED_SIZE) {
        nmb_embed_nmbp_header_into_buffer(payload.data(), page.source_id, "tag", built,
                                          sizeof built);
      }
    }
  }

  const nmb_reader_settings_t settings = nmb_reader_settings_from(options);
  const nmb::ExportSettings export_with = nmb_export_settings_from(options);
  auto sink = nmb_make_block_sink(options.format, export_with, nmb::stdout_buffer());
  nmb_reader_context_t reader;
  reader.settings = &settings;
  reader.sink = sink.get();
  reader.path = "fuzz_page_chunk";
  sink->file_opened(reader.path);
  reader.header = nmb_file_header_decode(g_header);
  if (!nmb_reader_load_type_system(reader, reader.header.event_schema_ids[0],
                                   NMB_FH_EVENT_SCHEMA_COUNT)) {
    std::abort();  // the schemas written at start-up always load
  }
  // An exact-size copy, so that reading past the chunk is caught.
  std::vector<uint8_t> chunk(data, data + size);
  nmb_reader_process_page_chunk(reader, std::span<const uint8_t>(chunk.data(), size));
  nmb::stdout_buffer().flush();
  return 0;
}
