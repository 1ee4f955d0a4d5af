// The run over all input files, in the given or the sorted order.
// Stage: driver.
#pragma once

#include <cstddef>
#include <memory>

#include "app/options.h"
#include "data/block_sink.h"
#include "data/reader.h"
#include "export/record_output.h"

// Processes every input file; returns the number of files that failed (1 when
// the format has no sink or sorting could not read a header, in which cases no
// file is processed; -1 when the --checkpoint file cannot be read, logged,
// with no file processed and no output).
int nmb_run(const nmb_read_options_t& options);

// The block sink of an output format, from its row in the format table;
// nullptr (logged as an error) for a code the table does not have.
std::unique_ptr<nmb::BlockSink> nmb_make_block_sink(int format, const nmb::ExportSettings& settings,
                                                    nmb::OutputBuffer& out);
// What the reader and the exporters take from the options record (the
// export settings borrow its pattern lists).
nmb_reader_settings_t nmb_reader_settings_from(const nmb_read_options_t& options);
nmb::ExportSettings nmb_export_settings_from(const nmb_read_options_t& options);

// Keys of the -S order string.
enum nmb_sort_key_t : int {
  NMB_SORT_KEY_SOURCE_ID = 0,
  NMB_SORT_KEY_SOURCE_TAG = 1,
  NMB_SORT_KEY_FIRST_TIMESTAMP = 2,
};

inline constexpr size_t NMB_MAX_SORT_KEYS = 3;

struct nmb_sort_order_t {
  nmb_sort_key_t keys[NMB_MAX_SORT_KEYS] = {NMB_SORT_KEY_FIRST_TIMESTAMP, NMB_SORT_KEY_SOURCE_ID,
                                            NMB_SORT_KEY_SOURCE_TAG};
  size_t count = NMB_MAX_SORT_KEYS;  // the default order uses all three
};

// Parses a comma-separated order string: tokens are trimmed, empty ones
// dropped, at most three keys are taken and later tokens are not looked at.
// False (an unknown key is logged) when no valid order results.
bool nmb_parse_sort_order(const char* text, nmb_sort_order_t& order);
