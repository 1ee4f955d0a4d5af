// Live export (--follow) and resumable runs (--checkpoint): files are read
// chunk by chunk from where their export stopped, taking a chunk only when it
// is whole, and (with --follow) looked at again as they grow, with new files
// under -d taken as they appear, until SIGINT or SIGTERM. docs/FOLLOW.md
// describes the guarantees.
// Stage: driver.
#pragma once

#include <string>
#include <vector>

#include "app/checkpoint.h"
#include "app/options.h"
#include "data/block_sink.h"
#include "data/reader.h"
#include "export/record_output.h"

// Exports `paths` (already in run order) into `run_sink`, whose begin_run
// has been called (the caller ends the run), each file from where
// `checkpoint` (read from --checkpoint, empty without it) says its export
// stopped. Returns the number of files that failed.
int nmb_run_followed(const nmb_read_options_t& options, const std::vector<std::string>& paths,
                     const nmb_reader_settings_t& settings, const nmb::ExportSettings& export_with,
                     nmb::BlockSink& run_sink, nmb_checkpoint_t checkpoint);
