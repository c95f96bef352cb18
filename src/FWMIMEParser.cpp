#include "FWMIMEParser.h"

#include "FWStringUtils.h"

namespace {

constexpr const char* kMIMETimeFormat = "%a, %d %b %Y %H:%M:%S %O";

}  // namespace

std::string FWMIMEParser::MIMETime() { return MIMETime(std::time(nullptr)); }

std::string FWMIMEParser::MIMETime(std::time_t t) {
  return FWStringUtils::GetDefaultInstance().Time2Str(t, kMIMETimeFormat, false);
}
