#include "utils/report.h"

#include <cstdio>
#include <string>

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
  // The line goes out in one write (standard error is unbuffered: a write
  // per part would be three), so that it costs one system call and is never
  // split by another writer.
  static thread_local std::string line;  // reused: a text export reports every event record
  line.assign("Failed processing file ");
  line += path;
  line += ": ";
  nmb::append_vprintf(line, format, args);
  line += '\n';
  nmb::StderrWrite clear_status_line;
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}
