// The progress line: drawn on a terminal standard error while standard output
// goes to a file, erased before every log line and at the end, and never
// drawn with NMB_NO_PROGRESS; what is left is exactly the plain run's text.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;

struct TerminalRun {
  int status = -1;
  std::string terminal;  // what standard error wrote to the terminal
  std::string out;
};

// Runs nmb_read with standard error on a pseudo-terminal (raw, so that the
// bytes arrive unchanged) and standard output in a file. `fifo` is fed with
// `data` after a pause longer than the first update.
TerminalRun run_on_terminal(const TempDir& dir, const std::vector<std::string>& args,
                            const std::string& fifo, const ByteVec& data, bool progress_off) {
  int master = -1;
  int slave = -1;
  TerminalRun run;
  if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return run;
  termios mode;
  tcgetattr(slave, &mode);
  cfmakeraw(&mode);
  tcsetattr(slave, TCSANOW, &mode);
  const std::string out_path = dir.file("stdout.txt");
  pid_t child = fork();
  if (child == 0) {
    int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, STDOUT_FILENO);
    dup2(slave, STDERR_FILENO);
    setenv("TZ", "UTC", 1);
    if (progress_off) {
      setenv("NMB_NO_PROGRESS", "1", 1);
    } else {
      unsetenv("NMB_NO_PROGRESS");
    }
    std::vector<char*> argv = {const_cast<char*>(NMB_READ_BINARY)};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(NMB_READ_BINARY, argv.data());
    _exit(127);
  }
  close(slave);
  // Opening the FIFO for writing succeeds once nmb_read has opened it (a
  // bounded wait, so that a tool that never does fails instead of hanging).
  int feed = -1;
  for (int tries = 0; feed < 0 && tries < 1000; ++tries) {
    feed = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
    if (feed < 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_GE(feed, 0) << "nmb_read did not open " << fifo;
  if (feed >= 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    EXPECT_EQ(write(feed, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    close(feed);
  } else {
    kill(child, SIGKILL);
  }
  char buffer[4096];
  for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;) run.terminal.append(buffer, n);
  close(master);
  int status = 0;
  waitpid(child, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  const ByteVec out = read_file(out_path);
  run.out.assign(out.begin(), out.end());
  return run;
}

class ProgressLine : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(run_binary(NMB_MAKE_SAMPLE_BINARY, {dir.path()}).status, 0);
    ASSERT_EQ(mkfifo(dir.file("slow.bin").c_str(), 0600), 0);
    // A missing file logs an error after the line has been drawn.
    args = {"-s",
            dir.file("schema"),
            "-f",
            "ndjson",
            dir.file("counters.bin"),
            dir.file("slow.bin"),
            dir.file("missing.bin")};
    plain_args = args;
    plain_args[5] = dir.file("events.bin");
  }
  TerminalRun run(bool progress_off) {
    return run_on_terminal(dir, args, dir.file("slow.bin"), read_file(dir.file("events.bin")),
                           progress_off);
  }
  TempDir dir;
  std::vector<std::string> args;
  std::vector<std::string> plain_args;  // the same run with the FIFO's bytes in a file
};

TEST_F(ProgressLine, IsDrawnAndErasedAroundWhatThePlainRunWrites) {
  const RunResult plain = run_binary(NMB_READ_BINARY, plain_args);
  const TerminalRun shown = run(false);
  EXPECT_EQ(shown.status, plain.status);
  EXPECT_EQ(shown.out, plain.out);
  EXPECT_NE(shown.terminal.find("\rnmb_read: 1 of 3 files, "), std::string::npos) << shown.terminal;
  // Every drawn line is erased by blanks before the next text; without them
  // the terminal holds the plain run's standard error.
  const std::string rest =
      std::regex_replace(shown.terminal, std::regex("(\rnmb_read: [^\r]*)+\r *\r"), "");
  EXPECT_EQ(strip_log_timestamps(rest), strip_log_timestamps(plain.err)) << shown.terminal;
}

TEST_F(ProgressLine, IsOffWithTheVariable) {
  const RunResult plain = run_binary(NMB_READ_BINARY, plain_args);
  const TerminalRun quiet = run(true);
  EXPECT_EQ(quiet.out, plain.out);
  EXPECT_EQ(strip_log_timestamps(quiet.terminal), strip_log_timestamps(plain.err));
}

}  // namespace
