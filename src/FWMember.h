// Metadata of one scalar member of a configurable class (name, value kind, size, caption,
// description, required flag) and the text access to that member in any object of the class.
// FWDummyMember is the unbound kind, used as a search key carrying only a name.
#ifndef NORVANE_SRC_FWMEMBER_H_
#define NORVANE_SRC_FWMEMBER_H_

#include <string>

#include "FWObject.h"
#include "FWType.h"

class FWBaseType;

// A less-than over the names of two records (members, member objects, classes, enumerations):
// byte-wise, case-sensitive.
struct FWMemberCompare {
  template <typename Record>
  bool operator()(const Record* left, const Record* right) const {
    return left->GetName() < right->GetName();
  }
};

class FWMember : public FWObject {
 public:
  FWMember();
  // `owner` is the class that declares the member; it is not owned and outlives the member.
  FWMember(const std::string& name, const FWClass* owner, const std::string& type_name, int size,
           const std::string& description, int required, const std::string& caption);
  FWMember(const FWMember& other);
  ~FWMember() override = default;

  // A member's kind decides what a new or copied member is, so only the concrete kinds make them.
  FWMember* New() const override = 0;
  FWMember* Clone() const override = 0;
  void Assign(const FWObject* other) override;
  bool IsEqual(const FWObject* other) const override;
  const FWObject* Cast(const FWObject* object) const override;
  FWObject* Cast(FWObject* object) const override;
  void Clear() override;
  // Throws FWEAssertionFailed("Class") ("src/FWMember", 145): metadata records are not registered.
  const FWClass* GetClass() const override;
  void Validate(std::list<FWNotification>& notifications) const override;

  // The member's value in `object` as text. Throws FWEBadCast when `object` is not of the
  // owning class.
  virtual std::string GetForString(const FWObject* object) const = 0;
  // Sets the member in `object` from text ("" makes it null). Throws FWEBadCast as above.
  virtual void SetForString(FWObject* object, const std::string& text) const = 0;
  // Copies the member's value into `out`, which must be of the member's value type.
  virtual void SafeGetFor(const FWObject* object, FWBaseType* out) const = 0;
  // Sets the member from `in`, which must be of the member's value type.
  virtual void SafeSetFor(FWObject* object, const FWBaseType* in) const = 0;

  FWMember& operator=(const FWMember& other);
  bool operator==(const FWMember& other) const;
  void Copy(const FWMember& other);
  void Initialize();

  FWString GetName() const { return name_; }
  void SetName(const FWString& name) { name_ = name; }
  // "FWString" or "FWInteger".
  FWString GetTypeName() const { return type_name_; }
  void SetTypeName(const FWString& type_name) { type_name_ = type_name; }
  // A declared maximum length, 0 for none; description only.
  FWVariable<int> GetSize() const { return size_; }
  void SetSize(const FWVariable<int>& size) { size_ = size; }
  FWString GetDescription() const { return description_; }
  void SetDescription(const FWString& description) { description_ = description; }
  // 1 when the member must be given; description only, nothing enforces it.
  FWVariable<int> GetRequired() const { return required_; }
  void SetRequired(const FWVariable<int>& required) { required_ = required; }
  FWString GetCaption() const { return caption_; }
  void SetCaption(const FWString& caption) { caption_ = caption; }
  void SetOwner(const FWClass* owner) { owner_ = owner; }

  // True when `cls` is the owner or derives from it: a member of ProxyPort is a member of
  // MonitoringPort too. Throws FWEAssertionFailed for a null class.
  bool IsMemberOf(const FWClass* cls) const;
  // True when the object's class has this member.
  bool IsMemberOf(const FWObject* object) const;

 protected:
  // The owner's name, "" when there is no owner; the text of the FWEBadCast failures.
  std::string GetOwnerName() const;

 private:
  FWString name_;
  FWString type_name_;
  FWVariable<int> size_;
  FWString description_;
  FWVariable<int> required_;
  FWString caption_;
  const FWClass* owner_ = nullptr;
};

// A member bound to nothing: reads as "", and writing or copying through it does nothing.
class FWDummyMember final : public FWMember {
 public:
  FWDummyMember() = default;
  explicit FWDummyMember(const std::string& name);

  FWDummyMember* New() const override { return new FWDummyMember(); }
  FWDummyMember* Clone() const override { return new FWDummyMember(*this); }

  std::string GetForString(const FWObject* object) const override;
  void SetForString(FWObject* object, const std::string& text) const override;
  void SafeGetFor(const FWObject* object, FWBaseType* out) const override;
  void SafeSetFor(FWObject* object, const FWBaseType* in) const override;
};

#endif  // NORVANE_SRC_FWMEMBER_H_
