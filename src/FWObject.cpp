#include "FWObject.h"

#include <algorithm>
#include <cstdlib>

#include "FWApplication.h"
#include "FWClass.h"
#include "FWIterator.h"
#include "FWMemberObject.h"

FWObject::FWObject(const FWObject& other) : class_(other.class_) { Copy(other); }

FWObject* FWObject::New() const { return new FWObject(); }

FWObject* FWObject::Clone() const { return new FWObject(*this); }

void FWObject::Assign(const FWObject* other) { operator=(*other); }

bool FWObject::IsEqual(const FWObject* other) const { return operator==(*other); }

const FWObject* FWObject::Cast(const FWObject* object) const { return object; }

FWObject* FWObject::Cast(FWObject* object) const { return object; }

void FWObject::Clear() {}

const FWClass* FWObject::GetClass() const {
  if (class_ != nullptr) return class_;
  class_ = FWApplication::GetInstance().GetClass("FWObject");
  return class_;
}

void FWObject::Validate(std::list<FWNotification>& /*notifications*/) const {}

FWObject& FWObject::operator=(const FWObject& other) {
  if (&other != this) Copy(other);
  return *this;
}

bool FWObject::operator==(const FWObject& /*other*/) const { return true; }

void FWObject::Copy(const FWObject& /*other*/) {}

void FWObject::Initialize() {}

const FWClass* FWObject::GetRegisteredClass(const char* name, const char* source,
                                            unsigned line) const {
  if (class_ != nullptr) return class_;
  const FWClass* found = FWApplication::GetInstance().GetClass(name);
  if (found == nullptr) throw FWEAssertionFailed(source, line, std::string("Class"));
  class_ = found;
  return class_;
}

const FWObject* FWObject::GetObjectBySpecifier(const std::string& path) const {
  const std::size_t start = (!path.empty() && path[0] == '.') ? 1 : 0;
  const std::size_t name_end = std::min(path.find_first_of(".:", start), path.size());
  const std::string name = path.substr(start, name_end - start);
  if (name.empty()) return this;

  long index = 0;
  std::size_t rest = name_end;
  if (name_end < path.size() && path[name_end] == ':') {
    index = std::strtol(path.c_str() + name_end + 1, nullptr, 10);
    rest = std::min(path.find('.', name_end), path.size());
  }

  const FWClass* cls = GetClass();
  const FWMemberObject* member = cls == nullptr ? nullptr : cls->GetMemberObject(name);
  if (member == nullptr) return nullptr;
  // Each step is checked against the end, so an index past the last element yields null.
  ObjectIterator position = member->GetBeginFor(this);
  const ObjectIterator end = member->GetEndFor(this);
  for (long step = 0; step < index && position != end; ++step) ++position;
  if (position == end) return nullptr;
  return (*position)->GetObjectBySpecifier(path.substr(rest));
}
