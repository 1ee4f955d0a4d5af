// The one bounds-checked reader of little-endian values in data files.
//
// A `ByteView` is a block inside the buffer that holds it (a chunk buffer or a
// decoded page). Offsets and lengths come from untrusted schemas and payloads,
// so every read is checked: a read that runs past the block reads the bytes
// the buffer holds there (the rest of a decoded page, or what the previous
// chunk left in the chunk buffer), and only the part of a read past the end of
// the buffer itself reads zeros. A view made from a plain span has no bytes
// beyond it.
// Stage: model.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace nmb {

static_assert(std::endian::native == std::endian::little,
              "data files are little-endian and read in place");

class ByteView {
 public:
  ByteView() = default;
  // A view with nothing readable past its end.
  explicit ByteView(std::span<const uint8_t> bytes)
      : data_(bytes.data()), size_(bytes.size()), readable_(bytes.size()) {}
  // A block of `size` bytes at `data`, inside a buffer whose bytes are
  // readable up to `data + readable` (readable >= size).
  ByteView(const uint8_t* data, size_t size, size_t readable)
      : data_(data), size_(size), readable_(readable < size ? size : readable) {}

  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  // Bytes readable from data(): the block and what follows it in its buffer.
  size_t readable() const { return readable_; }
  std::span<const uint8_t> span() const { return {data_, size_}; }
  bool empty() const { return size_ == 0; }

  // True when `length` bytes at `offset` lie inside the block.
  bool fits(uint64_t offset, uint64_t length) const {
    return offset <= size_ && length <= size_ - offset;
  }

  // The view from `offset` to the end of the block (empty past it); what
  // follows the block stays readable.
  ByteView from(uint64_t offset) const {
    if (offset >= readable_) return ByteView(data_ + readable_, 0, 0);
    size_t at = static_cast<size_t>(offset);
    return ByteView(data_ + at, offset < size_ ? size_ - at : 0, readable_ - at);
  }
  // The block cut to its first `length` bytes (what follows stays readable).
  ByteView first(uint64_t length) const {
    return ByteView(data_, length < size_ ? static_cast<size_t>(length) : size_, readable_);
  }

  // Copies `count` bytes at `offset`; bytes past the buffer are zero.
  void copy(uint64_t offset, void* out, size_t count) const {
    size_t available = 0;
    if (offset < readable_) {
      available = readable_ - static_cast<size_t>(offset);
      if (available > count) available = count;
      std::memcpy(out, data_ + offset, available);
    }
    if (available < count)
      std::memset(static_cast<uint8_t*>(out) + available, 0, count - available);
  }

  // The little-endian value at `offset` (T an integer or floating type).
  template <typename T>
  T get(uint64_t offset) const {
    T value;
    if (offset <= readable_ && sizeof(T) <= readable_ - offset) {
      std::memcpy(&value, data_ + offset, sizeof(T));
    } else {
      copy(offset, &value, sizeof(T));
    }
    return value;
  }
  // get<T>, or for kInBounds a plain read: the caller has checked that the
  // value lies within readable().
  template <typename T, bool kInBounds>
  T read(uint64_t offset) const {
    if constexpr (kInBounds) {
      T value;
      std::memcpy(&value, data_ + offset, sizeof(T));
      return value;
    } else {
      return get<T>(offset);
    }
  }
  uint8_t u8(uint64_t offset) const { return get<uint8_t>(offset); }
  uint16_t u16(uint64_t offset) const { return get<uint16_t>(offset); }
  uint32_t u32(uint64_t offset) const { return get<uint32_t>(offset); }
  uint64_t u64(uint64_t offset) const { return get<uint64_t>(offset); }

  // The readable bytes of a `length`-byte value at `offset` (shorter when the
  // buffer ends first).
  std::span<const uint8_t> bytes(uint64_t offset, uint64_t length) const {
    if (offset >= readable_) return {};
    size_t available = readable_ - static_cast<size_t>(offset);
    return {data_ + offset, length < available ? static_cast<size_t>(length) : available};
  }
  // The same as text; never a null pointer, even when nothing is readable.
  std::string_view chars(uint64_t offset, uint64_t length) const {
    std::span<const uint8_t> b = bytes(offset, length);
    if (b.empty()) return std::string_view("", 0);
    return {reinterpret_cast<const char*>(b.data()), b.size()};
  }

 private:
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
  size_t readable_ = 0;
};

}  // namespace nmb
