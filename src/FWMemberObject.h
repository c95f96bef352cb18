// Metadata of one object-list member of a configurable class (name, element class, multiplicity,
// caption, description, required flag) and positions in that list in any object of the class.
// FWDummyMemberObject is the unbound kind, used as a search key carrying only a name.
#ifndef NORVANE_SRC_FWMEMBEROBJECT_H_
#define NORVANE_SRC_FWMEMBEROBJECT_H_

#include <string>

#include "FWIterator.h"
#include "FWObject.h"
#include "FWType.h"

class FWMemberObject : public FWObject {
 public:
  FWMemberObject();
  // `owner` is the class that declares the member; it is not owned and outlives the member.
  FWMemberObject(const std::string& name, const FWClass* owner, const std::string& type_name,
                 const std::string& description, int required, const std::string& caption,
                 const std::string& multiplicity);
  FWMemberObject(const FWMemberObject& other);
  ~FWMemberObject() override = default;

  // A member's kind decides what a new or copied member is, so only the concrete kinds make them.
  FWMemberObject* New() const override = 0;
  FWMemberObject* Clone() const override = 0;
  void Assign(const FWObject* other) override;
  bool IsEqual(const FWObject* other) const override;
  const FWObject* Cast(const FWObject* object) const override;
  FWObject* Cast(FWObject* object) const override;
  void Clear() override;
  // Throws FWEAssertionFailed("Class") (source "src/FWMemberObject"): metadata records are not
  // registered.
  const FWClass* GetClass() const override;
  void Validate(std::list<FWNotification>& notifications) const override;

  // Positions at the first element and past the last one of the member's list in `object`. The
  // list belongs to `object`, which must outlive the positions; a position may insert into and
  // delete from that list although `object` is passed as constant. Throw FWEBadCast when `object`
  // is not of the owning class.
  virtual ObjectIterator GetBeginFor(const FWObject* object) const = 0;
  virtual ObjectIterator GetEndFor(const FWObject* object) const = 0;

  FWMemberObject& operator=(const FWMemberObject& other);
  bool operator==(const FWMemberObject& other) const;
  void Copy(const FWMemberObject& other);
  void Initialize();

  FWString GetName() const { return name_; }
  void SetName(const FWString& name) { name_ = name; }
  // The element class name.
  FWString GetTypeName() const { return type_name_; }
  void SetTypeName(const FWString& type_name) { type_name_ = type_name; }
  FWString GetDescription() const { return description_; }
  void SetDescription(const FWString& description) { description_ = description; }
  FWVariable<int> GetRequired() const { return required_; }
  void SetRequired(const FWVariable<int>& required) { required_ = required; }
  FWString GetCaption() const { return caption_; }
  void SetCaption(const FWString& caption) { caption_ = caption; }
  // "n" for a list of any length.
  FWString GetMultiplicity() const { return multiplicity_; }
  void SetMultiplicity(const FWString& multiplicity) { multiplicity_ = multiplicity; }
  void SetOwner(const FWClass* owner) { owner_ = owner; }

  // As FWMember::IsMemberOf.
  bool IsMemberOf(const FWClass* cls) const;
  bool IsMemberOf(const FWObject* object) const;

 protected:
  // The owner's name, "" when there is no owner; the text of the FWEBadCast failures.
  std::string GetOwnerName() const;

 private:
  FWString name_;
  FWString type_name_;
  FWString description_;
  FWVariable<int> required_;
  FWString caption_;
  FWString multiplicity_;
  const FWClass* owner_ = nullptr;
};

// An object member bound to nothing: its positions are bare accessors, which throw on every use.
class FWDummyMemberObject final : public FWMemberObject {
 public:
  FWDummyMemberObject() = default;
  explicit FWDummyMemberObject(const std::string& name);

  FWDummyMemberObject* New() const override { return new FWDummyMemberObject(); }
  FWDummyMemberObject* Clone() const override { return new FWDummyMemberObject(*this); }

  ObjectIterator GetBeginFor(const FWObject* object) const override;
  ObjectIterator GetEndFor(const FWObject* object) const override;
};

#endif  // NORVANE_SRC_FWMEMBEROBJECT_H_
