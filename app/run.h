// The run over all input files, in the given or the sorted order.
#pragma once

#include "app/options.h"

// Processes every input file; returns the number of files that failed.
int nmb_run(const nmb_read_options_t& options);
