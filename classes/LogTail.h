// Follows one growing log file for a feed session: after Start, each Poll returns what the file
// gained since the previous poll, with line ends converted to "\r\n".
#ifndef NORVANE_CLASSES_LOGTAIL_H_
#define NORVANE_CLASSES_LOGTAIL_H_

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "FWDescriptor.h"
#include "FeedProtocol.h"

// Every byte of the file is returned exactly once, in order. The file stays open between polls;
// each poll stat's the path to notice rotation:
// - the path names another file (renamed away and created anew): the rest of the old file is
//   returned first, then the new file from its first byte;
// - the same file shrank (truncated in place): it is returned again from its first byte;
// - the path is missing: "can't stat file" is logged, the rest of the old file is returned and
//   the file closed; when the path returns, the new file is returned whole.
// A deleted file is closed by the poll that notices it; the part of it past that poll's byte
// budget is then lost with the file. A file only renamed away stays open until it is drained.
// Not thread-safe: used on the service thread only. Nothing is thrown; failures are logged.
class LogTail final {
 public:
  // At most this many file bytes are read per poll; the rest follows at the next polls.
  static constexpr std::size_t kMaxPollBytes = 4u << 20;

  // Where a transmission stands: the file last read from (device and inode; both 0 before a file
  // was opened) and the offset of the next byte to be returned from it.
  using Position = feed::Position;
  // Everything that decides what the next polls of the same path return: two readers of one path
  // with equal steps return the same bytes from here on.
  struct Step {
    bool started = false;
    bool open = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t offset = 0;
    bool after_cr = false;
    bool operator==(const Step&) const = default;
  };
  // How Reposition found the file.
  using Resumed = feed::Resumed;

  // log_prefix is the source of the log lines ("Session 3: ").
  explicit LogTail(std::string log_prefix);

  // Begins transmitting path (closing a file still open): opens it at once and records where it
  // ends, so every byte appended from now on is returned. A missing path is followed too: the
  // file is returned whole once it appears. A file that exists but cannot be read (no
  // permission, a directory) is not followed: the result is its errno (logged), 0 otherwise.
  // The file is confined to its own directory, as Start(directory, name) confines it.
  int Start(const std::string& path);
  // The same for the file name (relative, "/" between levels) under root, opened so that
  // neither a link nor ".." leads out of root, also when a link is swapped in later (root itself
  // may be a link). A name that leads out of root is refused with EXDEV.
  int Start(const std::string& root, const std::string& name);
  // Ends the transmission and closes the file.
  void Stop();
  // One poll; "" when stopped or nothing is new. Line ends: a "\n" not preceded by "\r" becomes
  // "\r\n", also when the "\r" ended the data of an earlier poll. Without check_path the path
  // is not stat'ed: the open file is read on (for a caller that knows the path is unchanged).
  std::string Poll(bool check_path = true);

  bool IsStarted() const { return started_; }
  // The last poll read its whole budget: more data is probably waiting.
  bool HasMore() const { return started_ && more_; }
  const std::string& GetPath() const { return path_; }
  // File bytes returned so far from the open file (its read position).
  off_t GetOffset() const { return offset_; }
  Position GetPosition() const { return Position{file_dev_, file_ino_, offset_}; }
  Step GetStep() const;
  // A second reader of the same path at the same step, logging under log_prefix: it reads the
  // open file through a descriptor of its own. Null when no descriptor is left.
  std::unique_ptr<LogTail> Clone(std::string log_prefix) const;
  // Right after Start: moves back to the first of the file's last `lines` whole lines (at most
  // feed::kMaxBacklogLines and feed::kMaxBacklogBytes back), so that the next poll returns them.
  void Backlog(std::size_t lines);
  // Right after Start: continues at from.offset when the opened file is the one `from` describes
  // and is not shorter (kContinued). Otherwise the file is returned from its first byte: another
  // file (kRotated), the same one shrunk (kTruncated), or, once it appears, a file missing now
  // (kGone).
  Resumed Reposition(const Position& from);

  // raw with every "\n" that does not follow a "\r" turned into "\r\n"; *after_cr says whether
  // the byte before raw was a "\r" and is updated to raw's last byte.
  static std::string ToDos(std::string_view raw, bool* after_cr);

 private:
  // Opens name beneath root without leaving it; -1 with error set on failure.
  static int OpenBeneath(const std::string& root, const std::string& name, int flags, int& error);
  static int OpenWithoutLinks(int directory, const std::string& name, int flags, int& error);
  // The reading part of a poll: the rest of a file renamed away, then the file the path names.
  void ReadNew(bool path_exists, const struct stat& st, std::string& raw);
  // Reads the open file from offset_ up to end, at most budget bytes, into raw.
  std::size_t ReadUpTo(off_t end, std::size_t budget, std::string& raw);
  // A poll of the open file after it was only appended to.
  std::string ReadAppended();
  // Handles the path naming the open file: rereads from the start when it shrank.
  std::size_t ReadSameFile(std::size_t budget, std::string& raw);
  // Returns the rest of a file that the path no longer names; closes it once drained or deleted.
  std::size_t DrainOldFile(std::size_t budget, std::string& raw);
  // Opens the file the path names now; the errno when it cannot be read (logged), 0 otherwise.
  int OpenCurrent();
  // Logs "can't read file" with the path and the error's text, once until a read succeeds again;
  // returns the error.
  int LogReadError(int error);
  // The offset at which the last `lines` whole lines before offset_ begin.
  off_t BacklogStart(std::size_t lines);
  std::string ToDos(const std::string& raw);
  void Log(const std::string& text) const;

  const std::string log_prefix_;
  // Opens are confined beneath root_; path_ is root_ + "/" + name_, the path stat'ed and logged.
  std::string root_;
  std::string name_;
  std::string path_;
  bool started_ = false;
  bool more_ = false;
  // A read failure was logged; the same failure is not logged again at every poll.
  bool read_error_logged_ = false;
  FWDescriptor file_;
  dev_t file_dev_ = 0;
  ino_t file_ino_ = 0;
  off_t offset_ = 0;
  // The last byte returned was "\r", so a leading "\n" of the next data ends that line.
  bool last_was_cr_ = false;
};

#endif  // NORVANE_CLASSES_LOGTAIL_H_
