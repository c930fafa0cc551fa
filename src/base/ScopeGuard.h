// Runs an action when the scope ends unless cancelled: closing events and undoing
// temporary changes on every return path.
#pragma once
#include <utility>

template <typename Action> class ScopeGuard {
public:
  explicit ScopeGuard(Action Run) : Run_(std::move(Run)) {}
  ScopeGuard(const ScopeGuard &) = delete;
  ScopeGuard &operator=(const ScopeGuard &) = delete;
  ~ScopeGuard() {
    if (Armed_) {
      Run_();
    }
  }
  void Cancel() { Armed_ = false; }

private:
  Action Run_;
  bool Armed_ = true;
};
