#include "FWClass.h"

#include <algorithm>

#include "FWApplication.h"
#include "FWException.h"
#include "FWMember.h"
#include "FWMemberObject.h"

namespace {

constexpr const char* kSource = "src/FWClass";
constexpr unsigned kGetClassLine = 174;
constexpr unsigned kIsBaseOfLine = 326;
constexpr unsigned kIsClassOfLine = 336;
constexpr unsigned kIsDerivedOfLine = 342;

// Fills an empty cache with the own records of the class and of each base class, then sorts it by
// name. Names are unique within a class hierarchy, so the unstable sort is enough.
template <typename Record, typename OwnList>
void BuildCache(const FWClass* cls, const OwnList& (FWClass::*own_list)() const,
                std::vector<const Record*>& cache) {
  if (!cache.empty()) return;
  for (const FWClass* current = cls; current != nullptr; current = current->GetBaseClass()) {
    const OwnList& own = (current->*own_list)();
    cache.insert(cache.end(), own.begin(), own.end());
  }
  std::sort(cache.begin(), cache.end(), FWMemberCompare());
}

// Lower-bound search with a dummy record that carries only the name.
template <typename Record, typename Dummy>
const Record* FindByName(const std::vector<const Record*>& sorted, const std::string& name) {
  const Dummy key(name);
  const Record* key_record = &key;
  const auto found = std::lower_bound(sorted.begin(), sorted.end(), key_record, FWMemberCompare());
  if (found == sorted.end() || FWMemberCompare()(key_record, *found)) return nullptr;
  return *found;
}

}  // namespace

FWClass::FWClass() { Initialize(); }

FWClass::FWClass(const FWClass& other) : FWObject(other) { Copy(other); }

FWClass::~FWClass() { DeleteOwnMembers(); }

FWClass* FWClass::New() const { return new FWClass(); }

FWClass* FWClass::Clone() const { return new FWClass(*this); }

void FWClass::Assign(const FWObject* other) { operator=(CastOrThrow<FWClass>(other, "FWClass")); }

bool FWClass::IsEqual(const FWObject* other) const {
  return operator==(CastOrThrow<FWClass>(other, "FWClass"));
}

const FWObject* FWClass::Cast(const FWObject* object) const {
  return dynamic_cast<const FWClass*>(object);
}

FWObject* FWClass::Cast(FWObject* object) const { return dynamic_cast<FWClass*>(object); }

void FWClass::Clear() {
  FWObject::Clear();
  DeleteOwnMembers();
}

const FWClass* FWClass::GetClass() const {
  return GetRegisteredClass("FWClass", kSource, kGetClassLine);
}

void FWClass::Validate(std::list<FWNotification>& notifications) const {
  FWObject::Validate(notifications);
  for (const FWMember* member : own_members_) member->Validate(notifications);
  for (const FWMemberObject* member : own_member_objects_) member->Validate(notifications);
}

FWClass& FWClass::operator=(const FWClass& other) {
  if (&other == this) return *this;
  FWObject::operator=(other);
  Copy(other);
  return *this;
}

bool FWClass::operator==(const FWClass& other) const {
  return FWObject::operator==(other) && base_name_ == other.base_name_ &&
         caption_ == other.caption_ && name_ == other.name_;
}

void FWClass::Copy(const FWClass& other) {
  base_name_ = other.base_name_;
  caption_ = other.caption_;
  name_ = other.name_;
  DeleteOwnMembers();
  for (const FWMember* member : other.own_members_) {
    AddMember(std::unique_ptr<FWMember>(member->Clone()));
  }
  for (const FWMemberObject* member : other.own_member_objects_) {
    AddMemberObject(std::unique_ptr<FWMemberObject>(member->Clone()));
  }
  number_ = other.number_;
}

void FWClass::Initialize() {}

void FWClass::AddMember(std::unique_ptr<FWMember> member) {
  member->SetOwner(this);
  own_members_.push_back(member.release());
  all_members_.clear();
}

void FWClass::AddMemberObject(std::unique_ptr<FWMemberObject> member_object) {
  member_object->SetOwner(this);
  own_member_objects_.push_back(member_object.release());
  all_member_objects_.clear();
}

const FWClass* FWClass::GetBaseClass() const {
  return FWApplication::GetInstance().GetClass(base_name_);
}

const std::vector<const FWMember*>& FWClass::GetMembers() const {
  BuildCache(this, &FWClass::GetOwnMembers, all_members_);
  return all_members_;
}

const std::vector<const FWMemberObject*>& FWClass::GetMemberObjects() const {
  BuildCache(this, &FWClass::GetOwnMemberObjects, all_member_objects_);
  return all_member_objects_;
}

const FWMember* FWClass::GetMember(const std::string& name) const {
  return FindByName<FWMember, FWDummyMember>(GetMembers(), name);
}

const FWMemberObject* FWClass::GetMemberObject(const std::string& name) const {
  return FindByName<FWMemberObject, FWDummyMemberObject>(GetMemberObjects(), name);
}

bool FWClass::IsBaseOf(const FWClass* other) const {
  if (other == nullptr) throw FWEAssertionFailed(kSource, kIsBaseOfLine, std::string("Class"));
  for (const FWClass* current = other; current != nullptr; current = current->GetBaseClass()) {
    if (current->GetName() == name_) return true;
  }
  return false;
}

bool FWClass::IsDerivedOf(const FWClass* other) const {
  if (other == nullptr) throw FWEAssertionFailed(kSource, kIsDerivedOfLine, std::string("Class"));
  return other->IsBaseOf(this);
}

bool FWClass::IsClassOf(const FWObject* object) const {
  if (object == nullptr) throw FWEAssertionFailed(kSource, kIsClassOfLine, std::string("Object"));
  return IsBaseOf(object->GetClass());
}

FWObject* FWClass::NewInstance() const {
  const auto construct = FWApplication::GetClassFactory().construct;
  if (construct == nullptr) throw FWEInternal(FW_HERE);
  return construct(number_);
}

void FWClass::DeleteOwnMembers() {
  all_members_.clear();
  all_member_objects_.clear();
  for (FWMember* member : own_members_) delete member;
  own_members_.clear();
  for (FWMemberObject* member : own_member_objects_) delete member;
  own_member_objects_.clear();
}
