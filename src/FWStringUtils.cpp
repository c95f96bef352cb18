#include "FWStringUtils.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "FWErrorMessage.h"
#include "FWException.h"

namespace {

constexpr int kPrintfBufferSize = 4000;
// vsnprintf writes at most this many bytes, the terminating NUL included.
constexpr int kPrintfLimit = 3999;
constexpr std::size_t kLoadChunkSize = 100000;
constexpr std::size_t kTimeBufferSize = 80;
constexpr const char* kDefaultTimeFormat = "%b %d, %Y, %H:%M:%S";
constexpr const char* kDefaultDateOrder = "mdy";
constexpr const char* kMonthNames[] = {"jan", "feb", "mar", "apr", "may", "jun",
                                       "jul", "aug", "sep", "oct", "nov", "dec"};

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }
bool IsAlpha(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }

// The process locale; a LANG that names a locale the system lacks falls back to "C".
std::locale ProcessLocale() {
  try {
    return std::locale("");
  } catch (const std::runtime_error&) {
    return std::locale::classic();
  }
}

// The state of one Str2Time walk over a lower-cased text.
struct TimeWalk {
  std::string text;
  // The date fields in their order, then "HMSp".
  std::string fields;
  std::size_t cursor = 0;
  std::size_t digit_count = 0;
  bool has_p = false;
  std::tm tm{};
};

char CurrentField(const TimeWalk& walk) {
  return walk.cursor < walk.fields.size() ? walk.fields[walk.cursor] : '\0';
}

// How many digits of a run of run_length digits the current field takes. Only a year run longer
// than 4 digits is read as a compact stamp, sized by the total number of digits in the text.
std::size_t DigitsToTake(const TimeWalk& walk, std::size_t run_length) {
  if (CurrentField(walk) != 'y') return std::min<std::size_t>(run_length, 2);
  if (run_length <= 4) return run_length;
  if (walk.digit_count == 8 || walk.digit_count == 14) return 4;
  if (walk.digit_count == 6 || walk.digit_count == 12) return 2;
  return run_length;
}

void StoreYear(TimeWalk& walk, int value, std::size_t digits) {
  long long year = value;
  if (digits <= 2) year += value <= 37 ? 2000 : 1900;
  walk.tm.tm_year = static_cast<int>(year - 1900);
}

void StoreField(TimeWalk& walk, int value, std::size_t digits) {
  switch (CurrentField(walk)) {
    case 'H':
      walk.tm.tm_hour = value;
      break;
    case 'M':
      walk.tm.tm_min = value;
      break;
    case 'S':
      walk.tm.tm_sec = value;
      break;
    case 'd':
      walk.tm.tm_mday = value;
      break;
    case 'm':
      walk.tm.tm_mon = static_cast<int>(static_cast<long long>(value) - 1);
      break;
    case 'y':
      StoreYear(walk, value, digits);
      break;
    default:
      break;
  }
}

int MonthIndex(std::string_view word) {
  for (int i = 0; i < 12; ++i) {
    if (word == kMonthNames[i]) return i;
  }
  return -1;
}

// Letters name a month only where the month is due; past the minutes they mark the afternoon
// whenever the text holds a "p" anywhere (so "am" after "sep" counts too, as it always has).
void ReadLetters(TimeWalk& walk, std::size_t length, std::size_t pos) {
  if (CurrentField(walk) == 'm' && length >= 3) {
    const int month = MonthIndex(std::string_view(walk.text).substr(pos, 3));
    if (month >= 0) {
      walk.tm.tm_mon = month;
      ++walk.cursor;
    }
  }
  const char field = CurrentField(walk);
  const bool past_minutes = field == 'M' || field == 'S' || field == 'p';
  if (past_minutes && walk.tm.tm_hour < 12 && walk.has_p) walk.tm.tm_hour += 12;
}

std::size_t RunLength(const std::string& text, std::size_t pos, bool (*in_run)(char)) {
  std::size_t end = pos;
  while (end < text.size() && in_run(text[end])) ++end;
  return end - pos;
}

void WalkTimeText(TimeWalk& walk, const FWStringUtils& utils) {
  std::size_t pos = 0;
  while (pos < walk.text.size()) {
    const char c = walk.text[pos];
    if (IsDigit(c)) {
      const std::size_t digits = DigitsToTake(walk, RunLength(walk.text, pos, IsDigit));
      StoreField(walk, utils.Str2Int(walk.text.substr(pos, digits)), digits);
      ++walk.cursor;
      pos += digits;
    } else if (IsAlpha(c)) {
      const std::size_t length = RunLength(walk.text, pos, IsAlpha);
      ReadLetters(walk, length, pos);
      pos += length;
    } else {
      ++pos;
    }
  }
}

}  // namespace

FWStringUtils::FWStringUtils() { Init(ProcessLocale()); }

FWStringUtils::FWStringUtils(const std::locale& locale) { Init(locale); }

void FWStringUtils::Init(const std::locale& locale) {
  for (int i = 0; i < 256; ++i) {
    lower_[i] = static_cast<char>(i);
    upper_[i] = static_cast<char>(i);
  }
  const auto& ctype = std::use_facet<std::ctype<char>>(locale);
  ctype.tolower(lower_, lower_ + 256);
  ctype.toupper(upper_, upper_ + 256);
  time_format_ = kDefaultTimeFormat;
  date_order_ = kDefaultDateOrder;
  tzset();
}

FWStringUtils& FWStringUtils::GetDefaultInstance() {
  static FWStringUtils instance;
  return instance;
}

std::string FWStringUtils::Printf(const char* format, ...) {
  char buffer[kPrintfBufferSize];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(buffer, kPrintfLimit, format, args);
  va_end(args);
  if (length < 0) return std::string();
  return std::string(buffer, std::min(length, kPrintfLimit - 1));
}

int FWStringUtils::Scanf(const std::string& text, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int result = std::vsscanf(text.c_str(), format, args);
  va_end(args);
  return result;
}

std::string FWStringUtils::TrimLeft(const std::string& s) {
  std::size_t end = s.size();
  while (end > 0 && IsSpace(s[end - 1])) --end;
  return s.substr(0, end);
}

std::string FWStringUtils::TrimRight(const std::string& s) {
  std::size_t start = 0;
  while (start < s.size() && IsSpace(s[start])) ++start;
  return s.substr(start);
}

std::string FWStringUtils::Trim(const std::string& s) { return TrimLeft(TrimRight(s)); }

std::string FWStringUtils::Quote(const std::string& s) {
  if (!s.empty() && s[0] == '"') return s;
  return "\"" + s + "\"";
}

std::string FWStringUtils::Unquote(const std::string& s) {
  if (s.size() < 2 || s.front() != '"' || s.back() != '"') return s;
  return s.substr(1, s.size() - 2);
}

// Builds the result in one pass: replacing in place would move the rest of the text at every
// occurrence, quadratic in a long text with many line ends.
int FWStringUtils::ReplaceAll(std::string& s, const std::string& from, const std::string& to) {
  if (from.empty()) return 0;
  std::size_t pos = s.find(from);
  if (pos == std::string::npos) return 0;
  int count = 0;
  std::string result;
  result.reserve(to.size() > from.size() ? s.size() + s.size() / 8 : s.size());
  std::size_t start = 0;
  for (; pos != std::string::npos; pos = s.find(from, start)) {
    result.append(s, start, pos - start);
    result += to;
    start = pos + from.size();
    ++count;
  }
  result.append(s, start, std::string::npos);
  s.swap(result);
  return count;
}

std::string FWStringUtils::Convert2Dos(const std::string& s) {
  std::string result;
  result.reserve(s.size());
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\n' && i > 0 && s[i - 1] != '\r') result += '\r';
    result += s[i];
  }
  return result;
}

std::string FWStringUtils::Convert2Unix(const std::string& s) {
  std::string result;
  result.reserve(s.size());
  std::size_t start = 0;
  for (std::size_t pos; (pos = s.find("\r\n", start)) != std::string::npos; start = pos + 2) {
    result.append(s, start, pos - start);
    result += '\n';
  }
  result.append(s, start, std::string::npos);
  return result;
}

void FWStringUtils::Str2Lines(const std::string& s, std::vector<std::string>& lines) {
  lines.clear();
  const std::string text = Convert2Unix(s);
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
}

void FWStringUtils::Lines2Str(const std::vector<std::string>& lines, std::string& s) {
  for (const std::string& line : lines) {
    s += line;
    s += '\n';
  }
}

std::string FWStringUtils::LinePrefix(const std::string& text, const std::string& prefix) {
  std::string result = prefix;
  for (const char c : text) {
    result += c;
    if (c == '\n') result += prefix;
  }
  return result;
}

std::string FWStringUtils::GetListItem(const std::string& list, std::size_t& pos) {
  while (pos < list.size() && IsSpace(list[pos])) ++pos;
  const std::size_t start = pos;
  while (pos < list.size() && !IsSpace(list[pos])) ++pos;
  return start < list.size() ? list.substr(start, pos - start) : std::string();
}

bool FWStringUtils::Match(const std::string& pattern, const std::string& text) {
  // Greedy walk that backtracks only to the last "*": on a mismatch that star takes one more
  // character. Earlier stars never need to take more, so this is linear in practice.
  std::size_t p = 0;
  std::size_t t = 0;
  std::size_t star = std::string::npos;
  std::size_t star_text = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      star_text = t;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (star != std::string::npos) {
      p = star + 1;
      t = ++star_text;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

bool FWStringUtils::MatchList(const std::string& patterns, const std::string& text) {
  std::size_t pos = 0;
  for (std::string item = GetListItem(patterns, pos); !item.empty();
       item = GetListItem(patterns, pos)) {
    if (Match(item, text)) return true;
  }
  return false;
}

std::string FWStringUtils::HTTPEscape(const std::string& s, bool space_as_plus) {
  std::string result;
  for (const char c : s) {
    if (std::isalnum(static_cast<unsigned char>(c))) {
      result += c;
    } else if (c == ' ' && space_as_plus) {
      result += '+';
    } else {
      // The byte is sign-extended on purpose: 0x80 and up come out as "%ffffff80".
      const int widened = static_cast<signed char>(c);
      result += Printf("%%%02x", static_cast<unsigned>(widened));
    }
  }
  return result;
}

void FWStringUtils::LoadFromFile(std::string& text, const std::string& file_name,
                                 std::size_t max_size) {
  text.clear();
  FilePtr file(std::fopen(file_name.c_str(), "rb"));
  if (!file) {
    const int error = errno;
    throw FWECantOpen(FW_HERE, file_name, std::string("read"), GetErrorMessage(error), error);
  }
  std::vector<char> chunk(kLoadChunkSize);
  for (;;) {
    const std::size_t read = std::fread(chunk.data(), 1, chunk.size(), file.get());
    text.append(chunk.data(), read);
    if (text.size() > max_size) throw FWESizeExceeded(FW_HERE, file_name);
    if (read == chunk.size()) continue;
    // A short chunk ends the file, unless the stream failed (reading a directory, an I/O error).
    if (std::ferror(file.get())) {
      throw FWEOperationFailed(FW_HERE, std::string("read"), GetErrorMessage(errno));
    }
    return;
  }
}

void FWStringUtils::SaveToFile(const std::string& text, const std::string& file_name) {
  FilePtr file(std::fopen(file_name.c_str(), "wb"));
  if (!file) {
    const int error = errno;
    throw FWECantOpen(FW_HERE, file_name, std::string("write"), GetErrorMessage(error), error);
  }
  const std::size_t written = std::fwrite(text.data(), 1, text.size(), file.get());
  if (written < text.size()) {
    throw FWEOperationFailed(FW_HERE, std::string("write"), GetErrorMessage(errno));
  }
  // Buffered bytes reach the file only now; a full disk shows up here.
  if (std::fclose(file.release()) != 0) {
    throw FWEOperationFailed(FW_HERE, std::string("write"), GetErrorMessage(errno));
  }
}

std::string FWStringUtils::Lower(const std::string& s) const {
  std::string result = s;
  for (char& c : result) c = lower_[static_cast<unsigned char>(c)];
  return result;
}

std::string FWStringUtils::Upper(const std::string& s) const {
  // The lower-case table, as the product has always done: Upper returns what Lower returns.
  return Lower(s);
}

char FWStringUtils::ToUpper(char c) const { return upper_[static_cast<unsigned char>(c)]; }

std::string FWStringUtils::Bool2Str(bool b) const { return b ? "true" : "false"; }

bool FWStringUtils::Str2Bool(const std::string& s) const {
  return !s.empty() && std::string_view("tTyY1").find(s[0]) != std::string_view::npos;
}

std::string FWStringUtils::Int2Str(int i) const { return Printf("%d", i); }

int FWStringUtils::Str2Int(const std::string& s) const {
  return static_cast<int>(std::strtol(s.c_str(), nullptr, 10));
}

std::string FWStringUtils::Int642Str(long long i) const {
  // What "%I64d" printed: width 64 and the low 32 bits as a signed int.
  const int low = static_cast<int>(static_cast<std::uint32_t>(i));
  return Printf("%64d", low);
}

long long FWStringUtils::Str2Int64(const std::string& s) const {
  return std::strtoll(s.c_str(), nullptr, 10);
}

std::string FWStringUtils::Double2Str(double d) const { return Printf("%f", d); }

double FWStringUtils::Str2Double(const std::string& s) const {
  return std::strtod(s.c_str(), nullptr);
}

std::string FWStringUtils::Time2Str(std::time_t t, const std::string& format, bool utc) const {
  std::tm fields{};
  const std::tm* broken = utc ? gmtime_r(&t, &fields) : localtime_r(&t, &fields);
  if (broken == nullptr) return std::string();
  std::string layout = format;
  if (layout.find("%O") != std::string::npos) {
    long offset = 0;
    if (!utc) offset = -timezone / 60 + (fields.tm_isdst > 0 ? 60 : 0);
    const std::string zone = Printf("%+03ld%02ld", offset / 60, std::labs(offset % 60));
    ReplaceAll(layout, "%O", zone);
  }
  char buffer[kTimeBufferSize];
  const std::size_t length = std::strftime(buffer, sizeof buffer, layout.c_str(), &fields);
  return std::string(buffer, length);
}

std::time_t FWStringUtils::Str2Time(const std::string& s, const std::string& order,
                                    bool utc) const {
  TimeWalk walk;
  walk.text = Lower(s);
  walk.fields = Lower(order) + "HMSp";
  for (const char c : walk.text) {
    if (IsDigit(c)) ++walk.digit_count;
  }
  walk.has_p = walk.text.find('p') != std::string::npos;
  WalkTimeText(walk, *this);
  if (!utc) {
    walk.tm.tm_isdst = -1;
    return std::mktime(&walk.tm);
  }
  walk.tm.tm_isdst = 0;
  return std::mktime(&walk.tm) - timezone;
}
