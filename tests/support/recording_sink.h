// A block sink that only records what the reader hands it, so reader tests
// see the blocks of a walk without any output format.
#pragma once

#include <string>
#include <vector>

#include "data/block_sink.h"
#include "data/format.h"

namespace nmb::test {

class RecordingSink : public nmb::BlockSink {
 public:
  struct Block {
    char kind;  // 'c' counters, 'e' events, 'm' metrics
    size_t size;
    size_t readable;
  };
  std::vector<Block> blocks;
  std::string path;

  bool file_opened(const char* p) override {
    path = p;
    return true;
  }
  void schemas_loaded(const nmb_type_system_t* /*ts*/) override {}
  bool counters_block(nmb::ByteView b) override { return add('c', b); }
  size_t events_block(nmb::ByteView b) override {
    add('e', b);
    return NMB_EVENT_BLOCK_HEADER_SIZE;
  }
  bool metrics_block(nmb::ByteView b) override { return add('m', b); }

  size_t count(char kind) const {
    size_t n = 0;
    for (const Block& b : blocks) n += b.kind == kind;
    return n;
  }

 private:
  bool add(char kind, nmb::ByteView b) {
    blocks.push_back({kind, b.size(), b.readable()});
    return true;
  }
};

}  // namespace nmb::test
