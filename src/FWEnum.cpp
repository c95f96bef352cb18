#include "FWEnum.h"

namespace {

constexpr unsigned kGetClassLine = 127;

}  // namespace

FWEnum::FWEnum() { Initialize(); }

FWEnum::FWEnum(const FWEnum& other) : FWObject(other) { Copy(other); }

FWEnum* FWEnum::New() const { return new FWEnum(); }

FWEnum* FWEnum::Clone() const { return new FWEnum(*this); }

void FWEnum::Assign(const FWObject* other) { operator=(CastOrThrow<FWEnum>(other, "FWEnum")); }

bool FWEnum::IsEqual(const FWObject* other) const {
  return operator==(CastOrThrow<FWEnum>(other, "FWEnum"));
}

const FWObject* FWEnum::Cast(const FWObject* object) const {
  return dynamic_cast<const FWEnum*>(object);
}

FWObject* FWEnum::Cast(FWObject* object) const { return dynamic_cast<FWEnum*>(object); }

void FWEnum::Clear() { FWObject::Clear(); }

const FWClass* FWEnum::GetClass() const {
  return GetRegisteredClass("FWEnum", "src/FWEnum", kGetClassLine);
}

void FWEnum::Validate(std::list<FWNotification>& notifications) const {
  FWObject::Validate(notifications);
}

FWEnum& FWEnum::operator=(const FWEnum& other) {
  if (&other == this) return *this;
  FWObject::operator=(other);
  Copy(other);
  return *this;
}

bool FWEnum::operator==(const FWEnum& other) const {
  return FWObject::operator==(other) && name_ == other.name_;
}

void FWEnum::Copy(const FWEnum& other) {
  name_ = other.name_;
  captions_ = other.captions_;
  descriptions_ = other.descriptions_;
}

void FWEnum::Initialize() {}

std::string FWEnum::GetCaption(int index) const {
  if (index < 0) return "";
  const auto position = static_cast<std::size_t>(index);
  if (position >= captions_.size()) return "";
  return captions_[position];
}

int FWEnum::GetIndex(const std::string& caption) const {
  for (std::size_t i = 0; i < captions_.size(); ++i) {
    if (captions_[i] == caption) return static_cast<int>(i);
  }
  return 0;
}
