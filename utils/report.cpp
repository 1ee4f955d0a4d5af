#include "utils/report.h"

#include <cstdio>

void nmb_report_file_failure(const char* path, const char* format, va_list args) {
  std::fprintf(stderr, "Failed processing file %s: ", path);
  std::vfprintf(stderr, format, args);
  std::fputc('\n', stderr);
  std::fflush(stderr);
}
