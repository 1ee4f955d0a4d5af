// The reader of one data file: opens it (plain or gzip-compressed), checks the
// header, loads the schemas it names and walks it chunk by chunk, handing each
// block to the exporter of its kind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "app/options.h"
#include "data/format.h"

struct nmb_type_system_t;  // data/type_system.h
struct gzFile_s;           // zlib's file handle; <zlib.h> stays out of this header

struct nmb_reader_context_t {  // one per data file
  const nmb_read_options_t* options = nullptr;
  const char* path = nullptr;
  gzFile_s* file = nullptr;  // owned, closed by the destructor
  uint8_t header[NMB_FILE_HEADER_SIZE] = {};
  std::unique_ptr<nmb_type_system_t> type_system;  // rebuilt by every schema load
  // Metadata of -M is kept here once that enrichment exists.
  uint32_t records_written = 0;  // drives the json ",\n" separator
  // The decoded packed page, reused for every page. Not filled ahead of
  // decoding: a page claiming a large size whose stream stops early costs
  // only what was decoded, not the claimed size.
  std::unique_ptr<uint8_t[]> page_buffer;
  size_t page_capacity = 0;  // bytes allocated, slack included

  nmb_reader_context_t();
  nmb_reader_context_t(const nmb_reader_context_t&) = delete;
  nmb_reader_context_t& operator=(const nmb_reader_context_t&) = delete;
  ~nmb_reader_context_t();
};

// The per-file error report: "Failed processing file %s: " + message + "\n" on
// stderr, flushed.
void nmb_reader_report(nmb_reader_context_t& reader, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
// Starts one JSON record: with json writes ",\n" unless records_written is 0.
// (ndjson: nothing.)
void nmb_reader_begin_json_record(nmb_reader_context_t& reader);

// Processes one data file; `first` is true for the run's first file (json
// separator between files). False when the file failed.
bool nmb_process_file(const char* path, const nmb_read_options_t& options, bool first);
// Reads and checks the header only (for sorting); true when it is valid.
bool nmb_read_header_only(const char* path, const nmb_read_options_t& options,
                          uint8_t (&header)[NMB_FILE_HEADER_SIZE]);

// Opens `path` into a fresh context; false (logged) when it cannot be opened.
bool nmb_reader_open(nmb_reader_context_t& reader, const char* path,
                     const nmb_read_options_t& options);
// Rebuilds the type system from `count` 16-byte event schema ids (zero ids
// skipped) and the header's counters schema id, under the -C/-F rules.
bool nmb_reader_load_type_system(nmb_reader_context_t& reader, const uint8_t* ids, size_t count);
// Walks the chunks after the header.
bool nmb_reader_process_chunks(nmb_reader_context_t& reader);
// Walks the packed pages of one page chunk and dispatches their blocks.
bool nmb_reader_process_page_chunk(nmb_reader_context_t& reader, std::span<const uint8_t> chunk);
// Dispatches one block by its type. The span may be followed by at least
// NMB_READER_BUFFER_SLACK zero bytes.
bool nmb_reader_process_block(nmb_reader_context_t& reader, std::span<const uint8_t> block,
                              bool in_compressed_block);

// Every chunk and decoded page buffer is followed by this many zero bytes, so
// that a fixed-size header read at the end of a block reads zeros.
inline constexpr size_t NMB_READER_BUFFER_SLACK = 64;
