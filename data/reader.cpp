#include "data/reader.h"

#include <zlib.h>

#include "data/type_system.h"

#include <cstdarg>
#include <cstdio>

nmb_reader_context_t::~nmb_reader_context_t() {
  if (file != nullptr) gzclose(file);
}

void nmb_reader_report(nmb_reader_context_t& reader, const char* format, ...) {
  std::fprintf(stderr, "Failed processing file %s: ", reader.path);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fputc('\n', stderr);
  std::fflush(stderr);
}

void nmb_reader_begin_json_record(nmb_reader_context_t&) {}

bool nmb_process_file(const char*, const nmb_read_options_t&, bool) {
  return false;
}

bool nmb_read_header_only(const char*, const nmb_read_options_t&,
                          uint8_t (&)[NMB_FILE_HEADER_SIZE]) {
  return false;
}

bool nmb_reader_open(nmb_reader_context_t&, const char*, const nmb_read_options_t&) {
  return false;
}
bool nmb_reader_load_type_system(nmb_reader_context_t&, const uint8_t*, size_t) {
  return false;
}
bool nmb_reader_process_chunks(nmb_reader_context_t&) {
  return false;
}
bool nmb_reader_process_page_chunk(nmb_reader_context_t&, std::span<const uint8_t>) {
  return false;
}
bool nmb_reader_process_block(nmb_reader_context_t&, std::span<const uint8_t>, bool) {
  return false;
}
