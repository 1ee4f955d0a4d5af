// libFuzzer target: arbitrary bytes as a --checkpoint file. Reading it must
// either refuse it or give entries that, written again and read back, are
// the same entries (paths that are not UTF-8 go through path_hex).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "app/checkpoint.h"
#include "fuzz/fuzz_inputs.h"

namespace {
std::string g_dir;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_dir = nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_checkpoint");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = g_dir + "/checkpoint.json";
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) std::abort();
  if (size != 0 && std::fwrite(data, 1, size, file) != size) std::abort();
  std::fclose(file);
  std::optional<nmb_checkpoint_t> read = nmb_checkpoint_read(path);
  if (!read) return 0;
  if (!nmb_checkpoint_write(path, *read)) std::abort();
  std::optional<nmb_checkpoint_t> again = nmb_checkpoint_read(path);
  if (!again || again->files.size() != read->files.size()) std::abort();
  for (size_t i = 0; i < read->files.size(); ++i) {
    const nmb_checkpoint_entry_t& a = read->files[i];
    const nmb_checkpoint_entry_t& b = again->files[i];
    if (a.path != b.path || a.device != b.device || a.inode != b.inode || a.offset != b.offset ||
        a.first_timestamp != b.first_timestamp)
      std::abort();
  }
  return 0;
}
