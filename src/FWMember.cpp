#include "FWMember.h"

#include "FWClass.h"

namespace {

constexpr unsigned kGetClassLine = 145;

}  // namespace

FWMember::FWMember() { Initialize(); }

FWMember::FWMember(const std::string& name, const FWClass* owner, const std::string& type_name,
                   int size, const std::string& description, int required,
                   const std::string& caption)
    : name_(name),
      type_name_(type_name),
      size_(size),
      description_(description),
      required_(required),
      caption_(caption),
      owner_(owner) {}

FWMember::FWMember(const FWMember& other) : FWObject(other) { Copy(other); }

void FWMember::Assign(const FWObject* other) {
  operator=(CastOrThrow<FWMember>(other, "FWMember"));
}

bool FWMember::IsEqual(const FWObject* other) const {
  return operator==(CastOrThrow<FWMember>(other, "FWMember"));
}

const FWObject* FWMember::Cast(const FWObject* object) const {
  return dynamic_cast<const FWMember*>(object);
}

FWObject* FWMember::Cast(FWObject* object) const { return dynamic_cast<FWMember*>(object); }

void FWMember::Clear() { FWObject::Clear(); }

const FWClass* FWMember::GetClass() const {
  return GetRegisteredClass("FWMember", "src/FWMember", kGetClassLine);
}

void FWMember::Validate(std::list<FWNotification>& notifications) const {
  FWObject::Validate(notifications);
}

FWMember& FWMember::operator=(const FWMember& other) {
  if (&other == this) return *this;
  FWObject::operator=(other);
  Copy(other);
  return *this;
}

bool FWMember::operator==(const FWMember& other) const {
  return FWObject::operator==(other) && name_ == other.name_ && type_name_ == other.type_name_ &&
         size_ == other.size_ && description_ == other.description_ &&
         required_ == other.required_ && caption_ == other.caption_;
}

void FWMember::Copy(const FWMember& other) {
  name_ = other.name_;
  type_name_ = other.type_name_;
  size_ = other.size_;
  description_ = other.description_;
  required_ = other.required_;
  caption_ = other.caption_;
  owner_ = other.owner_;
}

void FWMember::Initialize() {}

bool FWMember::IsMemberOf(const FWClass* cls) const {
  if (owner_ == nullptr) return false;
  return owner_->IsBaseOf(cls);
}

bool FWMember::IsMemberOf(const FWObject* object) const {
  if (owner_ == nullptr) return false;
  return owner_->IsClassOf(object);
}

std::string FWMember::GetOwnerName() const {
  return owner_ == nullptr ? std::string() : std::string(owner_->GetName());
}

FWDummyMember::FWDummyMember(const std::string& name) : FWMember(name, nullptr, "", 0, "", 0, "") {}

std::string FWDummyMember::GetForString(const FWObject* /*object*/) const { return ""; }

void FWDummyMember::SetForString(FWObject* /*object*/, const std::string& /*text*/) const {}

void FWDummyMember::SafeGetFor(const FWObject* /*object*/, FWBaseType* /*out*/) const {}

void FWDummyMember::SafeSetFor(FWObject* /*object*/, const FWBaseType* /*in*/) const {}
