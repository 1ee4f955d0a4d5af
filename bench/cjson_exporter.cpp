// The baseline of a straightforward exporter: one cJSON document per record
// (built, printed compact, freed) for a plain benchmark counters file, the
// same records and members nmb_read writes (cJSON prints numbers its own way,
// so the text is not byte-identical).
//
//   cjson_exporter <counters file> <counters per block> > out
#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "bench/bench_layout.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s <counters file> <counters per block>\n", argv[0]);
    return 2;
  }
  const int counters = std::atoi(argv[2]);
  std::vector<bench::CounterLayout> layouts;
  uint32_t size = 0;
  for (int i = 0; i < counters; ++i) {
    layouts.push_back(bench::counter_layout(i));
    size += bench::value_size(layouts.back().kind);
  }
  std::ifstream file(argv[1], std::ios::binary);
  std::vector<uint8_t> chunk(16 + size);
  file.read(reinterpret_cast<char*>(chunk.data()), 256);
  static char out_buffer[1 << 20];
  std::setvbuf(stdout, out_buffer, _IOFBF, sizeof out_buffer);
  while (file.read(reinterpret_cast<char*>(chunk.data()),
                   static_cast<std::streamsize>(chunk.size()))) {
    uint64_t ts;
    std::memcpy(&ts, chunk.data() + 8, 8);
    cJSON* record = cJSON_CreateObject();
    cJSON_AddNumberToObject(record, "timestamp", static_cast<double>(ts));
    const time_t seconds = static_cast<time_t>(ts / 1000000);
    struct tm tm {};
    localtime_r(&seconds, &tm);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<int>(ts % 1000000 / 1000));
    cJSON_AddStringToObject(record, "@timestamp", text);
    cJSON* groups = cJSON_AddArrayToObject(record, "groups");
    cJSON* set = nullptr;
    const uint8_t* at = chunk.data() + 16;
    for (int i = 0; i < counters; ++i) {
      if (i % bench::kGroupSize == 0) {
        const int g = i / bench::kGroupSize;
        cJSON* group = cJSON_CreateObject();
        cJSON_AddStringToObject(group, "granularity", g % 2 == 0 ? "NODE" : "CPU");
        cJSON_AddStringToObject(group, "name", bench::group_name(g).c_str());
        set = cJSON_CreateObject();
        cJSON_AddItemToArray(cJSON_AddArrayToObject(group, "counter_sets"), set);
        cJSON_AddItemToArray(groups, group);
      }
      const bench::CounterLayout& layout = layouts[static_cast<size_t>(i)];
      uint64_t bits;
      std::memcpy(&bits, at, 8);
      switch (layout.kind) {
        case bench::Kind::kU64:
          cJSON_AddNumberToObject(set, layout.name.c_str(), static_cast<double>(bits));
          break;
        case bench::Kind::kI64:
          cJSON_AddNumberToObject(set, layout.name.c_str(),
                                  static_cast<double>(static_cast<int64_t>(bits)));
          break;
        case bench::Kind::kF64: {
          double v;
          std::memcpy(&v, &bits, 8);
          cJSON_AddNumberToObject(set, layout.name.c_str(), v);
          break;
        }
        case bench::Kind::kBit64:
        case bench::Kind::kGuid:
          std::snprintf(text, sizeof text, "0x%016llx", static_cast<unsigned long long>(bits));
          cJSON_AddStringToObject(set, layout.name.c_str(), text);
          break;
        case bench::Kind::kString: {
          std::string value(reinterpret_cast<const char*>(at),
                            strnlen(reinterpret_cast<const char*>(at), bench::kStringLength));
          cJSON_AddStringToObject(set, layout.name.c_str(), value.c_str());
          break;
        }
      }
      at += bench::value_size(layout.kind);
    }
    char* printed = cJSON_PrintUnformatted(record);
    std::fputs(printed, stdout);
    std::fputc('\n', stdout);
    cJSON_free(printed);
    cJSON_Delete(record);
  }
  return 0;
}
