#include "LogTail.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "FWErrorMessage.h"
#include "FWLogStream.h"
#include "FWStringUtils.h"

// No "..", no absolute link and no link whose target lies outside root (EXDEV).
int LogTail::OpenBeneath(const std::string& root, const std::string& name, int flags, int& error) {
  const FWDescriptor directory(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!directory.IsOpen()) {
    error = errno;
    return -1;
  }
  open_how how{};
  how.flags = static_cast<std::uint64_t>(flags);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  const long fd = ::syscall(SYS_openat2, directory.Get(), name.c_str(), &how, sizeof(how));
  if (fd >= 0) return static_cast<int>(fd);
  error = errno;
  return error == ENOSYS ? OpenWithoutLinks(directory.Get(), name, flags, error) : -1;
}

// For kernels without openat2: every link is refused (ELOOP), which is stricter but as safe.
int LogTail::OpenWithoutLinks(int directory, const std::string& name, int flags, int& error) {
  FWDescriptor current(::fcntl(directory, F_DUPFD_CLOEXEC, 0));
  std::size_t start = 0;
  for (std::size_t slash; current.IsOpen() && (slash = name.find('/', start)) != std::string::npos;
       start = slash + 1) {
    const std::string part = name.substr(start, slash - start);
    if (part == "..") {
      error = EXDEV;
      return -1;
    }
    current = FWDescriptor(
        ::openat(current.Get(), part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  }
  const std::string last = name.substr(start);
  if (!current.IsOpen() || last == "..") {
    error = current.IsOpen() ? EXDEV : errno;
    return -1;
  }
  const int fd = ::openat(current.Get(), last.c_str(), flags | O_NOFOLLOW);
  if (fd < 0) error = errno;
  return fd;
}

LogTail::LogTail(std::string log_prefix) : log_prefix_(std::move(log_prefix)) {}

int LogTail::Start(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return Start(".", path);
  const int error = Start(slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1));
  path_ = path;
  return error;
}

int LogTail::Start(const std::string& root, const std::string& name) {
  Stop();
  root_ = root;
  name_ = name;
  path_ = root + "/" + name;
  read_error_logged_ = false;
  const int error = OpenCurrent();
  if (error == ENOENT) {
    started_ = true;  // sent whole once it appears
    return 0;
  }
  if (error != 0) return error;
  struct stat st;
  if (::fstat(file_.Get(), &st) == 0) offset_ = st.st_size;
  started_ = true;
  return 0;
}

void LogTail::Backlog(std::size_t lines) {
  if (file_.IsOpen()) offset_ = BacklogStart(lines);
}

// Start left offset_ at the end of the open file, so it is also the file's size here.
LogTail::Resumed LogTail::Reposition(const Position& from) {
  if (!file_.IsOpen()) return Resumed::kGone;
  const bool same = file_dev_ == from.dev && file_ino_ == from.ino;
  if (same && offset_ >= from.offset) {
    offset_ = from.offset;
    return Resumed::kContinued;
  }
  offset_ = 0;
  return same ? Resumed::kTruncated : Resumed::kRotated;
}

LogTail::Step LogTail::GetStep() const {
  return Step{started_, file_.IsOpen(), file_dev_, file_ino_, offset_, last_was_cr_};
}

std::unique_ptr<LogTail> LogTail::Clone(std::string log_prefix) const {
  auto copy = std::make_unique<LogTail>(std::move(log_prefix));
  if (file_.IsOpen()) {
    copy->file_ = FWDescriptor(::fcntl(file_.Get(), F_DUPFD_CLOEXEC, 0));
    if (!copy->file_.IsOpen()) return nullptr;
  }
  copy->root_ = root_;
  copy->name_ = name_;
  copy->path_ = path_;
  copy->started_ = started_;
  copy->more_ = more_;
  copy->read_error_logged_ = read_error_logged_;
  copy->file_dev_ = file_dev_;
  copy->file_ino_ = file_ino_;
  copy->offset_ = offset_;
  copy->last_was_cr_ = last_was_cr_;
  return copy;
}

void LogTail::Stop() {
  started_ = false;
  file_.Reset();
  file_dev_ = 0;
  file_ino_ = 0;
  offset_ = 0;
}

// Reads the window before offset_ once and counts line ends backwards; a last line without its
// "\n" counts as a line. A window cut by the byte bound starts after its first "\n", so only
// whole lines are returned.
off_t LogTail::BacklogStart(std::size_t lines) {
  const off_t end = offset_;
  lines = std::min(lines, feed::kMaxBacklogLines);
  if (lines == 0 || end == 0) return end;
  const off_t begin = end - std::min<off_t>(end, static_cast<off_t>(feed::kMaxBacklogBytes));
  std::string window;
  offset_ = begin;
  ReadUpTo(end, feed::kMaxBacklogBytes, window);
  offset_ = end;
  std::size_t pos = window.size();
  if (pos > 0 && window[pos - 1] == '\n') --pos;
  for (std::size_t found = 0; pos > 0; --pos) {
    if (window[pos - 1] == '\n' && ++found == lines) return begin + static_cast<off_t>(pos);
  }
  if (begin == 0) return 0;
  const std::size_t first = window.find('\n');
  return first == std::string::npos ? end : begin + static_cast<off_t>(first + 1);
}

std::string LogTail::Poll(bool check_path) {
  if (!started_) return "";
  std::string raw;
  if (!check_path && file_.IsOpen()) return ReadAppended();
  struct stat st;
  const bool path_exists = ::stat(path_.c_str(), &st) == 0;
  if (!path_exists) {
    const int error = errno;
    Log(FWStringUtils::Printf("can't stat file: %s (%s)", path_.c_str(),
                              GetErrorMessage(error).c_str()));
  }
  ReadNew(path_exists, st, raw);
  // A poll that used its whole budget probably left data behind.
  more_ = raw.size() == kMaxPollBytes;
  return ToDos(raw);
}

void LogTail::ReadNew(bool path_exists, const struct stat& st, std::string& raw) {
  std::size_t budget = kMaxPollBytes;
  if (file_.IsOpen()) {
    if (path_exists && st.st_dev == file_dev_ && st.st_ino == file_ino_) {
      ReadSameFile(budget, raw);
      return;
    }
    budget -= DrainOldFile(budget, raw);
    if (file_.IsOpen()) return;
  }
  if (!path_exists || budget == 0 || OpenCurrent() != 0) return;
  ReadSameFile(budget, raw);
}

// A file that only grew is read on from the offset without a stat: one read takes what a few
// writes appended. A read that finds nothing looks for a truncation.
std::string LogTail::ReadAppended() {
  // Main thread only, like every reader; the text is converted out of it before the next read.
  static char first[64 * 1024];
  ssize_t n;
  do {
    n = ::pread(file_.Get(), first, sizeof(first), offset_);
  } while (n < 0 && errno == EINTR);
  if (n < 0) {
    LogReadError(errno);
    return "";
  }
  std::string raw;
  if (n == 0) {
    ReadSameFile(kMaxPollBytes, raw);
  } else if (static_cast<std::size_t>(n) < sizeof(first)) {
    offset_ += n;
    more_ = false;
    return ToDos(std::string_view(first, static_cast<std::size_t>(n)), &last_was_cr_);
  } else {
    offset_ += n;
    raw.assign(first, sizeof(first));
    ReadSameFile(kMaxPollBytes - raw.size(), raw);
  }
  more_ = raw.size() == kMaxPollBytes;
  return ToDos(raw);
}

std::size_t LogTail::ReadSameFile(std::size_t budget, std::string& raw) {
  struct stat st;
  if (::fstat(file_.Get(), &st) != 0) return 0;
  if (st.st_size < offset_) offset_ = 0;
  return ReadUpTo(st.st_size, budget, raw);
}

std::size_t LogTail::DrainOldFile(std::size_t budget, std::string& raw) {
  struct stat st;
  if (::fstat(file_.Get(), &st) != 0) {
    file_.Reset();
    return 0;
  }
  const std::size_t read = ReadUpTo(st.st_size, budget, raw);
  // A deleted file is not kept open past this poll, even when part of it did not fit.
  if (offset_ >= st.st_size || st.st_nlink == 0) file_.Reset();
  return read;
}

// Reads exactly the range seen by the caller's fstat: bytes written meanwhile wait for the next
// poll instead of being read twice.
std::size_t LogTail::ReadUpTo(off_t end, std::size_t budget, std::string& raw) {
  if (end <= offset_ || budget == 0) return 0;
  const std::size_t want =
      static_cast<std::size_t>(std::min<uintmax_t>(static_cast<uintmax_t>(end - offset_), budget));
  const std::size_t start = raw.size();
  raw.resize(start + want);
  std::size_t got = 0;
  while (got < want) {
    const ssize_t n = ::pread(file_.Get(), raw.data() + start + got, want - got, offset_);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      LogReadError(errno);
      break;
    }
    if (n == 0) break;  // The file shrank during the read.
    got += static_cast<std::size_t>(n);
    offset_ += n;
  }
  raw.resize(start + got);
  return got;
}

// O_NONBLOCK keeps a FIFO in the path from blocking the service loop at open.
int LogTail::OpenCurrent() {
  int error = 0;
  const int fd = OpenBeneath(root_, name_, O_RDONLY | O_CLOEXEC | O_NONBLOCK, error);
  if (fd < 0) return error == ENOENT ? error : LogReadError(error);
  FWDescriptor file(fd);
  struct stat st;
  if (::fstat(fd, &st) != 0) return LogReadError(errno);
  if (S_ISDIR(st.st_mode)) return LogReadError(EISDIR);
  file_ = std::move(file);
  file_dev_ = st.st_dev;
  file_ino_ = st.st_ino;
  offset_ = 0;
  read_error_logged_ = false;
  return 0;
}

int LogTail::LogReadError(int error) {
  if (!read_error_logged_) {
    const std::string reason =
        error == EXDEV ? std::string("not inside ") + root_ : GetErrorMessage(error);
    Log(FWStringUtils::Printf("can't read file: %s (%s)", path_.c_str(), reason.c_str()));
    read_error_logged_ = true;
  }
  return error;
}

std::string LogTail::ToDos(const std::string& raw) { return ToDos(raw, &last_was_cr_); }

// Copies the runs between line feeds whole: a byte-at-a-time copy costs more than the read.
std::string LogTail::ToDos(std::string_view raw, bool* after_cr) {
  std::string text;
  text.reserve(raw.size() + raw.size() / 16 + 16);
  for (std::size_t start = 0; start < raw.size();) {
    const void* found = std::memchr(raw.data() + start, '\n', raw.size() - start);
    const std::size_t end =
        found == nullptr ? raw.size()
                         : static_cast<std::size_t>(static_cast<const char*>(found) - raw.data());
    text.append(raw.data() + start, end - start);
    if (end == raw.size()) break;
    const bool ended_by_cr = end > 0 ? raw[end - 1] == '\r' : *after_cr;
    text += ended_by_cr ? "\n" : "\r\n";
    start = end + 1;
  }
  if (!raw.empty()) *after_cr = raw.back() == '\r';
  return text;
}

void LogTail::Log(const std::string& text) const { LogStream.Log(text, log_prefix_); }
