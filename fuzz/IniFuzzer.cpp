// The configuration reader: arbitrary text read by the INI parser into the daemon's object model
// (a SessionManager with its ports), as norvaned reads its configuration file, then checked as
// "norvaned --check" does. Text that parses must also survive writing: what the writer makes of
// the configuration parses again, and writing that gives the same text.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "FWClassFactory.h"
#include "FWException.h"
#include "FWIniParser.h"
#include "SessionManager.h"

namespace {

[[noreturn]] void Die(const char* what, const std::string& first, const std::string& second) {
  std::fprintf(stderr, "IniFuzzer: %s\n%s\n---\n%s\n", what, first.c_str(), second.c_str());
  std::abort();
}

}  // namespace

// libFuzzer calls it once, before the first input: the registry learns the service classes.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  RegisterServiceClasses();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The daemon reads no bigger file.
  if (size > FWIniParser::kMaxFileSize) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);
  FWIniParser parser("1.0", false);
  SessionManager manager;
  try {
    parser.ParseToObject(manager, text, false);
  } catch (const FWException&) {
    return 0;  // a text the grammar refuses, reported with its line
  }
  (void)manager.ConfigurationProblems();
  (void)manager.SecurityWarnings();

  std::string written;
  parser.GenerateFromObject(manager, written, false);
  SessionManager again;
  try {
    parser.ParseToObject(again, written, false);
  } catch (const FWException& e) {
    Die("the written configuration does not parse", written, e.GetText());
  }
  std::string rewritten;
  parser.GenerateFromObject(again, rewritten, false);
  if (rewritten != written) Die("writing what was read back changes it", written, rewritten);
  return 0;
}
