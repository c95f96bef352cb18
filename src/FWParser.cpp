#include "FWParser.h"

#include <memory>

#include "FWObject.h"

namespace {

// Deletes the objects of a list it is given when it goes out of scope.
class ObjectListOwner {
 public:
  explicit ObjectListOwner(std::list<FWObject*>& objects) : objects_(objects) {}
  ~ObjectListOwner() {
    for (FWObject* object : objects_) delete object;
    objects_.clear();
  }
  ObjectListOwner(const ObjectListOwner&) = delete;
  ObjectListOwner& operator=(const ObjectListOwner&) = delete;

 private:
  std::list<FWObject*>& objects_;
};

}  // namespace

void FWParser::GenerateFromObject(const FWObject& object, std::string& target, bool to_file) {
  GenerateFromList({&object}, target, to_file);
}

void FWParser::ParseToObject(FWObject& object, const std::string& source, bool from_file) {
  std::list<FWObject*> objects;
  const ObjectListOwner owner(objects);
  ParseToList(objects, source, from_file);
  if (objects.empty()) {
    const std::unique_ptr<FWObject> fresh(object.New());
    object.Assign(fresh.get());
    return;
  }
  object.Assign(objects.front());
}
