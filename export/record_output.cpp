#include "export/record_output.h"

#include <cstdarg>

#include "utils/report.h"

namespace nmb {

void RecordOutput::report(const char* format, ...) {
  va_list args;
  va_start(args, format);
  nmb_report_file_failure(path_, format, args);
  va_end(args);
}

}  // namespace nmb
