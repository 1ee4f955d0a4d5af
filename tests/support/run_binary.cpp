#include "tests/support/run_binary.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <csignal>
#include <cstdlib>
#include <sstream>

namespace nmb::test {

RunResult run_binary(const std::string& program, const std::vector<std::string>& args,
                     const RunOptions& options) {
  RunResult result;
  // NMB_TEST_WRAPPER: a command (absolute path, words split at blanks) that
  // runs the program, e.g. valgrind for scripts/memcheck.sh.
  std::vector<std::string> wrapper;
  if (const char* text = std::getenv("NMB_TEST_WRAPPER")) {
    std::istringstream words(text);
    for (std::string word; words >> word;) wrapper.push_back(word);
  }
  int out_pipe[2];
  int err_pipe[2];
  if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0) return result;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out_pipe[1], STDOUT_FILENO);
    dup2(err_pipe[1], STDERR_FILENO);
    close(out_pipe[0]);
    close(out_pipe[1]);
    close(err_pipe[0]);
    close(err_pipe[1]);
    if (!options.stdout_path.empty()) {
      int fd = open(options.stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0) _exit(127);
      close(fd);
    } else if (options.stdout_closed_pipe) {
      int gone[2];
      if (pipe(gone) != 0 || dup2(gone[1], STDOUT_FILENO) < 0) _exit(127);
      close(gone[0]);
      close(gone[1]);
      signal(SIGPIPE, SIG_IGN);  // stays ignored across exec
    }
    if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(127);
    // Timestamps render in local time: pin it so that expected texts hold on
    // any machine (a test may still set TZ itself).
    setenv("TZ", "UTC", 1);
    for (const auto& name : options.unset_env) unsetenv(name.c_str());
    for (const auto& [name, value] : options.env) setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> argv;
    for (auto& word : wrapper) argv.push_back(word.data());
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open_count = 2;
  char buffer[65536];
  while (open_count > 0) {
    if (poll(fds, 2, -1) < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP)) == 0) continue;
      ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_count;
      }
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

namespace {
// "[YYYY-mm-dd HH:MM:SS.mmm] " at `text[at]`.
bool prefix_at(const std::string& text, size_t at) {
  static constexpr const char shape[] = "[dddd-dd-dd dd:dd:dd.ddd] ";
  if (text.size() - at < sizeof shape - 1) return false;
  for (size_t i = 0; i + 1 < sizeof shape; ++i) {
    char c = text[at + i];
    if (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(c)) : c != shape[i]) {
      return false;
    }
  }
  return true;
}
}  // namespace

bool starts_with_log_timestamp(const std::string& line) {
  return prefix_at(line, 0);
}

std::string find_program(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    std::string candidate = dir + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

std::string strip_log_timestamps(const std::string& text) {
  std::string result;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    end = end == std::string::npos ? text.size() : end + 1;
    size_t start = prefix_at(text, at) ? at + 26 : at;
    result.append(text, start, end - start);
    at = end;
  }
  return result;
}

}  // namespace nmb::test
