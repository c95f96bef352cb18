// File names (textual operations on "/"-separated paths) and directory listing. The system's
// error texts are in FWErrorMessage.h.
#ifndef NORVANE_SRC_FWFILE_H_
#define NORVANE_SRC_FWFILE_H_

#include <dirent.h>

#include <string>

class FWFileName {
 public:
  // Everything up to and including the last "/"; "" when there is none.
  static std::string GetDirectory(const std::string& path);
  // Everything after the last "/"; the whole path when there is none.
  static std::string GetName(const std::string& path);
  // The name up to its last "."; the whole name when it has none.
  static std::string GetNameBase(const std::string& path);
  // What follows the last "." of the name; "" when it has none.
  static std::string GetNameExt(const std::string& path);
  static std::string GetShortName(const std::string& path);
  static std::string GetTmpDirectory();
  // True when the path is not empty and ends in "/"; the file system is not consulted.
  static bool IsDirectory(const std::string& path);
  static std::string SlashForce(const std::string& path);
  static std::string SlashStrip(const std::string& path);
  // A byte-wise sort key that lists a directory's subdirectories before its files: every "/"
  // becomes 0x01, and a file name (not a directory path) gets 0x7F in front of it.
  static std::string GetComparePath(const std::string& path);
};

// One open directory stream, closed by the destructor.
class FWDirectory {
 public:
  FWDirectory() = default;
  virtual ~FWDirectory();
  FWDirectory(const FWDirectory&) = delete;
  FWDirectory& operator=(const FWDirectory&) = delete;

  // Closes a stream still open, then opens SlashForce(path). Throws FWESystemException, source
  // "FWFile", with the system's error text on failure; its errno and its object, the path as
  // given, are its facts.
  void Open(const std::string& path);
  // The next entry name in system order ("." and ".." included); "" at the end, and after it.
  std::string NextName();
  void Close();

 private:
  DIR* dir_ = nullptr;  // owned
};

// Runs "rm -rf <directory>/" and returns true when its status is 0. The service does not call it.
bool DeleteDir(const char* directory);

#endif  // NORVANE_SRC_FWFILE_H_
