// What the daemon knows about itself and its machine: name, version, build date, the operating
// system's version text and memory size, and the check for a newer version.
#ifndef NORVANE_SRC_FWPRODUCT_H_
#define NORVANE_SRC_FWPRODUCT_H_

#include <chrono>
#include <ctime>
#include <string>

// The static accessors keep no state and may be called from any thread. An instance holds the
// result of its last update check: the worker thread runs CheckForUpdate and the main thread reads
// the results only after the worker has handed over (the session manager's suspend handshake).
class FWProduct final {
 public:
  static constexpr std::chrono::milliseconds kUpdateTimeout{10000};

  // "Norvane".
  static std::string GetName();
  // "Norvane " followed by the version.
  static std::string GetDisplayName();
  // The build's version, dotted numbers ("0.1.0").
  static std::string GetVersion();
  // When this unit was compiled, "Mmm dd yyyy hh:mm:ss" as the compiler writes it.
  static std::string GetBuildDate();
  // GetBuildDate() as local time, for formatting; -1 if the text cannot be read.
  static std::time_t GetBuildTime();
  // The file's text without its trailing line end; "" when it cannot be read.
  static std::string GetOSVersion(const std::string& path = "/proc/version");
  // The "MemTotal" line of the file in megabytes (kB / 1024); 0 when there is none.
  static long long GetMemoryMB(const std::string& path = "/proc/meminfo");
  // The update URL fixed at build time; empty means the check is not made.
  static std::string GetUpdateURL();
  // True when the dotted version newest is above running, compared number by number; missing
  // numbers count as 0 ("1.0" equals "1.0.0"). Texts that are not dotted numbers are never newer.
  static bool IsNewerVersion(const std::string& newest, const std::string& running);

  // One HTTP/1.0 GET of the URL ("http://host[:port][/path]"); the first line of the response
  // body names the newest version. True when that is newer than GetVersion(); then
  // GetUpdateMessage() holds the text to log. Connecting and reading each give up after timeout.
  // Never throws: every failure returns false and leaves a short reason in GetUpdateFailure().
  // An empty URL makes no request and leaves both texts empty.
  bool CheckForUpdate(const std::string& url = GetUpdateURL(),
                      std::chrono::milliseconds timeout = kUpdateTimeout);

  // "Version <newest> is available (running <version>)" after a check that found an update.
  const std::string& GetUpdateMessage() const { return update_message_; }
  // Why the last check failed; "" when it did not fail (update or not).
  const std::string& GetUpdateFailure() const { return update_failure_; }

 private:
  std::string update_message_;
  std::string update_failure_;
};

#endif  // NORVANE_SRC_FWPRODUCT_H_
