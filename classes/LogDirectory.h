// The log files a feed session offers: every file under the document root whose bare name matches
// one of the search patterns, listed relative to the root.
#ifndef NORVANE_CLASSES_LOGDIRECTORY_H_
#define NORVANE_CLASSES_LOGDIRECTORY_H_

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

class LogDirectory final {
 public:
  // patterns is a blank-separated list of wildcard patterns ("*.log *.txt syslog"); a file whose
  // bare name matches any of them is offered. log_prefix is the source of the log lines
  // ("Session 3: ").
  LogDirectory(std::string root, const std::string& patterns, std::string log_prefix);

  // Walks the root and every directory below it (symbolic links followed) and returns the
  // matching names, "/" between levels and no leading slash, sorted ascending by byte value.
  // Nothing is thrown: a directory that cannot be opened, an entry that cannot be stat'ed and a
  // directory already on the current path (a symbolic-link loop) are logged and skipped.
  std::vector<std::string> Collect() const;

 private:
  // (st_dev, st_ino) of a directory.
  using DirectoryId = std::pair<dev_t, ino_t>;

  // Adds the matching files under directory; ancestors holds the directories on the path to it,
  // itself included.
  void CollectFrom(const std::string& directory, std::vector<DirectoryId>& ancestors,
                   std::vector<std::string>& names) const;
  // The name of directory relative to the root, with a trailing "/"; "" for the root itself.
  std::string RelativePrefix(const std::string& directory) const;
  // Handles one entry of a directory: recurses into subdirectories, offers matching files.
  void VisitEntry(const std::string& directory, const std::string& name, const std::string& prefix,
                  std::vector<DirectoryId>& ancestors, std::vector<std::string>& names) const;
  bool Matches(const std::string& name) const;
  void Log(const std::string& text) const;

  const std::string root_;
  std::vector<std::string> patterns_;
  const std::string log_prefix_;
};

#endif  // NORVANE_CLASSES_LOGDIRECTORY_H_
