// Where the reader hands what it decodes. The reader walks bytes (header,
// chunks, packed pages, sub-blocks) and knows no output format; the sink,
// chosen once per run from the output format, decides what becomes of each
// block. Blocks are views into the reader's buffers (see data/bytes.h).
// Stage: writer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "data/bytes.h"

struct nmb_file_header_t;  // data/file_header.h
struct nmb_type_system_t;
struct nmb_metadata_t;  // filter/metadata.h

namespace nmb {

class BlockSink {
 public:
  virtual ~BlockSink() = default;

  // The run: before the first file and after the last (false: the run
  // stopped before any file was processed).
  virtual void begin_run() {}
  virtual void end_run(bool /*completed*/) {}
  // This sink writes files of the run whose begin_run and end_run go to
  // `run` (a sink of the same format, made by the same factory): what the
  // format keeps for the whole run is taken from it (--follow gives every
  // followed file a sink of its own).
  virtual void share_run_with(BlockSink& /*run*/) {}

  // One file: opened (its path names it in reports; false: the sink cannot
  // take the file, which then fails), its header read (header_read, before
  // any check: -p prints it there) and checked (header_checked), its
  // schemas loaded (again after every schemas block; nullptr while none
  // are), then its chunks walked between begin_data and end_data. `first` is
  // true for the run's first file; `ok` is false when the chunks failed.
  virtual bool file_opened(const char* path) = 0;
  virtual void header_read(const nmb_file_header_t& /*header*/) {}
  virtual void header_checked(const nmb_file_header_t& /*header*/) {}
  virtual void schemas_loaded(const nmb_type_system_t* ts) = 0;
  // The metadata of -M for the file, once, after its first schemas are
  // loaded and before begin_data (nullptr without -M or when none is found).
  // It lives until the file's end_data.
  virtual void metadata_loaded(const nmb_metadata_t* /*metadata*/) {}
  virtual void begin_data(const char* /*path*/, bool /*first*/) {}
  virtual void end_data(bool /*ok*/) {}

  // A counters block (only while the counters schema has counters); false
  // fails the file.
  virtual bool counters_block(ByteView block) = 0;
  // An events block at the start of `area` (what follows it in the area stays
  // in view): the bytes it takes, 0 on failure.
  virtual size_t events_block(ByteView area) = 0;
  // A metrics block; false fails the file.
  virtual bool metrics_block(ByteView block) = 0;

  // True when decoded packed pages go to data_page whole instead of being cut
  // into blocks. `payload` is the page's encoded-payload header and stream.
  virtual bool takes_pages() const { return false; }
  virtual bool data_page(std::span<const uint8_t> /*payload*/, ByteView /*page*/) { return true; }
};

}  // namespace nmb
