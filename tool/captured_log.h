// What the library writes to standard error while one of these lives. Without descriptors to spare
// it captures nothing, and the lines appear.
#ifndef TOOL_CAPTURED_LOG_H
#define TOOL_CAPTURED_LOG_H

#include <string>

#include "tool/handles.h"

class CapturedLog {
 public:
  CapturedLog();
  ~CapturedLog();
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  // The first line, without the library's "comm_socket_v4 LEVEL [address]: " before it; empty when
  // nothing was written.
  std::string first_message() const;

 private:
  Descriptor file_;
  Descriptor standard_error_;
};

#endif
