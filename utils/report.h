// The per-file failure report: "Failed processing file <path>: <message>\n"
// written straight to standard error (not through the logger) and flushed.
// Stage: base.
#pragma once

#include <cstdarg>

void nmb_report_file_failure(const char* path, const char* format, va_list args);
