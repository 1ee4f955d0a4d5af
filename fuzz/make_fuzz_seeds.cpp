// Writes the reader fuzzer's seed corpus into a folder: make_fuzz_seeds <folder>
#include <cstdio>
#include <exception>
#include <filesystem>

#include "fuzz/fuzz_inputs.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
    return 2;
  }
  try {
    std::filesystem::create_directories(argv[1]);
    for (const auto& [name, bytes] : nmb::fuzz::fuzz_seed_files(nmb::fuzz::fuzz_schema_ids()))
      nmb::test::write_file(std::string(argv[1]) + "/" + name + ".bin", bytes);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "make_fuzz_seeds: %s\n", e.what());
    return 1;
  }
  return 0;
}
