#include "FWApplication.h"

#include <algorithm>

#include "FWClass.h"
#include "FWEnum.h"
#include "FWException.h"
#include "FWMember.h"

namespace {

// Lower-bound search by name over records sorted with FWMemberCompare; exact match only.
template <typename Record>
const Record* FindByName(const std::vector<const Record*>& sorted, const std::string& name) {
  const auto found = std::lower_bound(
      sorted.begin(), sorted.end(), name,
      [](const Record* record, const std::string& key) { return record->GetName() < key; });
  if (found == sorted.end() || (*found)->GetName() != name) return nullptr;
  return *found;
}

}  // namespace

FWApplication::ClassFactory FWApplication::factory_;
bool FWApplication::built_ = false;

void FWApplication::SetClassFactory(const ClassFactory& factory) {
  if (built_) throw FWEInternal(FW_HERE);
  factory_ = factory;
}

FWApplication& FWApplication::GetInstance() {
  // A function-local static: made on first use, destroyed at exit.
  static FWApplication instance;
  return instance;
}

FWApplication::FWApplication() {
  built_ = true;
  Init();
}

FWApplication::~FWApplication() {
  for (const FWClass* cls : classes_) delete cls;
  for (const FWEnum* enumeration : enums_) delete enumeration;
}

void FWApplication::Init() {
  if (factory_.fill != nullptr) factory_.fill(classes_);
  std::sort(classes_.begin(), classes_.end(), FWMemberCompare());
}

const FWClass* FWApplication::GetClass(const std::string& name) const {
  return FindByName(classes_, name);
}

const FWEnum* FWApplication::GetEnum(const std::string& name) const {
  return FindByName(enums_, name);
}
