// Turns one configurable object into text and back by way of a list of objects; the concrete
// grammar is the subclass's (FWIniParser).
#ifndef NORVANE_SRC_FWPARSER_H_
#define NORVANE_SRC_FWPARSER_H_

#include <list>
#include <string>

class FWObject;

class FWParser {
 public:
  FWParser() = default;
  FWParser(const FWParser&) = delete;
  FWParser& operator=(const FWParser&) = delete;
  virtual ~FWParser() = default;

  // Generates the text of one object (GenerateFromList with a one-element list).
  virtual void GenerateFromObject(const FWObject& object, std::string& target, bool to_file);
  // Generates the text of the objects, in order. With to_file, target is a file name; otherwise it
  // receives the text. The objects are not owned.
  virtual void GenerateFromList(const std::list<const FWObject*>& objects, std::string& target,
                                bool to_file) = 0;
  // Fills `object` by value from the text (from_file: source is a file name): with the first
  // object parsed, or with a fresh default of its own class when the text holds none. A failure
  // leaves `object` unchanged. Throws FWEBadCast when the text's root is of another class.
  virtual void ParseToObject(FWObject& object, const std::string& source, bool from_file);
  // Deletes the objects already in the list, then appends the objects parsed from the text. The
  // list owns what is appended; the caller deletes it.
  virtual void ParseToList(std::list<FWObject*>& objects, const std::string& source,
                           bool from_file) = 0;
};

#endif  // NORVANE_SRC_FWPARSER_H_
