#include "StartupLog.h"

#include <ctime>
#include <memory>
#include <string>

#include "FWFile.h"
#include "FWIniParser.h"
#include "FWLogStream.h"
#include "FWMIMEParser.h"
#include "FWProduct.h"
#include "FWStringUtils.h"
#include "MonitoringPort.h"
#include "SessionManager.h"

void LogStartupBanner() {
  const std::string rule(60, '-');
  LogStream.Log(rule);
  LogStream.Log(FWStringUtils::Printf("%s starting ...", FWProduct::GetDisplayName().c_str()));
  LogStream.Log(rule);
  const std::time_t built = FWProduct::GetBuildTime();
  std::tm fields{};
  char date[64] = "";
  if (localtime_r(&built, &fields) != nullptr) {
    std::strftime(date, sizeof(date), "%b %d, %Y", &fields);
  }
  LogStream.Log(std::string("Version Build Date: ") + date);
  LogStream.Log("Current Date: " + FWMIMEParser::MIMETime());
  LogStream.Log("OS version: " + FWProduct::GetOSVersion());
  LogStream.Log(
      FWStringUtils::Printf("Physical Memory: %dMB", static_cast<int>(FWProduct::GetMemoryMB())));
  LogStream.Log("Directory for temporary files: " + FWFileName::GetTmpDirectory());
}

void LogConfiguration(const SessionManager& manager) {
  SessionManager masked(manager);
  for (const std::unique_ptr<ProxyPort>& port : masked.GetPorts()) {
    auto* monitoring = dynamic_cast<MonitoringPort*>(port.get());
    if (monitoring != nullptr && !monitoring->GetPassword().empty()) {
      monitoring->SetPassword(FWString("********"));
    }
  }
  FWIniParser parser("1.0", false);
  std::string text;
  parser.GenerateFromObject(masked, text, false);
  LogStream.Log("Configuration:");
  LogStream.Log(text, "    ");
}
