#include "FWProduct.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "FWDescriptor.h"
#include "FWErrorMessage.h"
#include "FWException.h"
#include "FWSocket.h"
#include "FWStringUtils.h"

#ifndef NORVANE_VERSION
#error "NORVANE_VERSION must name the build's version"
#endif
#ifndef NORVANE_UPDATE_URL
#define NORVANE_UPDATE_URL ""
#endif

namespace {

constexpr const char* kProductName = "Norvane";
// The system files read here are small; a bigger one is not what we expect.
constexpr std::size_t kSystemFileLimit = 1000000;
// An answer carrying a version is a few lines; reading stops here.
constexpr std::size_t kResponseLimit = 65536;
// Longer version texts are not versions; each number has at most 9 digits.
constexpr std::size_t kVersionLimit = 64;
constexpr std::size_t kVersionNumberDigits = 9;

using Clock = std::chrono::steady_clock;

// Reads a whole file; false when it cannot be read.
bool LoadText(const std::string& path, std::string& text) {
  try {
    FWStringUtils::LoadFromFile(text, path, kSystemFileLimit);
  } catch (const FWException&) {
    return false;  // an unreadable file means the value is unknown, which callers report as such
  }
  return true;
}

// Splits "1.20.3" into its numbers; false unless the text is dotted numbers of bounded size.
bool ParseVersion(const std::string& text, std::vector<long>& numbers) {
  numbers.clear();
  if (text.empty() || text.size() > kVersionLimit) return false;
  std::size_t start = 0;
  while (true) {
    const std::size_t dot = text.find('.', start);
    const std::string part = text.substr(start, dot == std::string::npos ? dot : dot - start);
    if (part.empty() || part.size() > kVersionNumberDigits) return false;
    if (part.find_first_not_of("0123456789") != std::string::npos) return false;
    numbers.push_back(std::stol(part));
    if (dot == std::string::npos) return true;
    start = dot + 1;
  }
}

// The parts of an "http://host[:port][/path]" URL.
struct HttpUrl {
  std::string host;
  std::string port = "80";
  std::string path = "/";
};

bool IsValidPort(const std::string& port) {
  if (port.empty() || port.size() > 5) return false;
  if (port.find_first_not_of("0123456789") != std::string::npos) return false;
  const long number = std::stol(port);
  return number >= 1 && number <= 65535;
}

bool ParseUrl(const std::string& url, HttpUrl& parts) {
  const std::string scheme = "http://";
  if (url.compare(0, scheme.size(), scheme) != 0) return false;
  const std::size_t host_start = scheme.size();
  const std::size_t slash = url.find('/', host_start);
  const std::string authority = url.substr(host_start, slash - host_start);
  if (slash != std::string::npos) parts.path = url.substr(slash);
  const std::size_t colon = authority.find(':');
  parts.host = authority.substr(0, colon);
  if (colon != std::string::npos) parts.port = authority.substr(colon + 1);
  const bool host_ok =
      !parts.host.empty() && parts.host.find_first_not_of(
                                 "abcdefghijklmnopqrstuvwxyz"
                                 "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-") == std::string::npos;
  const bool path_ok = parts.path.find_first_of(" \t\r\n") == std::string::npos;
  return host_ok && path_ok && IsValidPort(parts.port);
}

// Waits until the socket is ready for events or the deadline passes; false on time-out.
bool WaitReady(int fd, short events, Clock::time_point deadline) {
  while (true) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    pollfd entry{fd, events, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(left.count()));
    if (ready > 0) return true;
    // A poll failure other than an interruption shows up again in the call that follows.
    if (ready < 0 && errno != EINTR) return true;
  }
}

// "HTTP/<version> 200" with or without a reason phrase.
bool IsOkStatus(const std::string& status) {
  const std::size_t space = status.find(' ');
  if (status.compare(0, 5, "HTTP/") != 0 || space == std::string::npos) return false;
  if (status.compare(space + 1, 3, "200") != 0 || status.size() < space + 4) return false;
  return status.size() == space + 4 || status[space + 4] == ' ';
}

// The exchange itself; every failure leaves a reason in failure_ and returns false.
class UpdateCheck {
 public:
  UpdateCheck(HttpUrl url, std::chrono::milliseconds timeout)
      : url_(std::move(url)), timeout_(timeout) {}

  // The newest version named by the server, or false.
  bool FetchNewestVersion(std::string& version);
  const std::string& GetFailure() const { return failure_; }

 private:
  bool Fail(const std::string& reason) {
    failure_ = reason;
    return false;
  }
  std::string Peer() const { return url_.host + ":" + url_.port; }
  bool Resolve(sockaddr_in& address);
  bool ConnectWithin(int fd, const sockaddr_in& address);
  bool SendRequest(int fd, Clock::time_point deadline);
  bool ReadResponse(int fd, Clock::time_point deadline, std::string& response);
  bool ParseResponse(const std::string& response, std::string& version);

  const HttpUrl url_;
  const std::chrono::milliseconds timeout_;
  std::string failure_;
};

bool UpdateCheck::FetchNewestVersion(std::string& version) {
  sockaddr_in address;
  if (!Resolve(address)) return false;
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) {
    const int error = errno;
    return Fail("(socket) " + GetErrorMessage(error));
  }
  const FWDescriptor check_socket(fd);
  if (!ConnectWithin(fd, address)) return false;
  const Clock::time_point deadline = Clock::now() + timeout_;
  std::string response;
  if (!SendRequest(fd, deadline) || !ReadResponse(fd, deadline, response)) return false;
  return ParseResponse(response, version);
}

// getaddrinfo rather than the socket manager's resolver calls: this runs on the worker thread,
// and those library calls are not reentrant.
bool UpdateCheck::Resolve(sockaddr_in& address) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int result = ::getaddrinfo(url_.host.c_str(), url_.port.c_str(), &hints, &found);
  if (result != 0 || found == nullptr) {
    return Fail("cannot resolve " + url_.host + ": " + gai_strerror(result));
  }
  std::memcpy(&address, found->ai_addr, sizeof(address));
  ::freeaddrinfo(found);
  return true;
}

bool UpdateCheck::ConnectWithin(int fd, const sockaddr_in& address) {
  const FWSocketManager& sockets = FWSocketManager::GetInstance();
  sockets.SetBlocking(fd, false);
  try {
    sockets.Connect(fd, address);
  } catch (const FWESocketError& e) {
    return Fail("cannot connect to " + Peer() + ": " + e.GetText());
  }
  if (!WaitReady(fd, POLLOUT, Clock::now() + timeout_)) {
    return Fail("no connection to " + Peer() + " within " + std::to_string(timeout_.count()) +
                " ms");
  }
  int error = 0;
  socklen_t length = sizeof(error);
  if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
  if (error != 0)
    return Fail("cannot connect to " + Peer() + ": (connect) " + GetErrorMessage(error));
  return true;
}

bool UpdateCheck::SendRequest(int fd, Clock::time_point deadline) {
  std::string host = url_.host;
  if (url_.port != "80") host += ":" + url_.port;
  std::string request = "GET " + url_.path + " HTTP/1.0\r\nHost: " + host +
                        "\r\nUser-Agent: " + kProductName + "/" + FWProduct::GetVersion() +
                        "\r\n\r\n";
  const FWSocketManager& sockets = FWSocketManager::GetInstance();
  while (!request.empty()) {
    if (!WaitReady(fd, POLLOUT, deadline)) {
      return Fail("cannot send the request to " + Peer() + " within " +
                  std::to_string(timeout_.count()) + " ms");
    }
    bool try_again = false;
    try {
      sockets.Send(fd, request, try_again);
    } catch (const FWESocketError& e) {
      return Fail("cannot send the request to " + Peer() + ": " + e.GetText());
    }
  }
  return true;
}

bool UpdateCheck::ReadResponse(int fd, Clock::time_point deadline, std::string& response) {
  const FWSocketManager& sockets = FWSocketManager::GetInstance();
  while (response.size() < kResponseLimit) {
    if (!WaitReady(fd, POLLIN, deadline)) {
      return Fail("no answer from " + Peer() + " within " + std::to_string(timeout_.count()) +
                  " ms");
    }
    bool try_again = false;
    int received = 0;
    try {
      received = sockets.Recv(fd, response, try_again);
    } catch (const FWESocketError& e) {
      return Fail("cannot read the answer of " + Peer() + ": " + e.GetText());
    }
    if (received == 0 && !try_again) break;  // HTTP/1.0: the server closes after the answer
  }
  return true;
}

bool UpdateCheck::ParseResponse(const std::string& response, std::string& version) {
  const std::string status = FWStringUtils::Trim(response.substr(0, response.find('\n')));
  if (status.empty()) return Fail("empty answer from " + Peer());
  if (!IsOkStatus(status)) return Fail("server answered '" + status.substr(0, 80) + "'");
  std::size_t body = response.find("\r\n\r\n");
  if (body != std::string::npos) body += 4;
  const std::size_t unix_body = response.find("\n\n");
  if (unix_body != std::string::npos && (body == std::string::npos || unix_body + 2 < body)) {
    body = unix_body + 2;
  }
  if (body == std::string::npos) return Fail("answer without a blank line after the header");
  version = FWStringUtils::Trim(response.substr(body, response.find('\n', body) - body));
  if (version.empty()) return Fail("answer without a version");
  std::vector<long> numbers;
  if (!ParseVersion(version, numbers)) {
    return Fail("bad version text '" + version.substr(0, 40) + "'");
  }
  return true;
}

}  // namespace

std::string FWProduct::GetName() { return kProductName; }

std::string FWProduct::GetDisplayName() { return GetName() + " " + GetVersion(); }

std::string FWProduct::GetVersion() { return NORVANE_VERSION; }

std::string FWProduct::GetBuildDate() { return __DATE__ " " __TIME__; }

std::time_t FWProduct::GetBuildTime() {
  // The compiler writes the month in English whatever the locale, so it is matched here rather
  // than with strptime.
  static constexpr const char* kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
  const std::string date = __DATE__;
  std::tm fields{};
  const char* month = std::strstr(kMonths, date.substr(0, 3).c_str());
  if (date.size() < 11 || month == nullptr || (month - kMonths) % 3 != 0) return -1;
  fields.tm_mon = static_cast<int>((month - kMonths) / 3);
  if (FWStringUtils::Scanf(date.substr(4), "%d %d", &fields.tm_mday, &fields.tm_year) != 2 ||
      FWStringUtils::Scanf(__TIME__, "%d:%d:%d", &fields.tm_hour, &fields.tm_min, &fields.tm_sec) !=
          3) {
    return -1;
  }
  fields.tm_year -= 1900;
  fields.tm_isdst = -1;
  return std::mktime(&fields);
}

std::string FWProduct::GetOSVersion(const std::string& path) {
  std::string text;
  if (!LoadText(path, text)) return "";
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

long long FWProduct::GetMemoryMB(const std::string& path) {
  std::string text;
  if (!LoadText(path, text)) return 0;
  std::vector<std::string> lines;
  FWStringUtils::Str2Lines(text, lines);
  for (const std::string& line : lines) {
    long long kilobytes = 0;
    if (FWStringUtils::Scanf(line, "MemTotal: %lld", &kilobytes) == 1) return kilobytes / 1024;
  }
  return 0;
}

std::string FWProduct::GetUpdateURL() { return NORVANE_UPDATE_URL; }

bool FWProduct::IsNewerVersion(const std::string& newest, const std::string& running) {
  std::vector<long> newest_numbers;
  std::vector<long> running_numbers;
  if (!ParseVersion(newest, newest_numbers) || !ParseVersion(running, running_numbers)) {
    return false;
  }
  const std::size_t count = std::max(newest_numbers.size(), running_numbers.size());
  newest_numbers.resize(count, 0);
  running_numbers.resize(count, 0);
  return newest_numbers > running_numbers;
}

bool FWProduct::CheckForUpdate(const std::string& url, std::chrono::milliseconds timeout) {
  update_message_.clear();
  update_failure_.clear();
  if (url.empty()) return false;
  HttpUrl parts;
  if (!ParseUrl(url, parts)) {
    update_failure_ = "bad update URL '" + url + "'";
    return false;
  }
  UpdateCheck check(parts, timeout);
  std::string newest;
  if (!check.FetchNewestVersion(newest)) {
    update_failure_ = check.GetFailure();
    return false;
  }
  if (!IsNewerVersion(newest, GetVersion())) return false;
  update_message_ = FWStringUtils::Printf("Version %s is available (running %s)", newest.c_str(),
                                          GetVersion().c_str());
  return true;
}
