// The one family of failures: every exception records where it was raised and carries a
// notification made by one of the FWM message builders.
#ifndef NORVANE_SRC_FWEXCEPTION_H_
#define NORVANE_SRC_FWEXCEPTION_H_

#include <string>

#include "FWPublishSubscribe.h"

// The raising code's own location, for the constructors below: throw FWEInternal(FW_HERE).
#define FW_HERE __FILE_NAME__, __LINE__

class FWException {
 public:
  FWException(std::string source, unsigned line, FWNotification notification)
      : source_(std::move(source)), line_(line), notification_(std::move(notification)) {}

  // The message with its first letter upper-cased.
  std::string GetText() const;
  // GetText() followed by " (source: line)".
  std::string GetFullText() const;

  const std::string& GetSource() const { return source_; }
  unsigned GetLine() const { return line_; }
  const FWNotification& GetNotification() const { return notification_; }

 private:
  std::string source_;
  unsigned line_;
  FWNotification notification_;
};

// Message builders: each formats its fixed text with its arguments, with its own code (10000 up,
// in this order) and severity 3.
FWNotification FWMInternal();
FWNotification FWMCastFromNull();
FWNotification FWMBadCast(const std::string& type);
FWNotification FWMBadMember(const std::string& member, const std::string& class_name);
FWNotification FWMIllegalOperationInState(const std::string& operation, int state);
FWNotification FWMIllegalOperationInContext(const std::string& operation);
FWNotification FWMAccessAtEnd(const std::string& operation);
FWNotification FWMOperationNotAvailable(const std::string& operation);
FWNotification FWMCantPost(const std::string& reason);
FWNotification FWMXMLParserError(const std::string& detail);
FWNotification FWMCantControlService(const std::string& action, const std::string& reason);
FWNotification FWMSocketError(const std::string& where, const std::string& reason);
FWNotification FWMProtocolError(const std::string& detail);
FWNotification FWMCantOpen(const std::string& file, const std::string& mode,
                           const std::string& reason);
FWNotification FWMOperationFailed(const std::string& operation, const std::string& reason);
FWNotification FWMSizeExceeded(const std::string& what);
FWNotification FWMAssertionFailed(const std::string& condition);
// The detail is accepted and not shown.
FWNotification FWMUnhandledException(const std::string& detail);
FWNotification FWMSystemException(const std::string& what);
FWNotification FWMObjectRequired(const std::string& what);
FWNotification FWMTooManyObjects(const std::string& what);
FWNotification FWMValueRequired(const std::string& what);

// Each exception class takes the raising location and its builder's arguments.
#define FW_DECLARE_EXCEPTION(Name)                                    \
  class FWE##Name : public FWException {                              \
   public:                                                            \
    template <typename... Args>                                       \
    FWE##Name(std::string source, unsigned line, const Args&... args) \
        : FWException(std::move(source), line, FWM##Name(args...)) {} \
  }

FW_DECLARE_EXCEPTION(Internal);
FW_DECLARE_EXCEPTION(CastFromNull);
FW_DECLARE_EXCEPTION(BadCast);
FW_DECLARE_EXCEPTION(BadMember);
FW_DECLARE_EXCEPTION(IllegalOperationInState);
FW_DECLARE_EXCEPTION(IllegalOperationInContext);
FW_DECLARE_EXCEPTION(AccessAtEnd);
FW_DECLARE_EXCEPTION(OperationNotAvailable);
FW_DECLARE_EXCEPTION(CantPost);
FW_DECLARE_EXCEPTION(XMLParserError);
FW_DECLARE_EXCEPTION(CantControlService);
FW_DECLARE_EXCEPTION(SocketError);
FW_DECLARE_EXCEPTION(ProtocolError);
FW_DECLARE_EXCEPTION(CantOpen);
FW_DECLARE_EXCEPTION(OperationFailed);
FW_DECLARE_EXCEPTION(SizeExceeded);
FW_DECLARE_EXCEPTION(AssertionFailed);
FW_DECLARE_EXCEPTION(UnhandledException);
FW_DECLARE_EXCEPTION(SystemException);
FW_DECLARE_EXCEPTION(ObjectRequired);
FW_DECLARE_EXCEPTION(TooManyObjects);
FW_DECLARE_EXCEPTION(ValueRequired);

#undef FW_DECLARE_EXCEPTION

#endif  // NORVANE_SRC_FWEXCEPTION_H_
