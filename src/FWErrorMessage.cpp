#include "FWErrorMessage.h"

#include <cctype>
#include <cstring>
#include <string>

namespace {

// The two forms of strerror_r: the GNU one returns the text (in buffer or a static string), the
// POSIX one fills buffer and returns 0 or an error number. The C library declares one of them,
// so the other overload goes unused.
[[maybe_unused]] const char* StrerrorText(const char* text, const char* /*buffer*/) { return text; }
[[maybe_unused]] const char* StrerrorText(int result, const char* buffer) {
  return result == 0 ? buffer : "Unknown error";
}

bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

}  // namespace

// strerror_r rather than strerror, whose buffer is shared. White space is stripped as
// FWStringUtils::Trim strips it, without using it: the string utilities report through here.
std::string GetErrorMessage(int error) {
  char buffer[256] = {};
  const std::string text = StrerrorText(::strerror_r(error, buffer, sizeof(buffer)), buffer);
  std::size_t start = 0;
  std::size_t end = text.size();
  while (start < end && IsSpace(text[start])) ++start;
  while (end > start && IsSpace(text[end - 1])) --end;
  return text.substr(start, end - start);
}
