// libFuzzer target: the option parser over an argv made from the input (NUL
// bytes separate the arguments). Runs in a scratch folder holding a data file
// and a schema folder, so that file checks, the data directory walk and the
// schema folder search find something; '/' is replaced so no argument leaves
// that folder. What a parse accepts must be within the documented bounds.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "app/options.h"
#include "fuzz/fuzz_inputs.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::string dir = nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_options");
  nmb::fuzz::write_fuzz_schemas(dir + "/schema");
  nmb::test::write_file(dir + "/data.bin", nmb::test::DataFile().bytes());
  nmb::test::write_file(dir + "/filter", nmb::test::ByteVec{'+', 'a', '\n'});
  if (chdir(dir.c_str()) != 0) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> args{"nmb_read"};
  std::string current;
  for (size_t i = 0; i < size && args.size() < 64; ++i) {
    if (data[i] == 0) {
      args.push_back(current);
      current.clear();
    } else {
      current.push_back(data[i] == '/' ? '_' : static_cast<char>(data[i]));
    }
  }
  if (!current.empty() && args.size() < 64) args.push_back(current);
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  nmb_read_options_t options;
  bool exit_now = false;
  const bool ok =
      nmb_read_parse_options(static_cast<int>(args.size()), argv.data(), options, exit_now);
  if (ok && !exit_now) {
    if (options.verbosity > NMB_MAX_VERBOSITY) std::abort();
    if (options.jobs < 1 || options.jobs > NMB_MAX_JOBS) std::abort();
    if (nmb_output_format_name(options.format) == nullptr) std::abort();
    if (options.include.empty()) std::abort();  // "*" is the default
  }
  return 0;
}
