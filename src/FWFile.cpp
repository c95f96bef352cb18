#include "FWFile.h"

#include <dirent.h>
#include <stdlib.h>

#include <cerrno>
#include <string>

#include "FWErrorMessage.h"
#include "FWException.h"

namespace {

// The line that a directory's open failure has always carried.
constexpr unsigned kOpenLine = 78;

}  // namespace

std::string FWFileName::GetDirectory(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return "";
  return path.substr(0, slash + 1);
}

std::string FWFileName::GetName(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return path;
  return path.substr(slash + 1);
}

std::string FWFileName::GetNameBase(const std::string& path) {
  const std::string name = GetName(path);
  const std::size_t dot = name.rfind('.');
  if (dot == std::string::npos) return name;
  return name.substr(0, dot);
}

std::string FWFileName::GetNameExt(const std::string& path) {
  const std::string name = GetName(path);
  const std::size_t dot = name.rfind('.');
  if (dot == std::string::npos) return "";
  return name.substr(dot + 1);
}

std::string FWFileName::GetShortName(const std::string& path) { return path; }

std::string FWFileName::GetTmpDirectory() { return "/tmp"; }

bool FWFileName::IsDirectory(const std::string& path) {
  return !path.empty() && path.back() == '/';
}

std::string FWFileName::SlashForce(const std::string& path) {
  if (path.empty() || path.back() == '/') return path;
  return path + "/";
}

std::string FWFileName::SlashStrip(const std::string& path) {
  if (path.empty() || path.back() != '/') return path;
  return path.substr(0, path.size() - 1);
}

// 0x01 sorts below every printable byte, so a directory's own entries come right after its
// path; 0x7F sorts above them, so the files of a level follow all of its subdirectories.
std::string FWFileName::GetComparePath(const std::string& path) {
  std::string key = path;
  for (char& c : key) {
    if (c == '/') c = '\x01';
  }
  if (IsDirectory(path)) return key;
  const std::size_t slash = path.rfind('/');
  const std::size_t name_start = slash == std::string::npos ? 0 : slash + 1;
  key.insert(name_start, 1, '\x7F');
  return key;
}

FWDirectory::~FWDirectory() { Close(); }

void FWDirectory::Open(const std::string& path) {
  Close();
  dir_ = ::opendir(FWFileName::SlashForce(path).c_str());
  if (dir_ != nullptr) return;
  const int error = errno;
  throw FWESystemException("FWFile", kOpenLine, GetErrorMessage(error), error, path);
}

// readdir keeps returning null once the end is reached, so "" repeats after the end.
std::string FWDirectory::NextName() {
  if (dir_ == nullptr) return "";
  const dirent* entry = ::readdir(dir_);
  if (entry == nullptr) return "";
  return entry->d_name;
}

void FWDirectory::Close() {
  if (dir_ == nullptr) return;
  // The stream was only read; a failing closedir leaves nothing to undo.
  (void)::closedir(dir_);
  dir_ = nullptr;
}

bool DeleteDir(const char* directory) {
  if (directory == nullptr) return false;
  const std::string command = std::string("rm -rf ") + directory + "/";
  return ::system(command.c_str()) == 0;
}
