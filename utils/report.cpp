#include "utils/report.h"

#include <cstdio>

#include "utils/output.h"
#include "utils/status_line.h"

void nmb_report_file_failure(const char* path, const char* format, va_list args) {
  if (nmb::OutputBuffer* capture = nmb::stderr_capture()) {
    capture->printf("Failed processing file %s: ", path);
    capture->vprintf(format, args);
    capture->put('\n');
    capture->commit();
    return;
  }
  nmb::StderrWrite clear_status_line;
  std::fprintf(stderr, "Failed processing file %s: ", path);
  std::vfprintf(stderr, format, args);
  std::fputc('\n', stderr);
  std::fflush(stderr);
}
