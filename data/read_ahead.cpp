#include "data/read_ahead.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <span>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "utils/log.h"
#include "utils/output.h"

namespace {

// Small chunks are read in batches of about this many bytes, so that passing
// work between the threads costs little per chunk.
constexpr size_t kBatchBytes = size_t{256} << 10;

using chunk_bytes_t = std::unique_ptr<uint8_t, nmb_free_deleter>;

struct PageBuffer {
  std::unique_ptr<uint8_t[]> bytes;
  size_t capacity = 0;
};

// What the reading thread hands on, in file order.
struct ReadItem {
  enum Kind { kChunks, kPage, kEnd, kFailed };
  Kind kind = kEnd;
  // kChunks: chunk i was read at i * block size of `chunks`, sizes[i] bytes.
  uint8_t* chunks = nullptr;
  std::vector<size_t> sizes;
  // kPage: the decoded page and the payload it was decoded from.
  PageBuffer page;
  size_t page_size = 0;
  std::vector<uint8_t> payload;
  // What the reading thread logged before this item.
  std::string log;
};

class ReadAhead {
 public:
  explicit ReadAhead(nmb_reader_context_t& reader)
      : reader_(reader),
        block_size_(reader.header.block_size),
        batch_chunks_(std::max<size_t>(1, kBatchBytes / block_size_)) {}

  ~ReadAhead() {
    {
      std::lock_guard lock(mutex_);
      stop_ = true;
    }
    room_.notify_all();
    if (thread_.joinable()) thread_.join();
  }

  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  // False when no thread could be started.
  bool start() {
    try {
      thread_ = std::thread([this] { produce(); });
    } catch (const std::system_error&) {
      return false;
    }
    return true;
  }

  // Hands the items to the sink as the reading thread makes them.
  bool consume() {
    for (;;) {
      take_next();
      nmb_log_write_captured(current_.log);
      switch (current_.kind) {
        case ReadItem::kChunks:
          for (size_t i = 0; i < current_.sizes.size(); ++i) {
            if (nmb::output_error() != 0) return true;  // nothing more reaches the user
            const nmb::ByteView chunk(current_.chunks + i * block_size_, current_.sizes[i],
                                      block_size_);
            if (!nmb_reader_process_block(reader_, chunk, false)) return false;
          }
          break;
        case ReadItem::kPage: {
          if (nmb::output_error() != 0) return true;
          // What follows a piece of the page is the rest of the page; past
          // the page's end reads give zeros.
          const nmb::ByteView page(current_.page.bytes.get(), current_.page_size,
                                   current_.page_size);
          if (!nmb_reader_process_page(reader_, current_.payload, page)) return false;
          break;
        }
        case ReadItem::kEnd:
          return true;
        case ReadItem::kFailed:
          return false;
      }
    }
  }

 private:
  // The consumer's side: gives the buffers of the item handed on back for
  // reuse and waits for the next one.
  void take_next() {
    std::unique_lock lock(mutex_);
    recycle(current_);
    made_.wait(lock, [this] { return !queue_.empty(); });
    current_ = std::move(queue_.front());
    queue_.pop_front();
    room_.notify_all();
  }

  void recycle(ReadItem& item) {
    if (item.chunks != nullptr) free_batches_.push_back(std::exchange(item.chunks, nullptr));
    if (item.page.bytes) free_pages_.push_back(std::move(item.page));
    item.page = PageBuffer{};
  }

  // The reading side: waits until nothing is queued, so that one item is
  // made while one is handed on; false when the walk has stopped.
  bool wait_for_room() {
    std::unique_lock lock(mutex_);
    room_.wait(lock, [this] { return stop_ || queue_.empty(); });
    return !stop_;
  }

  // Queues `item` with the first `logged` bytes of what was logged so far.
  void push(ReadItem item, size_t logged) {
    std::string& text = log_.text();
    item.log.assign(text, 0, logged);
    text.erase(0, logged);
    {
      std::lock_guard lock(mutex_);
      queue_.push_back(std::move(item));
    }
    made_.notify_one();
  }

  void push_end(ReadItem::Kind kind) {
    ReadItem item;
    item.kind = kind;
    push(std::move(item), log_.text().size());
  }

  // A batch buffer of batch_chunks_ chunks, zero-filled when new (so that a
  // short first chunk is followed by zeros); nullptr (logged) when none can
  // be had.
  uint8_t* take_batch() {
    {
      std::lock_guard lock(mutex_);
      if (!free_batches_.empty()) {
        uint8_t* batch = free_batches_.back();
        free_batches_.pop_back();
        return batch;
      }
    }
    chunk_bytes_t batch(static_cast<uint8_t*>(std::calloc(batch_chunks_, block_size_)));
    if (!batch) {
      nmb_reader_allocation_failed(batch_chunks_ * block_size_);
      return nullptr;
    }
    uint8_t* bytes = batch.get();
    std::lock_guard lock(mutex_);
    owned_batches_.push_back(std::move(batch));
    return bytes;
  }

  PageBuffer take_page_buffer() {
    std::lock_guard lock(mutex_);
    if (free_pages_.empty()) return {};
    PageBuffer page = std::move(free_pages_.back());
    free_pages_.pop_back();
    return page;
  }

  // Decodes the pages of the page chunk at `chunk` and queues them; false
  // when the walk ends (a page failed, or the walk stopped).
  bool produce_pages(std::span<const uint8_t> chunk) {
    size_t offset = 0;
    std::span<const uint8_t> payload;
    while (nmb_next_packed_page(chunk, offset, payload)) {
      if (!wait_for_room()) return false;
      ReadItem item;
      item.kind = ReadItem::kPage;
      item.page = take_page_buffer();
      if (!nmb_decode_packed_page(payload, item.page.bytes, item.page.capacity, item.page_size)) {
        push_end(ReadItem::kFailed);
        return false;
      }
      item.payload.assign(payload.begin(), payload.end());
      push(std::move(item), log_.text().size());
    }
    return true;
  }

  void produce() {
    nmb::OutputBuffer out(nmb::OutputBuffer::Spill{SIZE_MAX});
    nmb::ThreadCapture capture(out, log_);
    ReadItem batch;
    // The chunk read last: a short last chunk is followed by what it left,
    // as when one buffer is read into again and again.
    const uint8_t* previous = nullptr;
    for (;;) {
      if (batch.chunks == nullptr) {
        if (!wait_for_room()) return;
        batch.kind = ReadItem::kChunks;
        batch.chunks = take_batch();
        if (batch.chunks == nullptr) return push_end(ReadItem::kFailed);
      }
      uint8_t* chunk = batch.chunks + batch.sizes.size() * block_size_;
      const size_t logged = log_.text().size();
      size_t size = 0;
      const nmb_chunk_read_t read = nmb_reader_read_chunk(reader_, chunk, size);
      if (read != NMB_CHUNK_READ) {
        if (!batch.sizes.empty()) push(std::move(batch), logged);
        return push_end(read == NMB_CHUNK_END ? ReadItem::kEnd : ReadItem::kFailed);
      }
      if (size < block_size_ && previous != nullptr && previous != chunk)
        std::memcpy(chunk + size, previous + size, block_size_ - size);
      if (log_.text().size() != logged && !batch.sizes.empty()) {
        // What reading this chunk logged (a short chunk's warning) comes
        // after the chunks before it are exported: the chunk starts a new
        // batch, which carries the lines.
        push(std::move(batch), logged);
        batch = ReadItem{};
        if (!wait_for_room()) return;
        batch.kind = ReadItem::kChunks;
        batch.chunks = take_batch();
        if (batch.chunks == nullptr) return push_end(ReadItem::kFailed);
        std::memmove(batch.chunks, chunk, block_size_);
        chunk = batch.chunks;
      }
      previous = chunk;
      if (nmb_classify_block(chunk) == NMB_PAGE_BLOCK) {
        // The chunks before it go first; the page chunk stays readable in
        // its batch until the reading side takes that batch again.
        uint8_t* const held = batch.chunks;
        if (batch.sizes.empty()) {
          std::lock_guard lock(mutex_);
          free_batches_.push_back(held);
        } else {
          push(std::move(batch), logged);
        }
        batch = ReadItem{};
        if (!produce_pages(std::span<const uint8_t>(chunk, size))) return;
        continue;
      }
      batch.sizes.push_back(size);
      if (batch.sizes.size() == batch_chunks_) {
        push(std::move(batch), log_.text().size());
        batch = ReadItem{};
      }
    }
  }

  nmb_reader_context_t& reader_;
  const size_t block_size_;
  const size_t batch_chunks_;

  std::mutex mutex_;
  std::condition_variable made_;  // an item was queued
  std::condition_variable room_;  // the queue was emptied, or the walk stopped
  std::deque<ReadItem> queue_;
  bool stop_ = false;
  std::vector<chunk_bytes_t> owned_batches_;  // freed only after the thread ends
  std::vector<uint8_t*> free_batches_;
  std::vector<PageBuffer> free_pages_;
  ReadItem current_;  // the item being handed on

  // The reading thread's log lines until they are queued with their item.
  nmb::OutputBuffer log_{nmb::OutputBuffer::Spill{SIZE_MAX}};
  std::thread thread_;
};

}  // namespace

bool nmb_reader_walk_chunks_ahead(nmb_reader_context_t& reader) {
  ReadAhead ahead(reader);
  if (!ahead.start()) return nmb_reader_walk_chunks(reader);
  return ahead.consume();
}
