// The class factory of the service: RegisterServiceClasses hands the registry the records of the
// configurable service classes and the construction of their objects. The records' members bind
// class metadata to the accessors of the service classes: a typed scalar member over a value type
// and its owning class, and a typed object-list member over a container of owned elements.
#ifndef NORVANE_CLASSES_FWCLASSFACTORY_H_
#define NORVANE_CLASSES_FWCLASSFACTORY_H_

#include <memory>
#include <string>

#include "FWException.h"
#include "FWIterator.h"
#include "FWMember.h"
#include "FWMemberObject.h"

// Sets the service's class factory on the registry (FWApplication::SetClassFactory): the classes
// MonitoringPort, ProxyPort and SessionManager with their members, and the construction of
// MonitoringPort and SessionManager objects by class number. Call it first in main, before
// anything uses the registry (a class lookup, the text form of a value): afterwards it throws
// FWEInternal. A second fill of the registry throws FWEInternal ("classes/FWClassFactory", 115);
// FWClass::NewInstance of ProxyPort, which is abstract, or of an unknown number throws
// FWEInternal ("classes/FWClassFactory", 200).
void RegisterServiceClasses();

// A scalar member of class C with value type V (FWString or FWVariable<int>), read through C's
// constant getter and written through C's setter. A member made by New() is bound to nothing, and
// using it throws FWEInternal.
template <typename V, typename C>
class FWTypedClassMember final : public FWMember {
 public:
  using Getter = V (C::*)() const;
  using Setter = void (C::*)(const V&);

  FWTypedClassMember() = default;
  FWTypedClassMember(const std::string& name, const FWClass* owner, const std::string& type_name,
                     int size, const std::string& description, int required,
                     const std::string& caption, Getter getter, Setter setter)
      : FWMember(name, owner, type_name, size, description, required, caption),
        getter_(getter),
        setter_(setter) {}

  FWTypedClassMember* New() const override { return new FWTypedClassMember(); }
  FWTypedClassMember* Clone() const override { return new FWTypedClassMember(*this); }

  // Throws FWEBadCast(owning class name) when `object` is null or not a C.
  std::string GetForString(const FWObject* object) const override {
    const C& typed = ObjectOrThrow(object, 45);
    return (typed.*Bound(getter_))().GetAsString();
  }
  // Throws FWEBadCast(owning class name) when `object` is null or not a C.
  void SetForString(FWObject* object, const std::string& text) const override {
    C& typed = const_cast<C&>(ObjectOrThrow(object, 49));
    V value;
    value.SetFromString(text);
    (typed.*Bound(setter_))(value);
  }
  // Throws FWEBadCast: the owning class name when `object` is not a C, the member's type name when
  // `out` is not a V.
  void SafeGetFor(const FWObject* object, FWBaseType* out) const override {
    const C& typed = ObjectOrThrow(object, 67);
    V* typed_out = dynamic_cast<V*>(out);
    if (typed_out == nullptr) throw FWEBadCast(kSource, 69, std::string(GetTypeName()));
    *typed_out = (typed.*Bound(getter_))();
  }
  // Throws FWEBadCast as SafeGetFor.
  void SafeSetFor(FWObject* object, const FWBaseType* in) const override {
    C& typed = const_cast<C&>(ObjectOrThrow(object, 73));
    const V* typed_in = dynamic_cast<const V*>(in);
    if (typed_in == nullptr) throw FWEBadCast(kSource, 75, std::string(GetTypeName()));
    (typed.*Bound(setter_))(*typed_in);
  }

 private:
  static constexpr const char* kSource = "classes/FWClassFactory";

  // `object` as a C. The setters receive a modifiable object, so casting the constness away there
  // only undoes the constness added here.
  const C& ObjectOrThrow(const FWObject* object, unsigned line) const {
    const C* typed = dynamic_cast<const C*>(object);
    if (typed == nullptr) throw FWEBadCast(kSource, line, GetOwnerName());
    return *typed;
  }
  template <typename Accessor>
  static Accessor Bound(Accessor accessor) {
    if (accessor == nullptr) throw FWEInternal(FW_HERE);
    return accessor;
  }

  Getter getter_ = nullptr;
  Setter setter_ = nullptr;
};

// The object-list member of class C held in a Container of owned elements (a std::list of
// std::unique_ptr, see TypedAccessor) and reached through C's accessor that returns the container
// by reference. A member made by New() is bound to nothing, and using it throws FWEInternal.
template <typename Container, typename C>
class FWTypedClassMemberObject final : public FWMemberObject {
 public:
  using Accessor = Container& (C::*)();

  FWTypedClassMemberObject() = default;
  FWTypedClassMemberObject(const std::string& name, const FWClass* owner,
                           const std::string& type_name, const std::string& description,
                           int required, const std::string& caption,
                           const std::string& multiplicity, Accessor accessor)
      : FWMemberObject(name, owner, type_name, description, required, caption, multiplicity),
        accessor_(accessor) {}

  FWTypedClassMemberObject* New() const override { return new FWTypedClassMemberObject(); }
  FWTypedClassMemberObject* Clone() const override { return new FWTypedClassMemberObject(*this); }

  // Both throw FWEBadCast(owning class name) when `object` is null or not a C.
  ObjectIterator GetBeginFor(const FWObject* object) const override {
    Container& container = ContainerOf(object);
    return ObjectIterator(
        std::make_unique<TypedAccessor<Container>>(&container, container.begin()));
  }
  ObjectIterator GetEndFor(const FWObject* object) const override {
    Container& container = ContainerOf(object);
    return ObjectIterator(std::make_unique<TypedAccessor<Container>>(&container, container.end()));
  }

 private:
  // The list is reached through a constant object because the reader and the writer share this
  // protocol; positions may insert into it (see FWMemberObject).
  Container& ContainerOf(const FWObject* object) const {
    const C* typed = dynamic_cast<const C*>(object);
    if (typed == nullptr) throw FWEBadCast("classes/FWClassFactory", 103, GetOwnerName());
    if (accessor_ == nullptr) throw FWEInternal(FW_HERE);
    return (const_cast<C*>(typed)->*accessor_)();
  }

  Accessor accessor_ = nullptr;
};

#endif  // NORVANE_CLASSES_FWCLASSFACTORY_H_
