// The process-wide registry of the configurable classes and enumerations, and the application's
// string utility object (the value types read and write their text forms through it).
#ifndef NORVANE_SRC_FWAPPLICATION_H_
#define NORVANE_SRC_FWAPPLICATION_H_

#include <string>
#include <vector>

#include "FWStringUtils.h"

class FWClass;
class FWEnum;

// Built on first use of GetInstance() and destroyed at process exit; read-only after Init(). The
// first use must happen before a second thread can use it (there is no lock).
class FWApplication final : public FWStringUtils {
 public:
  static FWApplication& GetInstance();

  FWApplication(const FWApplication&) = delete;
  FWApplication& operator=(const FWApplication&) = delete;
  // Deletes every class and enumeration record.
  ~FWApplication();

  // The class factory: registers MonitoringPort, ProxyPort and SessionManager with their members.
  // Runs once, from the constructor; on a filled registry it throws FWEInternal
  // ("classes/FWClassFactory", 115). Defined with the service classes.
  void Init();

  // The record of exactly that name (case matters), or null. Records belong to the registry.
  const FWClass* GetClass(const std::string& name) const;
  // All class records, sorted by name.
  const std::vector<const FWClass*>& GetClasses() const { return classes_; }
  // The enumeration of exactly that name, or null; the service registers none.
  const FWEnum* GetEnum(const std::string& name) const;

 private:
  FWApplication();

  // Owned, sorted by name.
  std::vector<const FWClass*> classes_;
  // Owned, sorted by name.
  std::vector<const FWEnum*> enums_;
};

#endif  // NORVANE_SRC_FWAPPLICATION_H_
