// The signals that ask for the end.
#ifndef TOOL_STOP_SIGNALS_H
#define TOOL_STOP_SIGNALS_H

#include "tool/handles.h"

// Catches SIGINT, SIGTERM and SIGHUP from here on, and gives a descriptor that is readable once one
// of them has come.
class StopSignals {
 public:
  StopSignals();
  int fd() const { return fd_.get(); }

 private:
  CommDescriptor fd_;
};

#endif
