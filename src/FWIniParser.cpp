#include "FWIniParser.h"

#include "FWApplication.h"
#include "FWClass.h"
#include "FWException.h"
#include "FWIterator.h"
#include "FWLogStream.h"
#include "FWMember.h"
#include "FWMemberObject.h"
#include "FWObject.h"
#include "FWStringUtils.h"

namespace {

constexpr const char* kSource = "src/FWIniParser";
constexpr const char* kVersionKey = "FileVersion=";
constexpr const char* kParseError = "parse error: ";

// Blank lines and lines starting with ";" or "#" (comments stand on lines of their own).
bool IsBlankOrComment(const std::string& stripped_line) {
  return stripped_line.empty() || stripped_line[0] == ';' || stripped_line[0] == '#';
}

bool IsSectionHeader(const std::string& stripped_line) { return stripped_line[0] == '['; }

// Line breaks become blanks and runs of blanks one blank, so every value fits on its line.
std::string NormaliseValue(std::string value) {
  FWStringUtils::ReplaceAll(value, "\r", " ");
  FWStringUtils::ReplaceAll(value, "\n", " ");
  while (FWStringUtils::ReplaceAll(value, "  ", " ") > 0) {
  }
  return value;
}

}  // namespace

// The locals of one level of the recursive object reader.
struct FWIniParser::ReaderState {
  // The header path of the object being read; "" until its own header is read.
  std::string path;
  // The name of the last header this level has seen.
  std::string section;
  // The class of the object being read; null until its own header is read.
  const FWClass* cls = nullptr;
  std::unique_ptr<FWObject>& result;
};

FWEIniParseError::FWEIniParseError(unsigned line, const std::string& reason)
    : FWEOperationFailed(kSource, line, std::string("parse"), reason) {}

FWIniParser::FWIniParser(const std::string& version, bool tolerant)
    : tolerant_(tolerant), supported_version_(version) {}

void FWIniParser::GenerateFromList(const std::list<const FWObject*>& objects, std::string& target,
                                   bool to_file) {
  file_version_ = supported_version_;
  std::string text;
  for (const FWObject* object : objects) text += Serialize(object);
  if (!to_file) {
    target = text;
    return;
  }
  FWStringUtils::SaveToFile(FWStringUtils::Convert2Dos(text), target);
}

void FWIniParser::ParseToList(std::list<FWObject*>& objects, const std::string& source,
                              bool from_file) {
  for (FWObject* object : objects) delete object;
  objects.clear();
  if (!LoadText(source, from_file)) return;
  text_ += '\n';
  position_ = 0;
  line_number_ = 1;
  if (SkipInsignificantLines()) ParseVersionLine();
  // Whatever follows the end of the root object is ignored.
  std::unique_ptr<FWObject> root;
  CreateObject("", root);
  if (root != nullptr) objects.push_back(root.release());
}

bool FWIniParser::LoadText(const std::string& source, bool from_file) {
  file_version_.clear();
  if (!from_file) {
    text_ = source;
    return true;
  }
  try {
    FWStringUtils::LoadFromFile(text_, source, kMaxFileSize);
    return true;
  } catch (const FWException&) {
    text_.clear();
    if (tolerant_) return false;
    throw;
  }
}

bool FWIniParser::HasLine() const { return text_.find('\n', position_) != std::string::npos; }

std::string FWIniParser::CurrentLine() const {
  const std::size_t end = text_.find('\n', position_);
  return FWStringUtils::Trim(text_.substr(position_, end - position_));
}

void FWIniParser::NextLine() {
  position_ = text_.find('\n', position_) + 1;
  ++line_number_;
}

bool FWIniParser::SkipInsignificantLines() {
  while (HasLine()) {
    if (!IsBlankOrComment(CurrentLine())) return true;
    NextLine();
  }
  return false;
}

// The first significant line must hold "FileVersion=" literally; its value is the text after the
// line's first "=", stripped and unquoted.
void FWIniParser::ParseVersionLine() {
  const std::string line = CurrentLine();
  const bool has_version = line.find(kVersionKey) != std::string::npos;
  if (has_version)
    file_version_ = FWStringUtils::Unquote(FWStringUtils::Trim(line.substr(line.find('=') + 1)));
  if (file_version_ != supported_version_) FailParse("version not supported");
  if (has_version) NextLine();
}

// Reads one object: its own header, its keys, and its nested sections. Returns at a header that
// is neither its own nor a descendant's, leaving the read position on it for the caller.
void FWIniParser::CreateObject(std::string path, std::unique_ptr<FWObject>& result) {
  ReaderState state{std::move(path), "", nullptr, result};
  while (HasLine()) {
    const std::string line = CurrentLine();
    if (IsBlankOrComment(line)) {
      NextLine();
    } else if (!IsSectionHeader(line)) {
      ParseKeyLine(line, state);
    } else if (ParseSectionHeader(line, state) == HeaderOutcome::kEndObject) {
      return;
    }
  }
}

// 'Key = value': both stripped, the value unquoted. An unknown key is logged and skipped.
void FWIniParser::ParseKeyLine(const std::string& line, const ReaderState& state) {
  const std::size_t equals = line.find('=');
  // A key before the first header has no object to go to.
  if (equals == std::string::npos || state.cls == nullptr) FailParse(kParseError + line);
  const std::string key = FWStringUtils::Trim(line.substr(0, equals));
  const std::string value = FWStringUtils::Unquote(FWStringUtils::Trim(line.substr(equals + 1)));
  NextLine();
  const FWMember* member = state.cls->GetMember(key);
  if (member == nullptr) {
    LogStream.Log("ERROR: Invalid configuration option (" + key + ")");
    return;
  }
  member->SetForString(state.result.get(), value);
}

FWIniParser::HeaderOutcome FWIniParser::ParseSectionHeader(const std::string& line,
                                                           ReaderState& state) {
  const std::size_t close = line.find(']');
  if (close == std::string::npos) FailParse(kParseError + line);
  // Names are compared stripped, so "[ A ]" repeats "[A]".
  const std::string name = FWStringUtils::Trim(line.substr(1, close - 1));
  if (name == state.section) return HeaderOutcome::kEndObject;
  state.section = name;
  // A section whose path does not contain ours belongs to an ancestor.
  if (state.section.find(state.path) == std::string::npos) return HeaderOutcome::kEndObject;
  if (state.section != state.path && !state.path.empty()) {
    ReadNestedObject(line, state);
    // The header that ended the child is read again at this level.
    state.section = state.path;
    return HeaderOutcome::kContinue;
  }
  ReadOwnHeader(line, state);
  return HeaderOutcome::kContinue;
}

// "[parent path\Member\Class]": reads the element and appends it to the member's list.
void FWIniParser::ReadNestedObject(const std::string& line, const ReaderState& state) {
  const std::size_t last = state.section.rfind('\\');
  const std::size_t before = (last == std::string::npos || last == 0)
                                 ? std::string::npos
                                 : state.section.rfind('\\', last - 1);
  if (before == std::string::npos) FailParse(kParseError + line);
  const std::string member_name = state.section.substr(before + 1, last - before - 1);
  const FWMemberObject* member = state.cls->GetMemberObject(member_name);
  if (member == nullptr) FailParse(kParseError + line);

  ObjectIterator end = member->GetEndFor(state.result.get());
  std::unique_ptr<FWObject> child;
  CreateObject(state.section, child);
  if (child == nullptr) return;
  end.Insert(child.get());
  child.release();  // the list owns it now
  ++end;
}

// The object's own header: its class is the last step of the path.
void FWIniParser::ReadOwnHeader(const std::string& line, ReaderState& state) {
  const std::size_t last = state.section.rfind('\\');
  const std::string class_name =
      last == std::string::npos ? state.section : state.section.substr(last + 1);
  const FWClass* cls = FWApplication::GetInstance().GetClass(class_name);
  if (cls == nullptr) FailParse(kParseError + line);
  state.result.reset(cls->NewInstance());
  // Clear releases what a new object owns; its scalar defaults stay.
  state.result->Clear();
  state.cls = cls;
  NextLine();
  state.path = state.section;
}

void FWIniParser::FailParse(const std::string& reason) const {
  throw FWEIniParseError(line_number_, reason);
}

std::string FWIniParser::Serialize(const FWObject* object) const {
  const FWClass* cls = object->GetClass();
  // Only objects of registered classes have members to write.
  if (cls == nullptr) throw FWEInternal(FW_HERE);
  std::string path;
  std::string text = kVersionKey + supported_version_ + "\n";
  text += SerializeMembers(object, path, cls, true);
  text += SerializeObjects(object, path, cls);
  return text;
}

// The members that differ from the class defaults, in the class's member order.
std::string FWIniParser::SerializeMembers(const FWObject* object, std::string& path,
                                          const FWClass* cls, bool with_header) const {
  std::string text;
  if (with_header) {
    path = path.empty() ? std::string(cls->GetName()) : path + "\\" + cls->GetName();
    text = "\n[" + path + "]\n\n";
  }
  const std::unique_ptr<FWObject> defaults(object->New());
  for (const FWMember* member : cls->GetMembers()) {
    const std::string value = NormaliseValue(member->GetForString(object));
    if (value == member->GetForString(defaults.get())) continue;
    text += member->GetName() + "=\"" + value + "\"\n";
  }
  return text;
}

std::string FWIniParser::SerializeObjects(const FWObject* object, const std::string& path,
                                          const FWClass* cls) const {
  std::string text;
  for (const FWMemberObject* member : cls->GetMemberObjects()) {
    for (ObjectIterator position = member->GetBeginFor(object);
         position != member->GetEndFor(object); ++position) {
      const FWObject* element = *position;
      const FWClass* element_class = element->GetClass();
      std::string element_path = path + "\\" + member->GetName();
      text += SerializeMembers(element, element_path, element_class, true);
      text += SerializeObjects(element, element_path, element_class);
    }
  }
  return text;
}
