#include "LogDirectory.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "FWErrorMessage.h"
#include "FWException.h"
#include "FWFile.h"
#include "FWLogStream.h"
#include "FWStringUtils.h"

namespace {

// "" when the path cannot be resolved.
std::string RealPath(const std::string& path) {
  char* real = ::realpath(path.c_str(), nullptr);
  if (real == nullptr) return "";
  std::string result(real);
  std::free(real);
  return result;
}

}  // namespace

LogDirectory::LogDirectory(std::string root, const std::string& patterns, std::string log_prefix,
                           std::size_t max_entries)
    : root_(std::move(root)), log_prefix_(std::move(log_prefix)), max_entries_(max_entries) {
  std::size_t start = patterns.find_first_not_of(" \t");
  while (start != std::string::npos) {
    const std::size_t end = patterns.find_first_of(" \t", start);
    patterns_.push_back(patterns.substr(start, end - start));
    start = patterns.find_first_not_of(" \t", end);
  }
}

std::vector<std::string> LogDirectory::Collect() const {
  Walk walk;
  walk.real_root = RealPath(root_);
  struct stat st;
  // When the root cannot be stat'ed it cannot be opened either; CollectFrom logs that.
  if (::stat(root_.c_str(), &st) == 0) walk.ancestors.emplace_back(st.st_dev, st.st_ino);
  CollectFrom(root_, walk);
  std::sort(walk.names.begin(), walk.names.end());
  return std::move(walk.names);
}

void LogDirectory::CollectFrom(const std::string& directory, Walk& walk) const {
  std::vector<std::string> entries;
  if (!ReadNames(directory, walk, entries)) return;
  const std::string prefix = RelativePrefix(directory);
  for (const std::string& name : entries) VisitEntry(directory, name, prefix, walk);
}

// Reading a directory whole before descending keeps one directory open at a time, whatever the
// depth of the tree.
bool LogDirectory::ReadNames(const std::string& directory, Walk& walk,
                             std::vector<std::string>& names) const {
  FWDirectory dir;
  try {
    dir.Open(directory);
  } catch (const FWException& e) {
    Log(FWStringUtils::Printf("can't open directory: %s (%s)", directory.c_str(),
                              e.GetText().c_str()));
    return false;
  }
  for (std::string name = dir.NextName(); !name.empty(); name = dir.NextName()) {
    if (name == "." || name == "..") continue;
    if (walk.stopped) break;
    if (++walk.entries > max_entries_) {
      walk.stopped = true;
      Log(FWStringUtils::Printf("listing stopped after %zu entries under %s", max_entries_,
                                root_.c_str()));
      break;
    }
    names.push_back(name);
  }
  dir.Close();
  return true;
}
// Every occurrence of the root text goes, not only the leading one: with the root /data the
// files of /data/x/data are listed under x/.
std::string LogDirectory::RelativePrefix(const std::string& directory) const {
  std::string prefix = directory;
  FWStringUtils::ReplaceAll(prefix, root_, "");
  if (!prefix.empty() && prefix.front() == '/') prefix.erase(0, 1);
  return FWFileName::SlashForce(prefix);
}

void LogDirectory::VisitEntry(const std::string& directory, const std::string& name,
                              const std::string& prefix, Walk& walk) const {
  const std::string path = FWFileName::SlashForce(directory) + name;
  if (!IsInsideRoot(path, walk)) return;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    const int error = errno;
    Log(FWStringUtils::Printf("can't stat file: %s (%s)", path.c_str(),
                              GetErrorMessage(error).c_str()));
    return;
  }
  if (!S_ISDIR(st.st_mode)) {
    if (Matches(name)) walk.names.push_back(prefix + name);
    return;
  }
  const DirectoryId id(st.st_dev, st.st_ino);
  if (std::find(walk.ancestors.begin(), walk.ancestors.end(), id) != walk.ancestors.end()) {
    Log(FWStringUtils::Printf("skipping directory loop: %s", path.c_str()));
    return;
  }
  walk.ancestors.push_back(id);
  CollectFrom(path, walk);
  walk.ancestors.pop_back();
}

// Only links need the test: the walk enters no directory outside the root, so anything else it
// meets lies inside. A link that leads nowhere is left to the stat that follows.
bool LogDirectory::IsInsideRoot(const std::string& path, const Walk& walk) const {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return true;
  const std::string real = RealPath(path);
  if (real.empty()) return true;
  const std::string& root = walk.real_root;
  const bool inside =
      real == root || (!root.empty() && real.rfind(FWFileName::SlashForce(root), 0) == 0);
  if (inside) return true;
  Log(FWStringUtils::Printf("not inside the document root, skipped: %s -> %s", path.c_str(),
                            real.c_str()));
  return false;
}

bool LogDirectory::Matches(const std::string& name) const {
  return std::any_of(patterns_.begin(), patterns_.end(), [&](const std::string& pattern) {
    return FWStringUtils::Match(pattern, name);
  });
}

void LogDirectory::Log(const std::string& text) const { LogStream.Log(text, log_prefix_); }
