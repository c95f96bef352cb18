// A named enumeration for the object model: captions numbered from 0, each with a description.
// The registry holds enumerations beside classes; the service itself defines none.
#ifndef NORVANE_SRC_FWENUM_H_
#define NORVANE_SRC_FWENUM_H_

#include <string>
#include <vector>

#include "FWObject.h"
#include "FWType.h"

class FWEnum final : public FWObject {
 public:
  FWEnum();
  FWEnum(const FWEnum& other);
  ~FWEnum() override = default;

  FWEnum* New() const override;
  FWEnum* Clone() const override;
  void Assign(const FWObject* other) override;
  bool IsEqual(const FWObject* other) const override;
  const FWObject* Cast(const FWObject* object) const override;
  FWObject* Cast(FWObject* object) const override;
  void Clear() override;
  // Throws FWEAssertionFailed("Class") ("src/FWEnum", 127): metadata records are not registered.
  const FWClass* GetClass() const override;
  void Validate(std::list<FWNotification>& notifications) const override;

  FWEnum& operator=(const FWEnum& other);
  // Compares the name only.
  bool operator==(const FWEnum& other) const;
  void Copy(const FWEnum& other);
  void Initialize();

  FWString GetName() const { return name_; }
  void SetName(const FWString& name) { name_ = name; }
  const std::vector<std::string>& GetCaptions() const { return captions_; }
  const std::vector<std::string>& GetDescriptions() const { return descriptions_; }

  // The caption of the value with that number; "" for a number below 0 or at or past the end.
  std::string GetCaption(int index) const;
  // The number of the first value whose caption equals the text exactly. A text that is no caption
  // also yields 0, like the first value: callers cannot tell the two apart, on purpose.
  int GetIndex(const std::string& caption) const;

 private:
  FWString name_;
  std::vector<std::string> captions_;
  std::vector<std::string> descriptions_;
};

#endif  // NORVANE_SRC_FWENUM_H_
