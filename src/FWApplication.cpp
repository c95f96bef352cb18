#include "FWApplication.h"

#include <algorithm>

#include "FWClass.h"
#include "FWEnum.h"
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

FWApplication& FWApplication::GetInstance() {
  // A function-local static: made on first use, destroyed at exit.
  static FWApplication instance;
  return instance;
}

FWApplication::FWApplication() { Init(); }

FWApplication::~FWApplication() {
  for (const FWClass* cls : classes_) delete cls;
  for (const FWEnum* enumeration : enums_) delete enumeration;
}

const FWClass* FWApplication::GetClass(const std::string& name) const {
  return FindByName(classes_, name);
}

const FWEnum* FWApplication::GetEnum(const std::string& name) const {
  return FindByName(enums_, name);
}
