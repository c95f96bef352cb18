// The wildcard matcher that picks the log files a session offers (FWStringUtils::Match and the
// pattern list of MatchList), compared with a plain dynamic-programming matcher of the same rules:
// "*" any run of bytes (also none), "?" any one byte, every other byte itself, whole text.
// Input: a length byte, that many bytes of pattern (or pattern list), the rest is the text.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "FWStringUtils.h"
#include "FuzzInput.h"

namespace {

// Whether pattern matches the whole text: reach[j] says whether the pattern read so far can
// take the first j bytes of the text.
bool Reference(const std::string& pattern, const std::string& text) {
  std::vector<char> reach(text.size() + 1, 0);
  reach[0] = 1;
  for (const char p : pattern) {
    std::vector<char> next(text.size() + 1, 0);
    for (std::size_t j = 0; j <= text.size(); ++j) {
      if (p == '*') {
        next[j] = static_cast<char>(reach[j] || (j > 0 && next[j - 1]));
      } else if (j > 0) {
        next[j] = static_cast<char>(reach[j - 1] && (p == '?' || p == text[j - 1]));
      }
    }
    reach.swap(next);
  }
  return reach[text.size()] != 0;
}

bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool ReferenceList(const std::string& patterns, const std::string& text) {
  std::size_t pos = 0;
  while (pos < patterns.size()) {
    while (pos < patterns.size() && IsSpace(patterns[pos])) ++pos;
    const std::size_t start = pos;
    while (pos < patterns.size() && !IsSpace(patterns[pos])) ++pos;
    if (pos > start && Reference(patterns.substr(start, pos - start), text)) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  const std::string pattern = in.ShortText();
  const std::string text = in.Bytes(1024);
  if (FWStringUtils::Match(pattern, text) != Reference(pattern, text) ||
      FWStringUtils::MatchList(pattern, text) != ReferenceList(pattern, text)) {
    std::fprintf(stderr, "WildcardFuzzer: wrong answer for pattern \"%s\" and text \"%s\"\n",
                 pattern.c_str(), text.c_str());
    std::abort();
  }
  return 0;
}
