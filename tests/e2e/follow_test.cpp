// --follow and --checkpoint against a writer of our own that works the way
// collectors do: it appends whole chunks and rewrites the header's file_size
// after each append, starts a second file, and leaves a chunk half written
// for a while. Every wait is bounded.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;
using namespace std::chrono_literals;

constexpr uint64_t kT0 = 1700000000000000;
constexpr uint32_t kBlockSize = 512;

// A data file written chunk by chunk: header first, then each append is
// followed by a header rewrite with the new file size.
class GrowingFile {
 public:
  GrowingFile(std::string path, const SchemaId& counters, const std::string& source, int chunks,
              uint64_t t0)
      : path_(std::move(path)) {
    DataFile file;
    file.block_size(kBlockSize).source(source, "t").times(t0, t0).counters_schema(counters);
    for (int i = 0; i < chunks; ++i)
      file.chunk(Chunk().counters(t0 + i * 1000000, Bytes().u64(i).u64(100 + i)));
    bytes_ = file.plain_bytes();
    write_file(path_, ByteVec(bytes_.begin(), bytes_.begin() + 256));
    written_ = 256;
    rewrite_header();
  }
  // Appends the next `count` chunks (a half one when `half`).
  void append(int count, bool half = false) {
    size_t size = count * kBlockSize + (half ? kBlockSize / 2 : 0);
    std::ofstream out(path_, std::ios::binary | std::ios::app);
    out.write(reinterpret_cast<const char*>(bytes_.data() + written_), size);
    out.close();
    written_ += size;
    if (written_ % kBlockSize == 256 % kBlockSize) rewrite_header();
  }
  // The rest of a half-written chunk.
  void complete() { append(0, true); }
  const std::string& path() const { return path_; }

 private:
  void rewrite_header() {
    ByteVec header(bytes_.begin(), bytes_.begin() + 256);
    poke_le(header, kHeaderOffsetFileSize, written_, 8);
    const int fd = open(path_.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(pwrite(fd, header.data(), header.size(), 0), 256);
    close(fd);
  }

  std::string path_;
  ByteVec bytes_;
  size_t written_ = 0;
};

// nmb_read running in the background, its standard output and error in
// files; stopped by SIGTERM (SIGKILL after 10 s) when the test is done.
class Follower {
 public:
  Follower(const std::string& dir, const std::vector<std::string>& args, bool poll = false)
      : out_(dir + "/follow.out"), err_(dir + "/follow.err") {
    pid_ = fork();
    if (pid_ == 0) {
      const int out = open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      const int err = open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(out, STDOUT_FILENO);
      dup2(err, STDERR_FILENO);
      setenv("TZ", "UTC", 1);
      if (poll) setenv("NMB_FOLLOW_POLL", "1", 1);
      std::vector<char*> argv{const_cast<char*>(NMB_READ_BINARY)};
      for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
  }
  ~Follower() {
    if (pid_ > 0) stop();
  }

  // Waits (at most 10 s) until standard output holds `lines` lines.
  bool wait_for_lines(size_t lines) const {
    for (int i = 0; i < 200; ++i) {
      if (output_lines() >= lines) return true;
      std::this_thread::sleep_for(50ms);
    }
    return false;
  }
  size_t output_lines() const {
    const std::string text = out();
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  }
  std::string out() const { return read_text(out_); }
  std::string err() const { return strip_log_timestamps(read_text(err_)); }

  // SIGTERM, then the exit status (-1 when it had to be killed).
  int stop() {
    kill(pid_, SIGTERM);
    int status = 0;
    for (int i = 0; i < 200; ++i) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      std::this_thread::sleep_for(50ms);
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return -1;
  }

 private:
  static std::string read_text(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string out_;
  std::string err_;
  pid_t pid_ = -1;
};

class FollowE2E : public E2ETest {
 protected:
  void SetUp() override {
    CounterGroup g("g");
    g.counter("a").counter("b");
    counters_ = write_schema_file(schema_dir_, CountersSchema().group(g));
    std::filesystem::create_directories(dir_.file("data"));
  }
  std::vector<std::string> follow_args(std::vector<std::string> more) const {
    std::vector<std::string> args{"-s",       schema_dir_,         "-f",  "ndjson",
                                  "--follow", "--follow-interval", "0.05"};
    args.insert(args.end(), more.begin(), more.end());
    return args;
  }

  SchemaId counters_{};
};

// Woken by inotify, or looking every 50 ms without it.
class FollowBothWays : public FollowE2E, public ::testing::WithParamInterface<bool> {};

TEST_P(FollowBothWays, WhatFollowingWroteIsThePlainExportOfTheFinalFiles) {
  GrowingFile a(dir_.file("data/a.bin"), counters_, "a", 6, kT0);
  a.append(2);
  Follower follower(dir_.path(), follow_args({"-d", dir_.file("data")}), GetParam());
  ASSERT_TRUE(follower.wait_for_lines(2)) << follower.err();
  a.append(1, true);  // a whole chunk and half of the next
  ASSERT_TRUE(follower.wait_for_lines(3)) << follower.err();
  GrowingFile b(dir_.file("data/b.bin"), counters_, "b", 2, kT0 + 100);
  b.append(2);
  ASSERT_TRUE(follower.wait_for_lines(5)) << follower.err();
  // The half-written chunk is not taken until it is whole.
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(follower.output_lines(), 5u);
  a.complete();
  a.append(2);
  ASSERT_TRUE(follower.wait_for_lines(8)) << follower.err();
  EXPECT_EQ(follower.stop(), 0);
  EXPECT_EQ(follower.err(), "");

  RunResult plain = run({"-f", "ndjson", a.path(), b.path()});
  ASSERT_EQ(plain.status, 0) << plain.err;
  // a's first chunks, b's, then the rest of a: each file in its order.
  std::vector<std::string> followed;
  std::vector<std::string> expected;
  std::istringstream f(follower.out());
  std::istringstream p(plain.out);
  for (std::string line; std::getline(f, line);) followed.push_back(line);
  for (std::string line; std::getline(p, line);) expected.push_back(line);
  ASSERT_EQ(expected.size(), 8u);
  const std::vector<std::string> order{expected[0], expected[1], expected[2], expected[6],
                                       expected[7], expected[3], expected[4], expected[5]};
  EXPECT_EQ(followed, order);
}

INSTANTIATE_TEST_SUITE_P(Wakeups, FollowBothWays, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Polling" : "Inotify"; });

TEST_F(FollowE2E, ACheckpointResumesWithNothingLostOrRepeated) {
  GrowingFile a(dir_.file("data/a.bin"), counters_, "a", 7, kT0);
  a.append(3);
  const std::string checkpoint = dir_.file("state/checkpoint.json");
  std::filesystem::create_directories(dir_.file("state"));
  std::string out;
  {
    Follower follower(dir_.path(), follow_args({"--checkpoint", checkpoint, a.path()}));
    ASSERT_TRUE(follower.wait_for_lines(3)) << follower.err();
    EXPECT_EQ(follower.stop(), 0);
    out = follower.out();
  }
  // More chunks while nothing runs, exported once by a run without
  // --follow, and nothing by the run after it.
  a.append(2);
  RunResult second = run({"-f", "ndjson", "--checkpoint", checkpoint, a.path()});
  EXPECT_EQ(second.status, 0) << second.err;
  a.append(2);
  RunResult third = run({"-f", "ndjson", "--checkpoint", checkpoint, a.path()});
  RunResult fourth = run({"-f", "ndjson", "--checkpoint", checkpoint, a.path()});
  EXPECT_EQ(fourth.out, "");
  RunResult plain = run({"-f", "ndjson", a.path()});
  EXPECT_EQ(out + second.out + third.out, plain.out);

  // A checkpoint that cannot be read stops the run before any output.
  write_text_file(checkpoint, "{\"nmb_read_checkpoint\":1,\"files\":[{}]}");
  RunResult broken = run({"-f", "ndjson", "--checkpoint", checkpoint, a.path()});
  EXPECT_EQ(broken.status, 1);
  EXPECT_EQ(broken.out, "");
  EXPECT_EQ(broken.err, "[error] Failed to read checkpoint " + checkpoint +
                            ": an entry without path, device, inode, offset or first_timestamp\n");
}

TEST_F(FollowE2E, AFileReplacedOrWithABrokenHeaderIsTakenAsNew) {
  GrowingFile a(dir_.file("data/a.bin"), counters_, "a", 2, kT0);
  a.append(2);
  Follower follower(dir_.path(), follow_args({a.path()}));
  ASSERT_TRUE(follower.wait_for_lines(2)) << follower.err();
  // A header that turns invalid: nothing until it is valid again, then the
  // file is exported anew.
  const ByteVec good = read_file(a.path());
  ByteVec broken = good;
  broken[0] = 'X';
  broken.resize(good.size() + kBlockSize, 0);  // and a look at the file
  {
    const int fd = open(a.path().c_str(), O_WRONLY);
    ASSERT_EQ(pwrite(fd, broken.data(), broken.size(), 0), static_cast<ssize_t>(broken.size()));
    close(fd);
  }
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(follower.output_lines(), 2u);
  {
    const int fd = open(a.path().c_str(), O_WRONLY);
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(good.size())), 0);
    ASSERT_EQ(pwrite(fd, good.data(), 256, 0), 256);
    close(fd);
  }
  ASSERT_TRUE(follower.wait_for_lines(4)) << follower.err();
  // Another file at the path: exported from its start too.
  GrowingFile b(dir_.file("b.bin"), counters_, "b", 1, kT0 + 50);
  b.append(1);
  std::filesystem::rename(b.path(), a.path());
  ASSERT_TRUE(follower.wait_for_lines(5)) << follower.err();
  EXPECT_EQ(follower.stop(), 0);
  EXPECT_EQ(follower.err(), "[error] Wrong data page magic number.\n[warning] " + a.path() +
                                " has no valid header any more: the file is taken as new\n"
                                "[warning] " +
                                a.path() + " was replaced: the file is taken as new\n");
}

TEST_F(FollowE2E, ANamedFileThatDoesNotExistYetIsWaitedFor) {
  const std::string later = dir_.file("later/a.bin");
  std::filesystem::create_directories(dir_.file("later"));
  Follower follower(dir_.path(), follow_args({later}));
  std::this_thread::sleep_for(200ms);
  GrowingFile a(later, counters_, "a", 2, kT0);
  a.append(2);
  ASSERT_TRUE(follower.wait_for_lines(2)) << follower.err();
  EXPECT_EQ(follower.stop(), 0);
  EXPECT_EQ(follower.err(), "[info] Waiting for " + later + "\n");
}

TEST_F(FollowE2E, FormatsThatCannotFollowAreRefused) {
  for (const char* format : {"json", "bin"}) {
    RunResult r = run({"-f", format, "-o", dir_.path(), "--follow", dir_.file("x.bin")});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("--follow needs an output format written record by record"),
              std::string::npos)
        << format;
  }
  RunResult jobs = run({"-f", "ndjson", "-j", "2", "--follow", dir_.file("x.bin")});
  EXPECT_EQ(jobs.status, 1);
  EXPECT_NE(jobs.err.find("-j 2 cannot be used with it"), std::string::npos);
}

}  // namespace
