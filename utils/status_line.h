// A status line kept at the bottom of a terminal on standard error, for
// people watching a long run. Everything else that writes to standard error
// holds a StderrWrite while it writes, so the line is erased first and never
// mixes with a log line; the next update draws it again.
// Stage: base.
#pragma once

#include <string_view>

namespace nmb {

// From now on standard error writes erase the line first. Called before any
// other thread may write to standard error.
void status_line_begin();
// Draws `text` as the status line, replacing the one shown; nothing after
// status_line_end.
void status_line_show(std::string_view text);
// Erases the line and stops drawing it.
void status_line_end();

// While alive, standard error is free of the status line and the line is
// not drawn. Costs one atomic load when no line is in use.
class StderrWrite {
 public:
  explicit StderrWrite(bool to_stderr = true);
  ~StderrWrite();
  StderrWrite(const StderrWrite&) = delete;
  StderrWrite& operator=(const StderrWrite&) = delete;

 private:
  bool locked_ = false;
};

}  // namespace nmb
