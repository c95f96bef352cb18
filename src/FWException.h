// The one family of failures: every exception records where it was raised and carries a
// notification made by one of the FWM message builders. The failures of system calls (sockets,
// files, directories) also carry the call's facts as data: errno, object and reason.
#ifndef NORVANE_SRC_FWEXCEPTION_H_
#define NORVANE_SRC_FWEXCEPTION_H_

#include <string>
#include <utility>

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
FW_DECLARE_EXCEPTION(ProtocolError);
FW_DECLARE_EXCEPTION(OperationFailed);
FW_DECLARE_EXCEPTION(SizeExceeded);
FW_DECLARE_EXCEPTION(AssertionFailed);
FW_DECLARE_EXCEPTION(UnhandledException);
FW_DECLARE_EXCEPTION(ObjectRequired);
FW_DECLARE_EXCEPTION(TooManyObjects);
FW_DECLARE_EXCEPTION(ValueRequired);

#undef FW_DECLARE_EXCEPTION

// The facts of a failed system call, kept beside an exception's message as data, so that callers
// branch on them and never on the message text.
class FWSystemFacts {
 public:
  FWSystemFacts(int error_number, std::string object, std::string reason)
      : error_number_(error_number), object_(std::move(object)), reason_(std::move(reason)) {}

  // The call's errno; 0 when the failure has none (a resolver miss, an unknown protocol, a
  // malformed address).
  int GetErrno() const { return error_number_; }
  // What the call was about: "address:port", a host, service or protocol name, or a path; "" when
  // the call had nothing but a descriptor that names no address.
  const std::string& GetObject() const { return object_; }
  // The system's text for the failure as the message carries it, without the message's frame:
  // "Address already in use" where the text reads "(bind) Address already in use".
  const std::string& GetReason() const { return reason_; }

 private:
  int error_number_;
  std::string object_;
  std::string reason_;
};

// A failure of the socket manager: "(where) reason", where is the call ("bind") or the item that
// was looked up, reason the system's or the resolver's text.
class FWESocketError final : public FWException, public FWSystemFacts {
 public:
  FWESocketError(std::string source, unsigned line, const std::string& where,
                 const std::string& reason, int error_number = 0, std::string object = "")
      : FWException(std::move(source), line, FWMSocketError(where, reason)),
        FWSystemFacts(error_number, std::move(object), reason) {}
};

// A file that cannot be opened: "Cannot open file <file> mode=<mode> (<reason>)"; the object is
// the file name.
class FWECantOpen final : public FWException, public FWSystemFacts {
 public:
  FWECantOpen(std::string source, unsigned line, const std::string& file, const std::string& mode,
              const std::string& reason, int error_number = 0)
      : FWException(std::move(source), line, FWMCantOpen(file, mode, reason)),
        FWSystemFacts(error_number, file, reason) {}
};

// A failure the system reports that the program has no remedy for: "<what>, please report this
// error to the software vendor"; the reason is `what`. A directory that cannot be opened raises
// it with the directory's path as the object.
class FWESystemException final : public FWException, public FWSystemFacts {
 public:
  FWESystemException(std::string source, unsigned line, const std::string& what,
                     int error_number = 0, std::string object = "")
      : FWException(std::move(source), line, FWMSystemException(what)),
        FWSystemFacts(error_number, std::move(object), what) {}
};

#endif  // NORVANE_SRC_FWEXCEPTION_H_
