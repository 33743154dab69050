// Does something when its scope ends, also by what a handler of the application throws.
#ifndef TARN_LIB_AT_SCOPE_END_H
#define TARN_LIB_AT_SCOPE_END_H

#include <utility>

template <class Act>
class AtScopeEnd {
 public:
  explicit AtScopeEnd(Act act) noexcept : act_(std::move(act)) {}
  AtScopeEnd(const AtScopeEnd&) = delete;
  AtScopeEnd& operator=(const AtScopeEnd&) = delete;
  ~AtScopeEnd() { act_(); }

 private:
  const Act act_;
};

#endif
