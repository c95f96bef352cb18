// Text operations shared by the whole system: formatting, scanning, trimming, quoting, wildcard
// matching, line ends, whole-file load and save, case tables and value/text conversions.
#ifndef NORVANE_SRC_FWSTRINGUTILS_H_
#define NORVANE_SRC_FWSTRINGUTILS_H_

#include <cstddef>
#include <ctime>
#include <locale>
#include <string>
#include <vector>

class FWStringUtils {
 public:
  // Builds the tables from the process locale.
  FWStringUtils();
  explicit FWStringUtils(const std::locale& locale);

  // The instance that serves everyone, made from the process locale on first use. It must be made
  // on the main thread before a second thread first uses it.
  static FWStringUtils& GetDefaultInstance();

  // --- Static operations: no state, usable from any thread. ---

  // vsnprintf into 4000 bytes with the limit 3999: longer results are cut at 3998 characters.
  static std::string Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
  // vsscanf on the text; returns what vsscanf returns.
  static int Scanf(const std::string& text, const char* format, ...)
      __attribute__((format(scanf, 2, 3)));

  // The names are the product's own and are kept: TrimLeft strips the END of s, TrimRight the
  // START.
  static std::string TrimLeft(const std::string& s);
  static std::string TrimRight(const std::string& s);
  // White space removed from both ends.
  static std::string Trim(const std::string& s);

  static std::string Quote(const std::string& s);
  static std::string Unquote(const std::string& s);
  // Replaces every occurrence of `from` left to right, never rescanning inserted text; returns the
  // number of replacements. An empty `from` replaces nothing.
  static int ReplaceAll(std::string& s, const std::string& from, const std::string& to);

  // Every "\n" not preceded by "\r" becomes "\r\n"; a "\n" at position 0 stays as it is.
  static std::string Convert2Dos(const std::string& s);
  // Every "\r\n" becomes "\n"; a lone "\r" stays.
  static std::string Convert2Unix(const std::string& s);
  static void Str2Lines(const std::string& s, std::vector<std::string>& lines);
  static void Lines2Str(const std::vector<std::string>& lines, std::string& s);
  static std::string LinePrefix(const std::string& text, const std::string& prefix);

  // Skips white space from pos, returns the next run of non-white characters and leaves pos just
  // after it; returns "" at the end.
  static std::string GetListItem(const std::string& list, std::size_t& pos);
  // Whole-text, case-sensitive wildcard match: "*" any run (also none), "?" any one character.
  static bool Match(const std::string& pattern, const std::string& text);
  // True when one pattern of the white-space separated list matches.
  static bool MatchList(const std::string& patterns, const std::string& text);
  static std::string HTTPEscape(const std::string& s, bool space_as_plus);

  // Reads the whole file into text. Throws FWECantOpen (mode "read", with the errno and the file
  // name as its facts) when it cannot be opened, FWESizeExceeded when it holds more than max_size
  // bytes and FWEOperationFailed ("read") when reading fails.
  static void LoadFromFile(std::string& text, const std::string& file_name, std::size_t max_size);
  // Replaces the file with text. Throws FWECantOpen (mode "write", with the errno and the file
  // name as its facts) or, on a short write, FWEOperationFailed ("write").
  static void SaveToFile(const std::string& text, const std::string& file_name);

  // --- Instance operations: tables and formats built from a locale. ---

  std::string Lower(const std::string& s) const;
  // Maps through the lower-case table as well: it returns the same as Lower, deliberately.
  std::string Upper(const std::string& s) const;
  // The locale's upper-case form of one byte (the table Upper does not use).
  char ToUpper(char c) const;

  std::string Bool2Str(bool b) const;
  bool Str2Bool(const std::string& s) const;
  std::string Int2Str(int i) const;
  int Str2Int(const std::string& s) const;
  // A field 64 characters wide holding the low 32 bits of the value, right-aligned with blanks:
  // the product's historical "%I64d" output, kept as it is.
  std::string Int642Str(long long i) const;
  long long Str2Int64(const std::string& s) const;
  std::string Double2Str(double d) const;
  double Str2Double(const std::string& s) const;

  // strftime of t in local time (or UTC), with "%O" replaced by the numeric zone offset ("+0100").
  // Returns "" when t cannot be broken into calendar fields.
  std::string Time2Str(std::time_t t, const std::string& format, bool utc) const;
  // Reads a time stamp by field position in the given date order ("mdy", "ymd", ...), followed by
  // hours, minutes, seconds and an afternoon marker.
  std::time_t Str2Time(const std::string& s, const std::string& order, bool utc) const;

  const std::string& GetTimeFormat() const { return time_format_; }
  const std::string& GetDateOrder() const { return date_order_; }

 private:
  void Init(const std::locale& locale);

  char lower_[256];
  char upper_[256];
  std::string time_format_;
  std::string date_order_;
};

#endif  // NORVANE_SRC_FWSTRINGUTILS_H_
