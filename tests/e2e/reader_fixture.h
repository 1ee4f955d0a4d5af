// The fixture of the tests of the reader's walk: a schema folder with a
// counters schema of two UINT64 counters, files built on it, and the texts
// the tool prints for them.
#pragma once

#include <cstdio>
#include <string>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"

namespace nmb::test {

inline constexpr uint64_t kT0 = 1700000000000000;

class ReaderE2E : public E2ETest {
 protected:
  void SetUp() override {
    counters_id_ = write_schema_file(
        schema_dir_, CountersSchema().group(CounterGroup("node").counter("a").counter("b")));
  }

  // A file whose counters schema has two UINT64 counters (16 value bytes).
  DataFile counters_file(uint32_t block_size = 64) const {
    DataFile file;
    file.block_size(block_size).times(kT0, kT0 + 3).counters_schema(counters_id_);
    return file;
  }

  static ByteVec values(uint64_t a, uint64_t b) { return Bytes().u64(a).u64(b); }

  static std::string data_block_print(uint64_t timestamp) {
    return "Data block\n magic number         = NMBD\n last timestamp       = " +
           std::to_string(timestamp) + "\n";
  }

  std::string failed(const std::string& path, const std::string& message) const {
    return "Failed processing file " + path + ": " + message + "\n";
  }

  SchemaId counters_id_;
};

// The -p print of a file header, line by line.
inline std::string header_print(const FileHeader& h, uint64_t file_size) {
  auto line = [](const char* label, const std::string& value) {
    char text[256];
    std::snprintf(text, sizeof text, " %-20s = %s\n", label, value.c_str());
    return std::string(text);
  };
  std::string version =
      std::to_string(h.major) + "." + std::to_string(h.minor) + "." + std::to_string(h.patch);
  std::string out = "Data file header\n";
  out += line("magic number", h.magic.substr(0, 4));
  out += line("version", version);
  out += line("file size", std::to_string(file_size));
  out += line("source id", h.source_id.substr(0, 64));
  out += line("source tag", h.source_tag.substr(0, 16));
  out += line("first timestamp", std::to_string(h.first_timestamp));
  out += line("last timestamp", std::to_string(h.last_timestamp));
  out += line("data block size", std::to_string(h.block_size));
  out += line("counters schema id", schema_id_hex(h.counters_schema_id));
  for (int i = 0; i < 7; ++i)
    out += " schema id[" + std::to_string(i) +
           "]         = " + schema_id_hex(h.event_schema_ids[i]) + "\n";
  out += line("byte order", std::to_string(h.byte_order) + (h.byte_order ? " (BE)" : " (LE)"));
  out += line("end magic number", h.magic_end.substr(0, 4));
  return out;
}

}  // namespace nmb::test
