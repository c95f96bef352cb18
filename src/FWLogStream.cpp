#include "FWLogStream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "FWPublishSubscribe.h"
#include "FWStringUtils.h"

FWLogStream LogStream;

namespace {

// The stamp that opens every entry is the string utilities' default time format; its first
// kStampLength bytes hold the whole stamp ("May 03, 2005, 14:07:09").
constexpr std::size_t kStampLength = 22;
constexpr std::size_t kViewerChunk = 999;
constexpr mode_t kFileMode = 0640;

bool StatFile(const std::string& name, struct stat* st) { return ::stat(name.c_str(), st) == 0; }

}  // namespace

int32_t FWLogStream::LocalDay(std::time_t t) {
  tzset();
  struct tm fields;
  const bool dst = localtime_r(&t, &fields) != nullptr && fields.tm_isdst > 0;
  return static_cast<int32_t>((t - timezone + (dst ? 3600 : 0)) / 86400);
}

std::string FWLogStream::SeverityWord(int32_t severity) {
  switch (severity) {
    case FWNotification::kFatalError:
      return "FATAL ERROR";
    case FWNotification::kError:
      return "ERROR";
    case FWNotification::kWarning:
      return "WARNING";
    case FWNotification::kDebug:
      return "DEBUG";
    case FWNotification::kTrace:
      return "TRACE";
    default:
      return "";
  }
}

void FWLogStream::Log(const FWNotification& notification) {
  const std::string word = SeverityWord(notification.GetSeverity());
  Log(notification.GetRawText(), word.empty() ? "" : word + ": ");
}

void FWLogStream::Log(const std::string& text, const std::string& source) {
  if (!file_ && buffer_limit_ == 0 && echo_ == nullptr) return;
  const FWStringUtils& utils = FWStringUtils::GetDefaultInstance();
  std::string body = FWStringUtils::Convert2Unix(text);
  if (!body.empty()) body[0] = utils.ToUpper(body[0]);
  body = FWStringUtils::Convert2Unix(body);
  if (!body.empty() && body.back() == '\n') body.pop_back();

  const std::time_t now = Now();
  const std::string prefix = utils.Time2Str(now, utils.GetTimeFormat(), false) + " " + source;
  const std::string entry = FWStringUtils::LinePrefix(body, prefix) + "\n";

  if (file_ && RotationDue(LocalDay(now))) OpenFile(file_name_, true);
  if (file_) {
    file_size_ += static_cast<int64_t>(entry.size());
    std::fwrite(entry.data(), 1, entry.size(), file_.get());
    std::fflush(file_.get());
  }
  if (buffer_limit_ != 0) AppendToBuffer(entry);
  if (echo_ != nullptr) {
    std::fwrite(entry.data(), 1, entry.size(), echo_);
    std::fflush(echo_);
  }
}

bool FWLogStream::RotationDue(int32_t today) const {
  if (max_size_ > 0 && file_size_ >= max_size_) return true;
  return max_days_ > 0 && today - file_day_ >= max_days_;
}

void FWLogStream::AppendToBuffer(const std::string& entry) {
  updated_ = true;
  buffer_ += entry;
  if (buffer_.size() <= buffer_limit_) return;
  const std::size_t cut = buffer_.find('\n', buffer_.size() - buffer_limit_);
  if (cut != std::string::npos) buffer_.erase(0, cut);
}

void FWLogStream::OpenFile(const std::string& name, bool rotate) {
  Close();
  file_name_ = name;
  const int32_t today = LocalDay(Now());
  file_day_ = today;
  file_size_ = 0;

  struct stat st;
  const bool exists = StatFile(name, &st);
  bool forced = false;
  if (exists) {
    file_size_ = st.st_size;
    std::unique_ptr<std::FILE, FileCloser> in(std::fopen(name.c_str(), "r"));
    if (!in) {
      forced = true;
    } else {
      char stamp[kStampLength + 1] = {};
      const std::size_t got = std::fread(stamp, 1, kStampLength, in.get());
      const FWStringUtils& utils = FWStringUtils::GetDefaultInstance();
      file_day_ = LocalDay(utils.Str2Time(std::string(stamp, got), utils.GetDateOrder(), false));
      forced = today < file_day_;
    }
  }
  // A missing file has nothing to rotate; rotating it would only delete the backup.
  if (exists && (forced || rotate || RotationDue(today))) Rotate(today);
  // Created for the owner and the group only: the log names clients, users and files.
  const int fd = ::open(name.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kFileMode);
  if (fd < 0) return;
  file_.reset(::fdopen(fd, "a"));
  if (!file_) ::close(fd);
}

void FWLogStream::Rotate(int32_t today) {
  const std::string backup = file_name_ + "~";
  std::remove(backup.c_str());
  std::rename(file_name_.c_str(), backup.c_str());
  file_day_ = today;
  file_size_ = 0;
}

void FWLogStream::Close() { file_.reset(); }

bool FWLogStream::IsUpdated() {
  if (buffer_limit_ != 0) {
    const bool updated = updated_;
    updated_ = false;
    return updated;
  }
  struct stat st;
  if (!StatFile(file_name_, &st)) return false;
  if (st.st_size == read_position_ && read_position_ != 0) return false;
  std::unique_ptr<std::FILE, FileCloser> in(std::fopen(file_name_.c_str(), "r"));
  if (!in) return false;
  // The viewer expects the whole file each time: the seek goes to the append stream, so the read
  // always starts at the beginning.
  if (file_) std::fseek(file_.get(), read_position_, SEEK_SET);
  bool read_any = false;
  char chunk[kViewerChunk + 1];
  std::size_t got;
  while ((got = std::fread(chunk, 1, kViewerChunk, in.get())) > 0) {
    chunk[got] = '\0';
    buffer_.append(chunk, std::strlen(chunk));
    read_position_ += static_cast<int64_t>(got);
    read_any = true;
  }
  updated_ = false;
  return read_any;
}
