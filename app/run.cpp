#include "app/run.h"

#include "utils/output.h"

int nmb_run(const nmb_read_options_t& options) {
  nmb::OutputBuffer& out = nmb::stdout_buffer();
  if (options.format == NMB_FORMAT_JSON) out.put('{');
  // The reader is wired in here.
  if (options.format == NMB_FORMAT_JSON) out.put('}');
  out.flush();
  return 0;
}
