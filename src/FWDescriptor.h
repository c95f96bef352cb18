// Owns one open file descriptor (a file, a socket, a directory): move-only, closed exactly once,
// by the destructor or Reset. -1 means "none".
#ifndef NORVANE_SRC_FWDESCRIPTOR_H_
#define NORVANE_SRC_FWDESCRIPTOR_H_

#include <unistd.h>

#include <utility>

class FWDescriptor final {
 public:
  FWDescriptor() = default;
  explicit FWDescriptor(int fd) noexcept : fd_(fd) {}
  ~FWDescriptor() { Reset(); }
  FWDescriptor(FWDescriptor&& other) noexcept : fd_(other.Release()) {}
  FWDescriptor& operator=(FWDescriptor&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  FWDescriptor(const FWDescriptor&) = delete;
  FWDescriptor& operator=(const FWDescriptor&) = delete;

  int Get() const { return fd_; }
  bool IsOpen() const { return fd_ >= 0; }
  // Gives the descriptor up without closing it.
  int Release() noexcept { return std::exchange(fd_, -1); }
  // Closes the descriptor held, if any, and holds fd instead. A failing close leaves nothing to
  // undo: the descriptor is gone either way.
  void Reset(int fd = -1) noexcept {
    if (fd_ >= 0) (void)::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

#endif  // NORVANE_SRC_FWDESCRIPTOR_H_
