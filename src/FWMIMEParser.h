// The mail-style clock text ("Tue, 03 May 2005 14:07:09 +0200") that the start-up log and the
// sessions show. That is all this unit holds: the class keeps its historical name, but there is
// no mail or MIME parser here.
#ifndef NORVANE_SRC_FWMIMEPARSER_H_
#define NORVANE_SRC_FWMIMEPARSER_H_

#include <ctime>
#include <string>

class FWMIMEParser {
 public:
  // The mail-style clock text of now in local time with the numeric zone offset:
  // "Tue, 03 May 2005 14:07:09 +0200".
  static std::string MIMETime();
  // The same text for the time t (for tests and callers with their own clock).
  static std::string MIMETime(std::time_t t);
};

#endif  // NORVANE_SRC_FWMIMEPARSER_H_
