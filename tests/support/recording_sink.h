// A block sink that only records what the reader hands it, so reader tests
// see the blocks of a walk without any output format.
#pragma once

#include <algorithm>
#include <string>

#include "data/block_sink.h"
#include "data/format.h"

namespace nmb::test {

class RecordingSink : public nmb::BlockSink {
 public:
  std::string kinds;  // one letter a block: c counters, e events, m metrics
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

  size_t count(char kind) const { return std::count(kinds.begin(), kinds.end(), kind); }

 private:
  bool add(char kind, nmb::ByteView /*block*/) {
    kinds.push_back(kind);
    return true;
  }
};

}  // namespace nmb::test
