#include "LogDirectory.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "FWException.h"
#include "FWFile.h"
#include "FWLogStream.h"
#include "FWStringUtils.h"

LogDirectory::LogDirectory(std::string root, const std::string& patterns, std::string log_prefix)
    : root_(std::move(root)), log_prefix_(std::move(log_prefix)) {
  std::size_t start = patterns.find_first_not_of(" \t");
  while (start != std::string::npos) {
    const std::size_t end = patterns.find_first_of(" \t", start);
    patterns_.push_back(patterns.substr(start, end - start));
    start = patterns.find_first_not_of(" \t", end);
  }
}

std::vector<std::string> LogDirectory::Collect() const {
  std::vector<std::string> names;
  std::vector<DirectoryId> ancestors;
  struct stat st;
  // When the root cannot be stat'ed it cannot be opened either; CollectFrom logs that.
  if (::stat(root_.c_str(), &st) == 0) ancestors.emplace_back(st.st_dev, st.st_ino);
  CollectFrom(root_, ancestors, names);
  std::sort(names.begin(), names.end());
  return names;
}

void LogDirectory::CollectFrom(const std::string& directory, std::vector<DirectoryId>& ancestors,
                               std::vector<std::string>& names) const {
  FWDirectory dir;
  try {
    dir.Open(directory);
  } catch (const FWException& e) {
    Log(FWStringUtils::Printf("can't open directory: %s (%s)", directory.c_str(),
                              e.GetText().c_str()));
    return;
  }
  const std::string prefix = RelativePrefix(directory);
  for (std::string name = dir.NextName(); !name.empty(); name = dir.NextName()) {
    if (name == "." || name == "..") continue;
    VisitEntry(directory, name, prefix, ancestors, names);
  }
  dir.Close();
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
                              const std::string& prefix, std::vector<DirectoryId>& ancestors,
                              std::vector<std::string>& names) const {
  const std::string path = FWFileName::SlashForce(directory) + name;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    const int error = errno;
    Log(FWStringUtils::Printf("can't stat file: %s (%s)", path.c_str(),
                              GetErrorMessage(error).c_str()));
    return;
  }
  if (!S_ISDIR(st.st_mode)) {
    if (Matches(name)) names.push_back(prefix + name);
    return;
  }
  const DirectoryId id(st.st_dev, st.st_ino);
  if (std::find(ancestors.begin(), ancestors.end(), id) != ancestors.end()) {
    Log(FWStringUtils::Printf("skipping directory loop: %s", path.c_str()));
    return;
  }
  ancestors.push_back(id);
  CollectFrom(path, ancestors, names);
  ancestors.pop_back();
}

bool LogDirectory::Matches(const std::string& name) const {
  return std::any_of(patterns_.begin(), patterns_.end(), [&](const std::string& pattern) {
    return FWStringUtils::Match(pattern, name);
  });
}

void LogDirectory::Log(const std::string& text) const { LogStream.Log(text, log_prefix_); }
