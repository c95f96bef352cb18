// Nullable configuration values with a text form: the abstract FWBaseType, the scalar template
// FWVariable<T> (null by a flag) and FWString (null when empty), and the free conversions between
// scalars and text that they use.
#ifndef NORVANE_SRC_FWTYPE_H_
#define NORVANE_SRC_FWTYPE_H_

#include <string>

// Root of the value types. Copying is left to the concrete types.
class FWBaseType {
 public:
  virtual ~FWBaseType() = default;
  // Makes the value null.
  virtual void Clear() = 0;
  // A new copy of the value; the caller owns it.
  virtual FWBaseType* Clone() const = 0;
  // The text form; "" for a null value.
  virtual std::string GetAsString() const = 0;
  virtual bool IsNull() const = 0;
  // Sets the value from its text form; the empty text makes the value null.
  virtual void SetFromString(const std::string& text) = 0;

 protected:
  FWBaseType() = default;
  FWBaseType(const FWBaseType&) = default;
  FWBaseType& operator=(const FWBaseType&) = default;
};

// Text forms of the scalars, through the application's string utilities. Reading never fails:
// a text that does not convert yields 0 (numbers) or false (booleans).
//   bool:   "true"/"false"; true exactly when the text starts with one of "tTyY1".
//   int:    "%d"; strtol base 10 of the leading part, 0 when nothing converts.
//   double: "%f"; strtod.
//   long:   a time stamp in the application's time format, read back in its date order.
void FWVariableAsString(bool value, std::string& text);
void FWVariableAsString(int value, std::string& text);
void FWVariableAsString(double value, std::string& text);
void FWVariableAsString(long value, std::string& text);
void FWVariableFromString(bool& value, const std::string& text);
void FWVariableFromString(int& value, const std::string& text);
void FWVariableFromString(double& value, const std::string& text);
void FWVariableFromString(long& value, const std::string& text);

// A nullable scalar. The value keeps its last content while the value is null; comparisons look
// at it only when both sides are set.
template <typename T>
class FWVariable final : public FWBaseType {
 public:
  FWVariable() = default;
  explicit FWVariable(const T& value) : null_(false), value_(value) {}
  FWVariable(const FWVariable&) = default;
  FWVariable& operator=(const FWVariable&) = default;

  void Clear() override { null_ = true; }
  FWVariable* Clone() const override { return new FWVariable(*this); }
  std::string GetAsString() const override {
    std::string text;
    if (!null_) FWVariableAsString(value_, text);
    return text;
  }
  bool IsNull() const override { return null_; }
  void SetFromString(const std::string& text) override {
    if (text.empty()) {
      null_ = true;
      return;
    }
    null_ = false;
    FWVariableFromString(value_, text);
  }

  // The stored value, also while null.
  const T& Get() const { return value_; }
  // Stores the value and makes it non-null.
  void Set(const T& value) {
    value_ = value;
    null_ = false;
  }

  // Null-aware: two nulls are equal, a null and a set value differ.
  bool operator==(const FWVariable& other) const {
    if (null_ || other.null_) return null_ == other.null_;
    return value_ == other.value_;
  }
  bool operator!=(const FWVariable& other) const { return !(*this == other); }

 private:
  bool null_ = true;
  T value_{};
};

// A string that is null exactly when it is empty. Deleting it through a std::string pointer is
// not allowed (std::string has no virtual destructor).
class FWString final : public std::string, public FWBaseType {
 public:
  FWString() = default;
  explicit FWString(const std::string& text) : std::string(text) {}
  explicit FWString(const char* text) : std::string(text) {}
  FWString(const FWString&) = default;
  FWString& operator=(const FWString&) = default;

  void Clear() override { clear(); }
  FWString* Clone() const override { return new FWString(*this); }
  std::string GetAsString() const override { return *this; }
  bool IsNull() const override { return empty(); }
  void SetFromString(const std::string& text) override { assign(text); }
};

#endif  // NORVANE_SRC_FWTYPE_H_
