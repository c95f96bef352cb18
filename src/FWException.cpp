#include "FWException.h"

#include "FWStringUtils.h"

std::string FWException::GetText() const { return notification_.GetText(); }

std::string FWException::GetFullText() const {
  return FWStringUtils::Printf("%s (%s: %d)", GetText().c_str(), source_.c_str(),
                               static_cast<int>(line_));
}

namespace {

// The message codes, consecutive from 10000 in the order of the builders below.
enum MessageCode : int32_t {
  kInternal = 10000,
  kCastFromNull,
  kBadCast,
  kBadMember,
  kIllegalOperationInState,
  kIllegalOperationInContext,
  kAccessAtEnd,
  kOperationNotAvailable,
  kCantPost,
  kXMLParserError,
  kCantControlService,
  kSocketError,
  kProtocolError,
  kCantOpen,
  kOperationFailed,
  kSizeExceeded,
  kAssertionFailed,
  kUnhandledException,
  kSystemException,
  kObjectRequired,
  kTooManyObjects,
  kValueRequired,
};

FWNotification Message(MessageCode code, std::string text) {
  return FWNotification(std::move(text), code, FWNotification::kMessage);
}

// Arguments are always passed as arguments, never used as formats, so a "%" prints as it is.
const char* C(const std::string& s) { return s.c_str(); }

}  // namespace

FWNotification FWMInternal() { return Message(kInternal, "internal consistency error"); }

FWNotification FWMCastFromNull() { return Message(kCastFromNull, "Illegal cast from null value"); }

FWNotification FWMBadCast(const std::string& type) {
  return Message(kBadCast, FWStringUtils::Printf("Cannot cast to %s", C(type)));
}

FWNotification FWMBadMember(const std::string& member, const std::string& class_name) {
  return Message(kBadMember,
                 FWStringUtils::Printf("%s is not a member of %s", C(member), C(class_name)));
}

FWNotification FWMIllegalOperationInState(const std::string& operation, int state) {
  return Message(
      kIllegalOperationInState,
      FWStringUtils::Printf("Operation %s not available while in state %d", C(operation), state));
}

FWNotification FWMIllegalOperationInContext(const std::string& operation) {
  return Message(kIllegalOperationInContext,
                 FWStringUtils::Printf("Context does not support %s", C(operation)));
}

FWNotification FWMAccessAtEnd(const std::string& operation) {
  return Message(kAccessAtEnd, FWStringUtils::Printf("%s after last record", C(operation)));
}

FWNotification FWMOperationNotAvailable(const std::string& operation) {
  return Message(kOperationNotAvailable,
                 FWStringUtils::Printf("Operation %s not available", C(operation)));
}

FWNotification FWMCantPost(const std::string& reason) {
  return Message(kCantPost, FWStringUtils::Printf("Cannot save invalid object (%s)", C(reason)));
}

FWNotification FWMXMLParserError(const std::string& detail) {
  return Message(kXMLParserError, FWStringUtils::Printf("XML parser error: %s", C(detail)));
}

FWNotification FWMCantControlService(const std::string& action, const std::string& reason) {
  return Message(kCantControlService,
                 FWStringUtils::Printf("Cannot %s service (%s)", C(action), C(reason)));
}

FWNotification FWMSocketError(const std::string& where, const std::string& reason) {
  return Message(kSocketError, FWStringUtils::Printf("(%s) %s", C(where), C(reason)));
}

FWNotification FWMProtocolError(const std::string& detail) {
  return Message(kProtocolError, FWStringUtils::Printf("protocol error: %s", C(detail)));
}

FWNotification FWMCantOpen(const std::string& file, const std::string& mode,
                           const std::string& reason) {
  return Message(kCantOpen, FWStringUtils::Printf("Cannot open file %s mode=%s (%s)", C(file),
                                                  C(mode), C(reason)));
}

FWNotification FWMOperationFailed(const std::string& operation, const std::string& reason) {
  return Message(kOperationFailed,
                 FWStringUtils::Printf("%s operation failed (%s)", C(operation), C(reason)));
}

FWNotification FWMSizeExceeded(const std::string& what) {
  return Message(kSizeExceeded, FWStringUtils::Printf("Size exceeded (%s)", C(what)));
}

FWNotification FWMAssertionFailed(const std::string& condition) {
  return Message(kAssertionFailed, FWStringUtils::Printf("Assertion Failed (%s)", C(condition)));
}

FWNotification FWMUnhandledException(const std::string& /*detail*/) {
  return Message(kUnhandledException, "Unhandled Exception");
}

FWNotification FWMSystemException(const std::string& what) {
  return Message(
      kSystemException,
      FWStringUtils::Printf("%s, please report this error to the software vendor", C(what)));
}

FWNotification FWMObjectRequired(const std::string& what) {
  return Message(kObjectRequired, FWStringUtils::Printf("%s required", C(what)));
}

FWNotification FWMTooManyObjects(const std::string& what) {
  return Message(kTooManyObjects, FWStringUtils::Printf("at most one %s allowed", C(what)));
}

FWNotification FWMValueRequired(const std::string& what) {
  return Message(kValueRequired, FWStringUtils::Printf("%s must not be empty", C(what)));
}
