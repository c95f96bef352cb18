// The time texts: the stamp reader (FWStringUtils::Str2Time, which the log stream uses on its
// file's first stamp and the configuration on time values), the formatter under an arbitrary
// format (Time2Str) and the mail-style clock text (FWMIMEParser). The first input byte chooses the
// date order and the zone; the next eight give a time for the formatters; the rest is the text.
// A time formatted with the log's stamp format must read back as the same time.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "FWMIMEParser.h"
#include "FWStringUtils.h"
#include "FuzzInput.h"

namespace {

constexpr const char* kOrders[] = {"mdy", "dmy", "ymd", "ydm", "myd", "dym", "", "mmyy"};
// 1000-01-01 and 9999-12-31 UTC: the years the stamp writes with four digits.
constexpr std::time_t kFirstFourDigitYear = -30610224000;
constexpr std::time_t kLastFourDigitYear = 253402214400;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  const std::uint8_t choice = in.Byte();
  const std::string order = kOrders[choice % 8];
  const bool utc = (choice & 0x80) != 0;
  std::uint64_t bits = 0;
  for (int i = 0; i < 8; ++i) bits = bits << 8 | in.Byte();
  const auto t = static_cast<std::time_t>(bits);
  const std::string text = in.Bytes(size);

  const FWStringUtils& utils = FWStringUtils::GetDefaultInstance();
  (void)utils.Str2Time(text, order, utc);
  (void)utils.Str2Time(text, text, utc);
  (void)utils.Time2Str(t, text, utc);
  (void)FWMIMEParser::MIMETime(t);

  // The log's stamp, read back in UTC (local time would depend on the machine's zone rules).
  if (t >= kFirstFourDigitYear && t <= kLastFourDigitYear) {
    const std::string stamp = utils.Time2Str(t, utils.GetTimeFormat(), true);
    const std::time_t read = utils.Str2Time(stamp, utils.GetDateOrder(), true);
    if (read != t) {
      std::fprintf(stderr, "TimeFuzzer: %lld formatted as \"%s\" reads back as %lld\n",
                   static_cast<long long>(t), stamp.c_str(), static_cast<long long>(read));
      std::abort();
    }
  }
  return 0;
}
