// -j: files processed on worker threads, handed on in file order. What a
// file writes to standard output and standard error is captured per file
// (in memory while the run's budget lasts, the rest in a temporary file
// without a name) and
// written out when every file before it has been, so both streams carry
// what a run over one file at a time writes.
// Stage: driver.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "utils/output.h"

// Processes file `index` (`out` is the file's own standard output buffer);
// false when the file failed.
using nmb_file_job_t = std::function<bool(size_t index, nmb::OutputBuffer& out)>;

// What waiting files may hold in memory, per thread, before they spill.
inline constexpr size_t NMB_JOB_BUFFER_CAP = size_t{64} << 20;

// Runs `job` over files 0 to count-1 on `jobs` threads, at most twice as
// many files started as threads ahead of the oldest file not yet written
// out, the files waiting for their turn holding at most `cap` times `jobs`
// bytes in memory in all; returns the number of files that failed.
int nmb_run_file_jobs(size_t count, uint32_t jobs, size_t cap, const nmb_file_job_t& job);
