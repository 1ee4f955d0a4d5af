// Reading ahead: a second thread reads a file's chunks (inflating whole-file
// gzip input as it goes) and decodes its packed pages while the calling
// thread hands the chunks or the page before them to the sink.
//
// One item is made ahead of the one being handed on: two decoded pages, or
// two batches of chunks, are in flight at most. What the reading thread
// logs is held with the item it was logged before and written when the
// calling thread reaches that item, so standard output and standard error
// carry what a walk on one thread writes, also when a page or the file
// fails part way (what was read ahead past a failure is dropped unseen).
// Stage: driver.
#pragma once

#include "data/reader.h"

// The read-ahead walk of the chunks after the header, for
// nmb_reader_settings_t::walk_chunks. Only for a logger whose lines can be
// captured (nmb_log_lines_capturable); walks on the calling thread when no
// second thread can be started.
bool nmb_reader_walk_chunks_ahead(nmb_reader_context_t& reader);
