// The -p prints of the file header and of block headers, and the field
// tables of their layouts (for documentation), to standard output.
// Stage: writer.
#pragma once

#include <cstdint>

#include "data/file_header.h"

void nmb_print_file_header(const nmb_file_header_t& header);
// Each reads only its block's header (counters 16 bytes, event 16, blob 20).
void nmb_print_counters_block_header(const uint8_t* block);
void nmb_print_event_block_header(const uint8_t* block);
void nmb_print_blob_block_header(const uint8_t* block);

// Field tables (name, offset, size) of the layouts.
void nmb_print_file_header_fields();
void nmb_print_counters_block_fields();
void nmb_print_event_block_fields();
void nmb_print_blob_block_fields();
