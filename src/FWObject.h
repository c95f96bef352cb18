// Root of every configurable object and of the metadata records: a uniform set of virtual
// operations (create, copy, compare, clear, validate, describe) through which the configuration
// reader and the class registry handle objects whose class they know only by name.
//
// Every concrete class X below the root repeats one pattern: the default constructor runs
// X::Initialize() (the defaults), the copy constructor copies the base part and then runs
// X::Copy(); New() and Clone() allocate an X (the caller owns the result); both Cast() forms are a
// run-time type check; Assign() and IsEqual() cast their argument to X and use operator= and
// operator==; Clear() releases what the object owns but keeps scalar values; GetClass() returns the
// registry's record for X (cached); Validate() appends the base class's notifications and then
// those of X.
#ifndef NORVANE_SRC_FWOBJECT_H_
#define NORVANE_SRC_FWOBJECT_H_

#include <list>
#include <string>

#include "FWException.h"

class FWClass;
class FWNotification;

class FWObject {
 public:
  FWObject() = default;
  // Copies the cached class, then runs Copy().
  FWObject(const FWObject& other);

  // A new default object of the same class; the caller owns it.
  virtual FWObject* New() const;
  // A new copy of this object; the caller owns it.
  virtual FWObject* Clone() const;
  virtual ~FWObject() = default;
  // Copies the state of `other` (an object of this class) into this one. Below the root it throws
  // FWEBadCast when `other` is of another class.
  virtual void Assign(const FWObject* other);
  // Compares with `other` (an object of this class). Below the root it throws FWEBadCast when
  // `other` is of another class.
  virtual bool IsEqual(const FWObject* other) const;
  // `object` as an object of this class, or null (also for a null `object`).
  virtual const FWObject* Cast(const FWObject* object) const;
  virtual FWObject* Cast(FWObject* object) const;
  // Releases what the object owns; scalar values stay as they are.
  virtual void Clear();
  // The registry's record of the object's class; the root's is null ("FWObject" is not
  // registered). Records belong to the registry.
  virtual const FWClass* GetClass() const;
  // Appends a notification for every rule that the object's state breaks. Never throws for a
  // broken rule.
  virtual void Validate(std::list<FWNotification>& notifications) const;

  FWObject& operator=(const FWObject& other);
  // The root has no state: any two roots are equal.
  bool operator==(const FWObject& other) const;
  void Copy(const FWObject& other);
  void Initialize();

  // The object that a path names, starting at this one, or null. A path is a '.'-separated list of
  // steps "Member" or "Member:index" through object-list members: "Ports:1" is the second port,
  // "" and "." are this object. The result is owned by the object tree it was found in.
  const FWObject* GetObjectBySpecifier(const std::string& path) const;

 protected:
  // The per-class GetClass(): the cached record, else the registry's record named `name`, cached.
  // Throws FWEAssertionFailed("Class") from `source`, `line` when the name is not registered.
  const FWClass* GetRegisteredClass(const char* name, const char* source, unsigned line) const;

  // `other` as an X, for Assign() and IsEqual(); throws FWEBadCast(class_name) when it is not one.
  template <typename X>
  static const X& CastOrThrow(const FWObject* other, const char* class_name) {
    const X* typed = dynamic_cast<const X*>(other);
    if (typed == nullptr) throw FWEBadCast(FW_HERE, std::string(class_name));
    return *typed;
  }

  // The record of the object's class, filled by the first GetClass(); belongs to the registry.
  mutable const FWClass* class_ = nullptr;
};

#endif  // NORVANE_SRC_FWOBJECT_H_
