// Buffers of files waiting for their turn: pieces held within the budget,
// then spilled, then live, always delivered in the order written.
#include "utils/output.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>

namespace {

// A temporary file to deliver into, read back whole.
class Delivered {
 public:
  Delivered() : file_(std::tmpfile()) {}
  ~Delivered() { std::fclose(file_); }
  int fd() const { return fileno(file_); }
  std::string text() const {
    std::string text(static_cast<size_t>(::lseek(fd(), 0, SEEK_END)), '\0');
    EXPECT_EQ(::pread(fd(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    return text;
  }

 private:
  FILE* file_;
};

void write_records(nmb::OutputBuffer& buffer, const char* first, const char* last) {
  for (const char* c = first; c != last; ++c) {
    buffer.write(std::string(2, *c));
    buffer.commit();
  }
}

TEST(WaitingBuffer, HoldsWithinTheBudgetThenSpillsAndDeliversInOrder) {
  std::atomic<size_t> budget{4};
  Delivered delivered;
  {
    nmb::OutputBuffer target(delivered.fd(), 0);
    nmb::OutputBuffer waiting(nmb::OutputBuffer::Spill{2, -1, &budget});
    const std::string records = "abcde";
    write_records(waiting, records.data(), records.data() + records.size());
    EXPECT_TRUE(waiting.holds_pieces());
    EXPECT_TRUE(waiting.spilled());
    EXPECT_EQ(budget.load(), 0u);
    waiting.move_to(target);
  }
  EXPECT_EQ(delivered.text(), "aabbccddee");
  EXPECT_EQ(budget.load(), 4u);
}

TEST(WaitingBuffer, GoesLiveAfterWhatItHeld) {
  std::atomic<size_t> budget{100};
  Delivered delivered;
  nmb::OutputBuffer waiting(nmb::OutputBuffer::Spill{2, delivered.fd(), &budget});
  const std::string records = "abc";
  write_records(waiting, records.data(), records.data() + 2);
  EXPECT_EQ(delivered.text(), "");
  waiting.go_live();
  write_records(waiting, records.data() + 2, records.data() + 3);
  EXPECT_EQ(delivered.text(), "aabbcc");
  EXPECT_FALSE(waiting.holds_pieces());
  EXPECT_EQ(budget.load(), 100u);
}

}  // namespace
