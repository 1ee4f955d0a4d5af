// Numbers the records of one type that share their time and their labels, so
// that the n-th of them gets seq=n and no two records become one point of a
// time-series store.
// Stage: base.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <vector>

namespace nmb {

// Counts the records of one type at one header time by their tag sets, so
// that the n-th record with the same tags gets seq=n and no two records
// become one point. The count starts again when the time changes. Tag sets
// are told apart by a 64-bit hash of their text: two sets with the same hash
// only get different seq numbers, which loses nothing.
class RecordSeq {
 public:
  uint32_t next(uint64_t time, uint64_t hash) {
    if (!started_ || time != time_) {
      for (uint32_t i : used_) slots_[i].used = false;
      used_.clear();
      time_ = time;
      started_ = true;
    }
    if ((used_.size() + 1) * 2 > slots_.size()) grow();
    Slot& slot = find(hash);
    if (!slot.used) {
      slot = {hash, 0, true};
      used_.push_back(static_cast<uint32_t>(&slot - slots_.data()));
    }
    return slot.count++;
  }

 private:
  struct Slot {
    uint64_t hash = 0;
    uint32_t count = 0;
    bool used = false;
  };

  Slot& find(uint64_t hash) {
    const size_t mask = slots_.size() - 1;
    size_t i = hash & mask;
    while (slots_[i].used && slots_[i].hash != hash) i = (i + 1) & mask;
    return slots_[i];
  }
  void grow() {
    std::vector<Slot> old(std::max<size_t>(16, slots_.size() * 2));
    old.swap(slots_);
    used_.clear();
    for (const Slot& slot : old) {
      if (!slot.used) continue;
      Slot& moved = find(slot.hash);
      moved = slot;
      used_.push_back(static_cast<uint32_t>(&moved - slots_.data()));
    }
  }

  std::vector<Slot> slots_;  // open addressing, a power of two
  std::vector<uint32_t> used_;
  uint64_t time_ = 0;
  bool started_ = false;
};

inline uint64_t fnv1a(std::string_view text) {
  uint64_t h = 14695981039346656037u;
  for (char c : text) h = (h ^ static_cast<uint8_t>(c)) * 1099511628211u;
  return h;
}

}  // namespace nmb
