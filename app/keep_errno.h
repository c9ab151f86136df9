#pragma once

#include <cerrno>

// Restores errno at the end of its scope, for signal handlers and for calls whose callers inspect it later.
class keep_errno {
  public:
    keep_errno() = default;
    keep_errno(const keep_errno &) = delete;
    keep_errno &operator=(const keep_errno &) = delete;
    ~keep_errno() { restore(); }

    void restore() const { errno = saved_; }

  private:
    int saved_ = errno;
};
