#include "FWMemberObject.h"

#include "FWClass.h"

FWMemberObject::FWMemberObject() { Initialize(); }

FWMemberObject::FWMemberObject(const std::string& name, const FWClass* owner,
                               const std::string& type_name, const std::string& description,
                               int required, const std::string& caption,
                               const std::string& multiplicity)
    : name_(name),
      type_name_(type_name),
      description_(description),
      required_(required),
      caption_(caption),
      multiplicity_(multiplicity),
      owner_(owner) {}

FWMemberObject::FWMemberObject(const FWMemberObject& other) : FWObject(other) { Copy(other); }

void FWMemberObject::Assign(const FWObject* other) {
  operator=(CastOrThrow<FWMemberObject>(other, "FWMemberObject"));
}

bool FWMemberObject::IsEqual(const FWObject* other) const {
  return operator==(CastOrThrow<FWMemberObject>(other, "FWMemberObject"));
}

const FWObject* FWMemberObject::Cast(const FWObject* object) const {
  return dynamic_cast<const FWMemberObject*>(object);
}

FWObject* FWMemberObject::Cast(FWObject* object) const {
  return dynamic_cast<FWMemberObject*>(object);
}

void FWMemberObject::Clear() { FWObject::Clear(); }

const FWClass* FWMemberObject::GetClass() const {
  return GetRegisteredClass("FWMemberObject", "src/FWMemberObject", __LINE__);
}

void FWMemberObject::Validate(std::list<FWNotification>& notifications) const {
  FWObject::Validate(notifications);
}

FWMemberObject& FWMemberObject::operator=(const FWMemberObject& other) {
  if (&other == this) return *this;
  FWObject::operator=(other);
  Copy(other);
  return *this;
}

bool FWMemberObject::operator==(const FWMemberObject& other) const {
  return FWObject::operator==(other) && name_ == other.name_ && type_name_ == other.type_name_ &&
         description_ == other.description_ && required_ == other.required_ &&
         caption_ == other.caption_ && multiplicity_ == other.multiplicity_;
}

void FWMemberObject::Copy(const FWMemberObject& other) {
  name_ = other.name_;
  type_name_ = other.type_name_;
  description_ = other.description_;
  required_ = other.required_;
  caption_ = other.caption_;
  multiplicity_ = other.multiplicity_;
  owner_ = other.owner_;
}

void FWMemberObject::Initialize() {}

bool FWMemberObject::IsMemberOf(const FWClass* cls) const {
  if (owner_ == nullptr) return false;
  return owner_->IsBaseOf(cls);
}

bool FWMemberObject::IsMemberOf(const FWObject* object) const {
  if (owner_ == nullptr) return false;
  return owner_->IsClassOf(object);
}

std::string FWMemberObject::GetOwnerName() const {
  return owner_ == nullptr ? std::string() : std::string(owner_->GetName());
}

FWDummyMemberObject::FWDummyMemberObject(const std::string& name)
    : FWMemberObject(name, nullptr, "", "", 0, "", "") {}

ObjectIterator FWDummyMemberObject::GetBeginFor(const FWObject* /*object*/) const {
  return ObjectIterator(std::make_unique<VirtualAccessor>());
}

ObjectIterator FWDummyMemberObject::GetEndFor(const FWObject* /*object*/) const {
  return ObjectIterator(std::make_unique<VirtualAccessor>());
}
