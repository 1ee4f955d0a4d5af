// The reader of one data file: opens it (plain or gzip-compressed), checks the
// header, loads the schemas it names and walks it chunk by chunk, handing each
// block to the block sink. It knows no output format.
// Stage: driver.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>

#include "data/block_sink.h"
#include "data/bytes.h"
#include "data/file_header.h"
#include "data/format.h"

struct nmb_type_system_t;  // data/type_system.h
struct nmb_metadata_t;     // filter/metadata.h
struct gzFile_s;           // zlib's file handle; <zlib.h> stays out of this header

struct nmb_reader_context_t;

// What the reader takes from the command line.
struct nmb_reader_settings_t {
  std::string schema_path = "schema";
  std::string cset_file;  // empty: none
  std::string fset_file;  // empty: none
  bool ignore_missing_filter = false;
  bool metadata = false;
  uint64_t timestamp_gt = 0;
  uint64_t timestamp_lt = UINT64_MAX;
  // Walks the chunks after the header when set (the read-ahead walk of
  // data/read_ahead); nullptr walks them on the calling thread.
  bool (*walk_chunks)(nmb_reader_context_t& reader) = nullptr;
};

struct nmb_free_deleter {
  void operator()(void* p) const { std::free(p); }
};

struct nmb_reader_context_t {  // one per data file
  const nmb_reader_settings_t* settings = nullptr;
  nmb::BlockSink* sink = nullptr;
  const char* path = nullptr;
  gzFile_s* file = nullptr;                        // owned, closed by the destructor
  nmb_file_header_t header;                        // decoded once read
  std::unique_ptr<nmb_type_system_t> type_system;  // rebuilt by every schema load
  std::shared_ptr<const nmb_metadata_t> metadata;  // -M; nullptr when off or none was found
  // The chunk buffer: block_size bytes, zero-filled once (calloc: nothing is
  // committed until read into) and reused without clearing, so a short last
  // chunk is followed by what the previous chunk left.
  std::unique_ptr<uint8_t, nmb_free_deleter> chunk;
  // The decoded packed page, reused for every page. Not filled ahead of
  // decoding: a page claiming a large size whose stream stops early costs
  // only what was decoded, not the claimed size.
  std::unique_ptr<uint8_t[]> page_buffer;
  size_t page_capacity = 0;
  // Bytes read so far, header included, and whether a file that ends inside
  // a chunk or before its header's file size has been warned about.
  uint64_t bytes_found = NMB_FILE_HEADER_SIZE;
  bool truncation_reported = false;

  nmb_reader_context_t();
  nmb_reader_context_t(const nmb_reader_context_t&) = delete;
  nmb_reader_context_t& operator=(const nmb_reader_context_t&) = delete;
  ~nmb_reader_context_t();
};

// The per-file error report: "Failed processing file %s: " + message + "\n" on
// stderr, flushed.
void nmb_reader_report(nmb_reader_context_t& reader, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Processes one data file into `sink`; `first` is true for the run's first
// file. False when the file failed.
// `data_begun`, when given, is set once the file's records begin (its header
// and schemas passed, begin_data called).
bool nmb_process_file(const char* path, const nmb_reader_settings_t& settings, nmb::BlockSink& sink,
                      bool first, bool* data_begun = nullptr);
// The start of nmb_process_file: opens the file, reads and checks its header,
// loads its schemas (and -M metadata) and tells the sink, up to begin_data.
// False when the file failed (reported).
bool nmb_reader_begin_file(nmb_reader_context_t& reader, const char* path,
                           const nmb_reader_settings_t& settings, nmb::BlockSink& sink, bool first);
// Reads and checks the header only (for sorting); true when it is valid.
bool nmb_read_header_only(const char* path, nmb_file_header_t& header);

// Opens `path` into a fresh context; false (logged) when it cannot be opened.
bool nmb_reader_open(nmb_reader_context_t& reader, const char* path,
                     const nmb_reader_settings_t& settings, nmb::BlockSink& sink);
// Rebuilds the type system from `count` 16-byte event schema ids (zero ids
// skipped) and the header's counters schema id, under the -C/-F rules, and
// tells the sink.
bool nmb_reader_load_type_system(nmb_reader_context_t& reader, const uint8_t* ids, size_t count);
// Walks the chunks after the header, through the settings' walk when set.
bool nmb_reader_process_chunks(nmb_reader_context_t& reader);
// Walks the chunks on the calling thread.
bool nmb_reader_walk_chunks(nmb_reader_context_t& reader);
// Reading one chunk: read (`size` bytes), the end of the file, or a failure
// (logged).
enum nmb_chunk_read_t { NMB_CHUNK_READ, NMB_CHUNK_END, NMB_CHUNK_FAILED };
// Dispatches one chunk of `size` bytes (at most the block size; the buffer
// holds the block size): its packed pages, or its block.
bool nmb_reader_process_chunk(nmb_reader_context_t& reader, const uint8_t* chunk, size_t size);
// Reads the next chunk of at most the header's block size into `chunk`.
nmb_chunk_read_t nmb_reader_read_chunk(nmb_reader_context_t& reader, uint8_t* chunk, size_t& size);
// Logs that a buffer of `size` bytes (a chunk, a batch of chunks, a decoded
// page) could not be allocated; returns false.
bool nmb_reader_allocation_failed(uint64_t size);
// The payload of the packed page at `offset` of a page chunk, and `offset`
// moved past the page; false where the chunk's pages end (quietly: a page
// that does not fit or lacks its trailer ends the chunk).
bool nmb_next_packed_page(std::span<const uint8_t> chunk, size_t& offset,
                          std::span<const uint8_t>& payload);
// Decodes a page's payload into `buffer`, made larger when `capacity` is
// short of the page's `page_size`; false (logged) when it cannot.
bool nmb_decode_packed_page(std::span<const uint8_t> payload, std::unique_ptr<uint8_t[]>& buffer,
                            size_t& capacity, size_t& page_size);
// Hands a decoded page to the sink: whole to a sink that takes pages, its
// blocks one by one otherwise.
bool nmb_reader_process_page(nmb_reader_context_t& reader, std::span<const uint8_t> payload,
                             nmb::ByteView page);
// Walks the packed pages of one page chunk and dispatches their blocks.
bool nmb_reader_process_page_chunk(nmb_reader_context_t& reader, std::span<const uint8_t> chunk);
// Dispatches one block by its type.
bool nmb_reader_process_block(nmb_reader_context_t& reader, nmb::ByteView block,
                              bool in_compressed_block);
