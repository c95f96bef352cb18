// The service's own log: time-stamped entries appended and flushed at once, rotated to a single
// backup ("name~") by age and by size, and optionally kept in a bounded in-memory buffer.
#ifndef NORVANE_SRC_FWLOGSTREAM_H_
#define NORVANE_SRC_FWLOGSTREAM_H_

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

class FWNotification;

// Not thread-safe: all logging happens on the service thread. Nothing here reports errors: a file
// that cannot be opened leaves the stream without a file, and write errors are ignored.
class FWLogStream {
 public:
  // Bit 0 of the options: proxy sessions log their connection lines.
  static constexpr uint32_t kLogConnections = 1;

  FWLogStream() = default;
  FWLogStream(const FWLogStream&) = delete;
  FWLogStream& operator=(const FWLogStream&) = delete;

  // Closes an open file, then opens `name` for appending (a new file gets mode 0640); rotates it
  // first when `rotate` is true, when it is over its size or age limit, unreadable, or starts
  // with a stamp in the future.
  void OpenFile(const std::string& name, bool rotate);
  void Log(const std::string& text, const std::string& source);
  void Log(const std::string& text) { Log(text, ""); }
  // Logs the text with the severity word and ": " as the source ("WARNING: ...").
  void Log(const FWNotification& notification);
  void Close();

  void ClearLogBuffer() { buffer_.clear(); }
  // Whether new log text is available to a viewer since the last call.
  bool IsUpdated();

  // The severity word ("FATAL ERROR", "ERROR", "WARNING", "DEBUG", "TRACE"), "" for the others.
  static std::string SeverityWord(int32_t severity);

  uint32_t GetOptions() const { return options_; }
  void SetOptions(uint32_t options) { options_ = options; }
  int32_t GetMaxDays() const { return max_days_; }
  void SetMaxDays(int32_t days) { max_days_ = days; }
  int64_t GetMaxSize() const { return max_size_; }
  void SetMaxSize(int64_t size) { max_size_ = size; }
  void SetBufferLimit(uint32_t limit) { buffer_limit_ = limit; }
  const std::string& GetLogBuffer() const { return buffer_; }
  bool IsOpen() const { return file_ != nullptr; }
  // Every entry is also written to this stream (not owned; null for none), for a daemon that runs
  // in the foreground.
  void SetEcho(std::FILE* echo) { echo_ = echo; }

  // The clock of the stamps and of the age test; time() unless a test sets another.
  void SetClock(std::function<std::time_t()> clock) { clock_ = std::move(clock); }
  // Local day number of t: days since 1970-01-01 in local time.
  static int32_t LocalDay(std::time_t t);

 private:
  struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
  };

  std::time_t Now() const { return clock_ ? clock_() : std::time(nullptr); }
  bool RotationDue(int32_t today) const;
  void Rotate(int32_t today);
  void AppendToBuffer(const std::string& entry);

  uint32_t options_ = 0;
  std::unique_ptr<std::FILE, FileCloser> file_;
  std::string file_name_;
  int32_t file_day_ = 0;
  int64_t file_size_ = 0;
  std::string buffer_;
  uint32_t buffer_limit_ = 0;
  int64_t read_position_ = 0;
  bool updated_ = false;
  int32_t max_days_ = 0;
  int64_t max_size_ = INT64_MAX;
  std::FILE* echo_ = nullptr;
  std::function<std::time_t()> clock_;
};

// The one log of the process.
extern FWLogStream LogStream;

#endif  // NORVANE_SRC_FWLOGSTREAM_H_
