// The log files a feed session offers: every file under the document root whose bare name matches
// one of the search patterns, listed relative to the root.
#ifndef NORVANE_CLASSES_LOGDIRECTORY_H_
#define NORVANE_CLASSES_LOGDIRECTORY_H_

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

class LogDirectory final {
 public:
  // The most directory entries one walk looks at; a bigger tree is listed in part.
  static constexpr std::size_t kDefaultMaxEntries = 100000;

  // patterns is a blank-separated list of wildcard patterns ("*.log *.txt syslog"); a file whose
  // bare name matches any of them is offered. log_prefix is the source of the log lines
  // ("Session 3: ").
  LogDirectory(std::string root, const std::string& patterns, std::string log_prefix,
               std::size_t max_entries = kDefaultMaxEntries);

  // Walks the root and every directory below it and returns the matching names, "/" between
  // levels and no leading slash, sorted ascending by byte value. Symbolic links are followed
  // only where their real path stays inside the real path of the root (the root itself may be
  // a link). Nothing is thrown: a directory that cannot be opened, an entry that cannot be
  // stat'ed, a link leading out of the root, a directory already on the current path (a link
  // loop) and the end of the entry budget are logged and skipped. At most one directory is open
  // at a time.
  std::vector<std::string> Collect() const;

 private:
  // (st_dev, st_ino) of a directory.
  using DirectoryId = std::pair<dev_t, ino_t>;

  // The state of one walk.
  struct Walk {
    std::string real_root;
    std::vector<DirectoryId> ancestors;  // the directories on the path, the current one included
    std::vector<std::string> names;
    std::size_t entries = 0;
    bool stopped = false;
  };

  // Adds the matching files under directory.
  void CollectFrom(const std::string& directory, Walk& walk) const;
  // The entry names of a directory without "." and ".."; the directory is closed again.
  bool ReadNames(const std::string& directory, Walk& walk, std::vector<std::string>& names) const;
  // The name of directory relative to the root, with a trailing "/"; "" for the root itself.
  std::string RelativePrefix(const std::string& directory) const;
  // Handles one entry of a directory: recurses into subdirectories, offers matching files.
  void VisitEntry(const std::string& directory, const std::string& name, const std::string& prefix,
                  Walk& walk) const;
  // False (logged) when path is a link whose real path lies outside the root.
  bool IsInsideRoot(const std::string& path, const Walk& walk) const;
  bool Matches(const std::string& name) const;
  void Log(const std::string& text) const;

  const std::string root_;
  std::vector<std::string> patterns_;
  const std::string log_prefix_;
  const std::size_t max_entries_;
};

#endif  // NORVANE_CLASSES_LOGDIRECTORY_H_
