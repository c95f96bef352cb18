// The run-time description of one configurable class: its name, base class name, caption and
// members. The registry (FWApplication) creates and owns the records; a record does not change
// once the registry is built.
#ifndef NORVANE_SRC_FWCLASS_H_
#define NORVANE_SRC_FWCLASS_H_

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "FWObject.h"
#include "FWType.h"

class FWMember;
class FWMemberObject;

class FWClass final : public FWObject {
 public:
  FWClass();
  // Copies the fields and clones the own members, which then name the copy as their owner. The
  // caches start empty.
  FWClass(const FWClass& other);
  // Deletes the own members and member objects.
  ~FWClass() override;

  FWClass* New() const override;
  FWClass* Clone() const override;
  void Assign(const FWObject* other) override;
  bool IsEqual(const FWObject* other) const override;
  const FWObject* Cast(const FWObject* object) const override;
  FWObject* Cast(FWObject* object) const override;
  // Deletes the own members and member objects and empties the caches.
  void Clear() override;
  // Throws FWEAssertionFailed("Class") ("src/FWClass", 174): metadata records are not registered.
  const FWClass* GetClass() const override;
  // The root's rules (none), then Validate of each own member and member object.
  void Validate(std::list<FWNotification>& notifications) const override;

  FWClass& operator=(const FWClass& other);
  // Compares the base name, caption and name.
  bool operator==(const FWClass& other) const;
  void Copy(const FWClass& other);
  void Initialize();

  FWString GetName() const { return name_; }
  void SetName(const FWString& name) { name_ = name; }
  // "FWObject" for a class derived directly from the root.
  FWString GetBaseName() const { return base_name_; }
  void SetBaseName(const FWString& base_name) { base_name_ = base_name; }
  FWString GetCaption() const { return caption_; }
  void SetCaption(const FWString& caption) { caption_ = caption; }
  // Selects the constructor in NewInstance(); the service's classes are 1 MonitoringPort,
  // 2 ProxyPort, 3 SessionManager.
  int GetNumber() const { return number_; }
  void SetNumber(int number) { number_ = number; }

  // The own lists, in the order of addition. The class owns the pointers in them: whatever is put
  // into a modifiable list is deleted by the class.
  const std::list<FWMember*>& GetOwnMembers() const { return own_members_; }
  std::list<FWMember*>& GetOwnMembers() { return own_members_; }
  const std::list<FWMemberObject*>& GetOwnMemberObjects() const { return own_member_objects_; }
  std::list<FWMemberObject*>& GetOwnMemberObjects() { return own_member_objects_; }
  // Appends to the own lists, taking ownership, and names this class as the owner.
  void AddMember(std::unique_ptr<FWMember> member);
  void AddMemberObject(std::unique_ptr<FWMemberObject> member_object);

  // The registry's record named by the base name, or null ("FWObject" is not registered).
  const FWClass* GetBaseClass() const;
  // All members, own and inherited, sorted by name; built on first use and then kept.
  const std::vector<const FWMember*>& GetMembers() const;
  const std::vector<const FWMemberObject*>& GetMemberObjects() const;
  // The member of exactly that name (case matters), own or inherited, or null.
  const FWMember* GetMember(const std::string& name) const;
  const FWMemberObject* GetMemberObject(const std::string& name) const;

  // True when `other` is this class or derives from it. Throws FWEAssertionFailed("Class") for a
  // null class.
  bool IsBaseOf(const FWClass* other) const;
  // True when this class is `other` or derives from it. Throws FWEAssertionFailed("Class") for a
  // null class.
  bool IsDerivedOf(const FWClass* other) const;
  // IsBaseOf applied to the object's class. Throws FWEAssertionFailed("Object") for a null object.
  bool IsClassOf(const FWObject* object) const;

  // A new default object of the class, made by the registry's class factory from the class
  // number; the caller owns it. The service's factory makes MonitoringPort (1) and
  // SessionManager (3); any other number (ProxyPort is abstract) throws FWEInternal
  // ("classes/FWClassFactory", 200). Without a factory it throws FWEInternal.
  FWObject* NewInstance() const;

 private:
  void DeleteOwnMembers();

  FWString base_name_;
  FWString caption_;
  FWString name_;
  std::list<FWMember*> own_members_;
  std::list<FWMemberObject*> own_member_objects_;
  int number_ = 0;
  // Caches of GetMembers() and GetMemberObjects(); they point into this class and its bases.
  mutable std::vector<const FWMember*> all_members_;
  mutable std::vector<const FWMemberObject*> all_member_objects_;
};

#endif  // NORVANE_SRC_FWCLASS_H_
