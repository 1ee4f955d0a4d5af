// Writes the seed corpora of the fuzz targets, one folder per target, built
// with the test-data builder: make_fuzz_seeds <corpus root>
// (the metrics fuzzers' seeds come from make_metrics_seeds).
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "data/path_template.h"
#include "fuzz/fuzz_inputs.h"

namespace {

using nmb::test::ByteVec;

ByteVec text(std::string_view s) {
  return ByteVec(s.begin(), s.end());
}

void write_seeds(const std::string& root) {
  namespace fs = std::filesystem;
  auto put = [&](const std::string& target, const std::string& name, const ByteVec& bytes) {
    fs::create_directories(root + "/" + target);
    nmb::test::write_file(root + "/" + target + "/" + name, bytes);
  };
  const auto files = nmb::fuzz::fuzz_seed_files(nmb::fuzz::fuzz_schema_ids());
  ByteVec jobs{1};  // ndjson
  for (const auto& [name, bytes] : files) {
    put("fuzz_reader", name + ".bin", bytes);
    if (jobs.size() > 1) jobs.insert(jobs.end(), {'N', 'M', 'B', 'S', 'P', 'L', 'I', 'T'});
    jobs.insert(jobs.end(), bytes.begin(), bytes.end());
    // Each chunk of 256 bytes after the header, behind a selector byte.
    if (name == "pages") {
      for (size_t at = 256, n = 0; at < bytes.size(); at += 256, ++n) {
        ByteVec chunk{static_cast<uint8_t>(n)};
        chunk.insert(chunk.end(), bytes.begin() + static_cast<long>(at),
                     bytes.begin() + static_cast<long>(std::min(at + 256, bytes.size())));
        put("fuzz_packed_page", "page" + std::to_string(n), chunk);
      }
    }
  }
  put("fuzz_jobs", "all_files", jobs);
  nmb::fuzz::write_fuzz_schemas(root + "/fuzz_schema");

  using namespace std::string_literals;  // the arguments hold NULs
  int n = 0;
  for (const std::string& argv :
       {"-f\0ndjson\0data.bin"s,
        "-s\0schema\0-S\0source_tag,first_timestamp\0-j\0"
        "2\0data.bin"s,
        "-d\0.\0-C\0filter\0-F\0filter\0-I\0-M\0-u"s,
        "-g\0"
        "0x10\0-l\0"
        "99\0-p\0-v\0"
        "7\0data.bin"s,
        "-i\0a*\0-e\0b\0-o\0.\0-f\0bin\0data.bin"s, "-h"s, "-V"s, "--format=csv\0--verbose=3"s})
    put("fuzz_options", "argv" + std::to_string(n++), text(argv));
  put("fuzz_path_template", "default",
      text(std::string(NMB_DEFAULT_PATH_TEMPLATE) + "\\\\node1\\\\tag"));
  put("fuzz_path_template", "hash", text("{{hash16}}/{{node}}_{{port}}/{{id}}.bin\\\\0x1f\\\\t"));
  put("fuzz_counter_set", "set", text("+rx -tx\n^port$\ncaption: +a\n"));
  put("fuzz_field_set", "set", text("[default]\n+name\n[record,outer]\n-value\n[net*]\n+a\n"));
  put("fuzz_checkpoint", "checkpoint",
      text("{\"nmb_read_checkpoint\":1,\"files\":[\n{\"path\":\"a.bin\",\"device\":1,"
           "\"inode\":2,\"offset\":4352,\"first_timestamp\":1700000000000000},\n"
           "{\"path_hex\":\"ff2f61\",\"device\":1,\"inode\":3,\"offset\":256,"
           "\"first_timestamp\":0}\n]}\n"));
  put("fuzz_metadata", "metadata",
      text(R"j({"name_match_labels":[{"pattern":"c(\\d+)","labels":{"n":"$1"}}]})j"));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus root>\n", argv[0]);
    return 2;
  }
  try {
    write_seeds(argv[1]);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "make_fuzz_seeds: %s\n", e.what());
    return 1;
  }
  return 0;
}
