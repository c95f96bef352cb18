// The process-wide registry of the configurable classes and enumerations, and the application's
// string utility object (the value types read and write their text forms through it). The
// registry names no class of the service itself: the service hands it a class factory first.
#ifndef NORVANE_SRC_FWAPPLICATION_H_
#define NORVANE_SRC_FWAPPLICATION_H_

#include <string>
#include <vector>

#include "FWStringUtils.h"

class FWClass;
class FWEnum;
class FWObject;

// Built on first use of GetInstance() and destroyed at process exit; read-only after Init(). The
// first use must happen before a second thread can use it (there is no lock).
class FWApplication final : public FWStringUtils {
 public:
  // What a service supplies to the registry: the records of its classes and the construction of
  // their objects. Plain functions, so that setting one needs no constructor at start-up.
  struct ClassFactory {
    // Appends the service's class records, in any order, to the registry's list, which owns them
    // from then on and sorts them. A fill that finds the list filled throws and appends nothing.
    void (*fill)(std::vector<const FWClass*>& classes) = nullptr;
    // A new default object of the class with that number (FWClass::GetNumber); the caller owns
    // it. Throws for a number it cannot construct.
    FWObject* (*construct)(int number) = nullptr;
  };

  // Sets the factory the registry is built with. It must be set before the registry's first use
  // (GetInstance, and so any class lookup or text conversion of a value); once the registry
  // exists its records never change, and this throws FWEInternal. Without a factory the registry
  // holds no class.
  static void SetClassFactory(const ClassFactory& factory);
  // The factory set; both functions are null when none was.
  static const ClassFactory& GetClassFactory() { return factory_; }

  static FWApplication& GetInstance();

  FWApplication(const FWApplication&) = delete;
  FWApplication& operator=(const FWApplication&) = delete;
  // Deletes every class and enumeration record.
  ~FWApplication();

  // Fills the class list through the factory's fill and sorts it by name; without a factory the
  // list stays empty. Runs once, from the constructor: on a filled registry the fill throws (the
  // service's fill throws FWEInternal, "classes/FWClassFactory", 115).
  void Init();

  // The record of exactly that name (case matters), or null. Records belong to the registry.
  const FWClass* GetClass(const std::string& name) const;
  // All class records, sorted by name.
  const std::vector<const FWClass*>& GetClasses() const { return classes_; }
  // The enumeration of exactly that name, or null; the service registers none.
  const FWEnum* GetEnum(const std::string& name) const;

 private:
  FWApplication();

  static ClassFactory factory_;
  // Set by the constructor: the factory can no longer change.
  static bool built_;

  // Owned, sorted by name.
  std::vector<const FWClass*> classes_;
  // Owned, sorted by name.
  std::vector<const FWEnum*> enums_;
};

#endif  // NORVANE_SRC_FWAPPLICATION_H_
