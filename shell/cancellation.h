#pragma once
// The shell's request that background work stop early (application shut-down). Caches check it
// between fonts; work already done stays done.
#include <atomic>

namespace fontrix {

inline std::atomic<bool>& CancelFlag() {
  static std::atomic<bool> flag{false};
  return flag;
}
inline bool CancelRequested() { return CancelFlag().load(); }
inline void RequestCancel(bool cancel) { CancelFlag().store(cancel); }

}  // namespace fontrix
