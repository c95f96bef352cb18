#include "FWType.h"

#include "FWApplication.h"

void FWVariableAsString(bool value, std::string& text) {
  text = FWApplication::GetInstance().Bool2Str(value);
}

void FWVariableAsString(int value, std::string& text) {
  text = FWApplication::GetInstance().Int2Str(value);
}

void FWVariableAsString(double value, std::string& text) {
  text = FWApplication::GetInstance().Double2Str(value);
}

void FWVariableAsString(long value, std::string& text) {
  const FWApplication& application = FWApplication::GetInstance();
  text = application.Time2Str(static_cast<std::time_t>(value), application.GetTimeFormat(), false);
}

void FWVariableFromString(bool& value, const std::string& text) {
  value = FWApplication::GetInstance().Str2Bool(text);
}

void FWVariableFromString(int& value, const std::string& text) {
  value = FWApplication::GetInstance().Str2Int(text);
}

void FWVariableFromString(double& value, const std::string& text) {
  value = FWApplication::GetInstance().Str2Double(text);
}

void FWVariableFromString(long& value, const std::string& text) {
  const FWApplication& application = FWApplication::GetInstance();
  value = static_cast<long>(application.Str2Time(text, application.GetDateOrder(), false));
}
