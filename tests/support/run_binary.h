// Runs a program and captures what it writes, for the end-to-end tests. The
// program runs with TZ=UTC unless the options set TZ.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace nmb::test {

struct RunResult {
  int status = -1;  // exit status, or -1 when the program did not exit normally
  std::string out;
  std::string err;
};

struct RunOptions {
  std::string cwd;                                       // empty: current directory
  std::vector<std::pair<std::string, std::string>> env;  // added or replaced variables
  std::vector<std::string> unset_env;                    // removed variables
  // Standard output goes to this file instead of being captured ("/dev/full").
  std::string stdout_path;
  // Standard output is a pipe nobody reads any more, and SIGPIPE is ignored.
  bool stdout_closed_pipe = false;
};

RunResult run_binary(const std::string& program, const std::vector<std::string>& args,
                     const RunOptions& options = {});

// The program's path through PATH, empty when it is not there.
std::string find_program(const std::string& name);

// Removes the "[YYYY-mm-dd HH:MM:SS.mmm] " prefix of every log line.
std::string strip_log_timestamps(const std::string& text);
// True when `line` starts with such a prefix.
bool starts_with_log_timestamp(const std::string& line);

}  // namespace nmb::test
