// The INI-like configuration format: a version line, one section per object whose header is the
// backslash-separated path of its owners ("[SessionManager\Ports\MonitoringPort]"), and one
// 'Key="value"' line per scalar member that differs from the class default. The parser knows no
// class by name: it asks the class registry and the class metadata for everything.
//
// Reading, line by line after stripping white space at both ends: blank lines and lines starting
// with ";" or "#" are skipped; the first significant line must hold "FileVersion=" with the
// supported version; then the root header and its keys, then the nested sections of its object
// lists. A repeated header ends the element before it. A text that breaks the grammar raises
// FWEIniParseError; the objects made before it are released.
#ifndef NORVANE_SRC_FWINIPARSER_H_
#define NORVANE_SRC_FWINIPARSER_H_

#include <cstddef>
#include <list>
#include <memory>
#include <string>

#include "FWException.h"
#include "FWParser.h"

class FWClass;
class FWObject;

// A text that breaks the grammar: FWEOperationFailed with operation "parse", the failure the
// format has always raised, from source "src/FWIniParser" with the text's line number as its
// line. A type of its own, so that a caller can tell a bad line from a file that cannot be loaded
// or an object that cannot be made.
class FWEIniParseError final : public FWEOperationFailed {
 public:
  FWEIniParseError(unsigned line, const std::string& reason);
};

class FWIniParser final : public FWParser {
 public:
  // The largest configuration file that is read, in bytes.
  static constexpr std::size_t kMaxFileSize = 100000;

  // `version` is what generation writes and parsing accepts ("1.0"). With `tolerant`, a file that
  // cannot be loaded (missing, unreadable, too big) reads as an empty configuration.
  FWIniParser(const std::string& version, bool tolerant);
  ~FWIniParser() override = default;

  // With to_file the text gets "\r\n" line ends and replaces the file `target`; the file errors
  // of FWStringUtils::SaveToFile propagate. Otherwise target receives the text with "\n" ends.
  void GenerateFromList(const std::list<const FWObject*>& objects, std::string& target,
                        bool to_file) override;
  // Appends at most one object, the root of the text. Throws FWEIniParseError for a text that
  // breaks the grammar, and (without the tolerant flag) the load errors of
  // FWStringUtils::LoadFromFile.
  void ParseToList(std::list<FWObject*>& objects, const std::string& source,
                   bool from_file) override;

 private:
  struct ReaderState;
  enum class HeaderOutcome { kContinue, kEndObject };

  // Reading.
  bool LoadText(const std::string& source, bool from_file);
  bool HasLine() const;
  std::string CurrentLine() const;
  void NextLine();
  bool SkipInsignificantLines();
  void ParseVersionLine();
  void CreateObject(std::string path, std::unique_ptr<FWObject>& result);
  void ParseKeyLine(const std::string& line, const ReaderState& state);
  HeaderOutcome ParseSectionHeader(const std::string& line, ReaderState& state);
  void ReadNestedObject(const std::string& line, const ReaderState& state);
  void ReadOwnHeader(const std::string& line, ReaderState& state);
  [[noreturn]] void FailParse(const std::string& reason) const;

  // Writing.
  std::string Serialize(const FWObject* object) const;
  std::string SerializeMembers(const FWObject* object, std::string& path, const FWClass* cls,
                               bool with_header) const;
  std::string SerializeObjects(const FWObject* object, const std::string& path,
                               const FWClass* cls) const;

  const bool tolerant_;
  std::string file_version_;
  const std::string supported_version_;
  // The text being parsed, with a "\n" appended; position_ is the start of the next unread line,
  // shared by every level of the recursive reader; line_number_ is that line's number from 1.
  std::string text_;
  std::size_t position_ = 0;
  unsigned line_number_ = 0;
};

#endif  // NORVANE_SRC_FWINIPARSER_H_
