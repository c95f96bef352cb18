#include "NorvaneWeb.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "FWErrorMessage.h"
#include "FWProduct.h"
#include "NorvaneWebAssets.h"

namespace {

// An open stream gets a comment line after this much silence: proxies keep it open, and a
// page that has gone is found at the next write.
constexpr auto kHeartbeat = std::chrono::seconds(5);
// The most one write to a stream carries (a page that connects gets its history in parts).
constexpr std::size_t kMaxBatchBytes = 256 * 1024;
// EventSource connects again after this many milliseconds when a stream breaks.
constexpr int kRetryMs = 2000;

constexpr const char* kTextType = "text/plain; charset=utf-8";
constexpr const char* kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "img-src 'self' data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

// Compares in a time that does not depend on where the texts differ.
bool SameSecret(const std::string& given, const std::string& secret) {
  unsigned char difference = given.size() == secret.size() ? 0 : 1;
  for (std::size_t i = 0; i < secret.size(); ++i) {
    difference |= static_cast<unsigned char>(secret[i] ^ (i < given.size() ? given[i] : 0));
  }
  return difference == 0;
}

// The host part of a Host header: "127.0.0.1:8080" -> 127.0.0.1, "[::1]:8080" -> ::1.
std::string HostOf(const std::string& header) {
  if (!header.empty() && header.front() == '[') return header.substr(1, header.find(']') - 1);
  return header.substr(0, header.find(':'));
}

// The length of the valid UTF-8 sequence at text[i], or 0.
std::size_t Utf8Length(const std::string& text, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[i + k]); };
  const unsigned char c = byte(0);
  std::size_t length = 0;
  unsigned char low = 0x80, high = 0xbf;  // the range of the second byte
  if (c >= 0xc2 && c <= 0xdf) {
    length = 2;
  } else if (c >= 0xe0 && c <= 0xef) {
    length = 3;
    if (c == 0xe0) low = 0xa0;   // overlong
    if (c == 0xed) high = 0x9f;  // surrogates
  } else if (c >= 0xf0 && c <= 0xf4) {
    length = 4;
    if (c == 0xf0) low = 0x90;   // overlong
    if (c == 0xf4) high = 0x8f;  // beyond U+10FFFF
  }
  if (length == 0 || i + length > text.size()) return 0;
  if (byte(1) < low || byte(1) > high) return 0;
  for (std::size_t k = 2; k < length; ++k) {
    if (byte(k) < 0x80 || byte(k) > 0xbf) return 0;
  }
  return length;
}

const char* StateName(NorvaneClient::Listener::State state) {
  switch (state) {
    case NorvaneClient::Listener::State::kFollowing:
      return "following";
    case NorvaneClient::Listener::State::kReconnecting:
      return "reconnecting";
    case NorvaneClient::Listener::State::kEnded:
      return "ended";
    case NorvaneClient::Listener::State::kNotice:
      break;
  }
  return "notice";
}

std::string Label(const NorvaneClient::Target& target) {
  const std::string label = NorvaneClient::Label(target);
  return label.substr(0, label.size() - 2);
}

}  // namespace

bool NorvaneWeb::ParseListen(const std::string& text, Settings* settings, std::string* error) {
  std::string host;
  std::string port;
  if (!text.empty() && text.front() == '[') {
    const std::size_t close = text.find("]:");
    if (close == std::string::npos) {
      *error = "bad listen address \"" + text + "\" (expected [IPV6]:PORT)";
      return false;
    }
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
  } else {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || text.find(':') != colon) {
      *error = "bad listen address \"" + text + "\" (expected HOST:PORT)";
      return false;
    }
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
  }
  int number = 0;
  if (port != "0" && !NorvaneClient::ParsePort(port, &number)) {
    *error = "bad port \"" + port + "\" in listen address (expected 0 to 65535)";
    return false;
  }
  settings->host = host.empty() ? kDefaultHost : host;
  settings->port = number;
  return true;
}

bool NorvaneWeb::IsLoopback(const std::string& host) {
  in_addr address{};
  if (host == "localhost" || host == "::1") return true;
  return ::inet_pton(AF_INET, host.c_str(), &address) == 1 && (ntohl(address.s_addr) >> 24) == 127;
}

std::string NorvaneWeb::TokenProblem(const std::string& token) {
  if (token.size() < 8 || token.size() > 256) return "a token has 8 to 256 characters";
  for (const char c : token) {
    if (std::isalnum(static_cast<unsigned char>(c)) == 0 && std::strchr("-._~", c) == nullptr) {
      return "a token holds only letters, digits and - . _ ~";
    }
  }
  return "";
}

std::string NorvaneWeb::NewToken() {
  unsigned char bytes[16];
  std::size_t got = 0;
  while (got < sizeof(bytes)) {
    const ssize_t count = ::getrandom(bytes + got, sizeof(bytes) - got, 0);
    if (count > 0) got += static_cast<std::size_t>(count);
  }
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string token;
  for (const unsigned char byte : bytes) {
    token += kDigits[byte >> 4];
    token += kDigits[byte & 0xf];
  }
  return token;
}

std::string NorvaneWeb::JsonString(const std::string& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out = "\"";
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(bytes[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7f) {
      out += "\\u00";
      out += kDigits[c >> 4];
      out += kDigits[c & 0xf];
    } else if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (const std::size_t length = Utf8Length(bytes, i); length > 0) {
      out.append(bytes, i, length);
      i += length - 1;
    } else {
      out += "\\ufffd";
    }
  }
  return out + "\"";
}

NorvaneWeb::NorvaneWeb(Settings settings, const std::vector<NorvaneClient::Target>& targets)
    : settings_(std::move(settings)),
      instance_(NewToken().substr(0, 8)),
      server_(std::make_unique<httplib::Server>()) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const NorvaneClient::Target& target : targets) {
    if (by_label_.count(Label(target)) == 0) {
      Introduce(Label(target), NorvaneClient::IsPattern(target.file));
    }
  }
  Route();
}

NorvaneWeb::~NorvaneWeb() { Stop(); }

bool NorvaneWeb::Listen(std::string* error) {
  errno = 0;
  port_ = settings_.port == 0 ? server_->bind_to_any_port(settings_.host)
          : server_->bind_to_port(settings_.host, settings_.port) ? settings_.port
                                                                  : -1;
  if (port_ < 0) {
    *error = errno != 0 ? GetErrorMessage(errno) : "the address cannot be used";
    return false;
  }
  cookie_ = "norvane_web_" + std::to_string(port_);
  return true;
}

std::string NorvaneWeb::Url() const {
  std::string host = settings_.host;
  if (host == "0.0.0.0" || host == "::") {
    char name[256] = {};
    host = ::gethostname(name, sizeof(name) - 1) == 0 ? name : "HOST";
  }
  if (host.find(':') != std::string::npos) host = "[" + host + "]";
  return "http://" + host + ":" + std::to_string(port_) + "/" +
         (settings_.token.empty() ? "" : "?token=" + settings_.token);
}

void NorvaneWeb::Start() {
  thread_ = std::thread([this] {
    server_->listen_after_bind();
    served_ = true;
  });
}

void NorvaneWeb::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  if (!thread_.joinable()) return;
  // A stop before the server runs would be lost; once it runs, one stop ends it.
  while (!served_ && !server_->is_running()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!served_) server_->stop();
  thread_.join();
}

void NorvaneWeb::Route() {
  // Each open stream holds a thread; a few more serve the page meanwhile.
  server_->new_task_queue = [] { return new httplib::ThreadPool(kMaxStreams + 8); };
  server_->set_keep_alive_timeout(2);
  server_->set_read_timeout(5);
  server_->set_write_timeout(5);
  server_->set_payload_max_length(64 * 1024);
  server_->set_default_headers({{"X-Content-Type-Options", "nosniff"},
                                {"Referrer-Policy", "no-referrer"},
                                {"Cache-Control", "no-store"},
                                {"X-Frame-Options", "DENY"},
                                {"Content-Security-Policy", kPolicy}});
  server_->set_pre_routing_handler(
      [this](const httplib::Request& request, httplib::Response& response) {
        return Refuse(request, response) ? httplib::Server::HandlerResponse::Handled
                                         : httplib::Server::HandlerResponse::Unhandled;
      });
  server_->Get("/", [this](const httplib::Request& request, httplib::Response& response) {
    // A page opened with the token keeps it in a cookie, so the address can drop it.
    if (!settings_.token.empty() && request.has_param("token")) {
      response.set_header("Set-Cookie",
                          cookie_ + "=" + settings_.token + "; Path=/; HttpOnly; SameSite=Strict");
    }
    response.set_content(std::string(norvane_web::kIndexHtml), "text/html; charset=utf-8");
  });
  server_->Get("/app.js", [](const httplib::Request&, httplib::Response& response) {
    response.set_content(std::string(norvane_web::kAppJs), "text/javascript; charset=utf-8");
  });
  server_->Get("/app.css", [](const httplib::Request&, httplib::Response& response) {
    response.set_content(std::string(norvane_web::kAppCss), "text/css; charset=utf-8");
  });
  server_->Get("/events", [this](const httplib::Request& request, httplib::Response& response) {
    ServeEvents(request, response);
  });
}

bool NorvaneWeb::Refuse(const httplib::Request& request, httplib::Response& response) const {
  if (settings_.token.empty()) {
    // Without a token only loopback can reach the server; a page of another site that has its
    // name point at 127.0.0.1 still sends its own name as Host.
    const std::string host = request.get_header_value("Host");
    if (host.empty() || IsLoopback(HostOf(host))) return false;
    response.status = 403;
    response.set_content(
        "norvane web: refused: open this view as http://127.0.0.1:PORT/ or "
        "http://localhost:PORT/, or give norvane web a --web-token\n",
        kTextType);
    return true;
  }
  std::string given = request.get_param_value("token");
  const std::string authorization = request.get_header_value("Authorization");
  if (given.empty() && authorization.rfind("Bearer ", 0) == 0) given = authorization.substr(7);
  const std::string cookies = request.get_header_value("Cookie");
  for (std::size_t start = 0; given.empty() && start < cookies.size();) {
    std::size_t end = cookies.find(';', start);
    if (end == std::string::npos) end = cookies.size();
    std::string pair = cookies.substr(start, end - start);
    pair.erase(0, pair.find_first_not_of(' '));
    if (pair.rfind(cookie_ + "=", 0) == 0) given = pair.substr(cookie_.size() + 1);
    start = end + 1;
  }
  if (SameSecret(given, settings_.token)) return false;
  response.status = 401;
  response.set_content(
      "norvane web: this view needs its token: open the address that norvane web printed at "
      "start (http://HOST:PORT/?token=...)\n",
      kTextType);
  return true;
}

void NorvaneWeb::ServeEvents(const httplib::Request& request, httplib::Response& response) {
  if (++streams_ > kMaxStreams) {
    --streams_;
    response.status = 503;
    response.set_content("norvane web: " + std::to_string(kMaxStreams) +
                             " views are open already; close one and reload\n",
                         kTextType);
    return;
  }
  auto cursor = std::make_shared<Cursor>();
  // EventSource names the last event it received when it connects again ("INSTANCE-SEQ"); a page
  // that makes a new connection names it as a parameter. Another run's id starts afresh.
  std::string last = request.get_header_value("Last-Event-ID");
  if (last.empty()) last = request.get_param_value("last");
  const std::string mine = instance_ + "-";
  if (last.rfind(mine, 0) == 0 && last.size() > mine.size() && last.size() <= mine.size() + 19 &&
      last.find_first_not_of("0123456789", mine.size()) == std::string::npos) {
    cursor->next = std::stoull(last.substr(mine.size())) + 1;
  }
  response.set_header("X-Accel-Buffering", "no");
  response.set_chunked_content_provider(
      "text/event-stream",
      [this, cursor](std::size_t, httplib::DataSink& sink) { return Pump(cursor.get(), sink); },
      [this](bool) { --streams_; });
}

bool NorvaneWeb::Pump(Cursor* cursor, httplib::DataSink& sink) {
  std::string chunk;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (cursor->greeted) {
      changed_.wait_for(lock, kHeartbeat, [&] { return stopping_ || next_seq_ > cursor->next; });
    }
    if (stopping_) return false;
    if (!cursor->greeted) {
      cursor->greeted = true;
      std::string sources;
      for (std::size_t i = 0; i < sources_.size(); ++i) {
        sources += (i == 0 ? "" : ",") + SourceJson(i);
      }
      chunk = "retry: " + std::to_string(kRetryMs) + "\nevent: hello\ndata: {\"instance\":\"" +
              instance_ + "\",\"version\":" + JsonString(FWProduct::GetVersion()) +
              ",\"maxLines\":" + std::to_string(kMaxLines) + ",\"sources\":[" + sources + "]}\n\n";
    }
    chunk += Batch(cursor);
  }
  if (chunk.empty()) chunk = ":\n\n";
  return sink.write(chunk.data(), chunk.size());
}

std::string NorvaneWeb::Batch(Cursor* cursor) {
  const std::uint64_t first = history_.empty() ? next_seq_ : history_.front().seq;
  std::string items;
  if (cursor->next < first) {
    // A page that was away longer than the history reaches is told what it missed.
    if (cursor->next != 0) items = "{\"skipped\":" + std::to_string(first - cursor->next) + "}";
    cursor->next = first;
  }
  for (std::size_t i = cursor->next - first; i < history_.size() && items.size() < kMaxBatchBytes;
       ++i) {
    items += (items.empty() ? "" : ",") + history_[i].json;
    cursor->next = history_[i].seq + 1;
  }
  if (items.empty()) return "";
  return "id: " + instance_ + "-" + std::to_string(cursor->next - 1) + "\nevent: feed\ndata: [" +
         items + "]\n\n";
}

void NorvaneWeb::OnData(const NorvaneClient::Target& source, const std::string& text, bool end) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t index = Find(source);
    std::string& partial = sources_[index].partial;
    partial += text;
    std::size_t start = 0;
    for (std::size_t stop; (stop = partial.find('\n', start)) != std::string::npos;
         start = stop + 1) {
      AddLine(index, partial.substr(start, stop - start));
    }
    partial.erase(0, start);
    // A line that does not end yet is shown in pieces once it is long.
    if (partial.size() > kMaxLineBytes || (end && !partial.empty())) {
      AddLine(index, partial);
      partial.clear();
    }
  }
  changed_.notify_all();
}

void NorvaneWeb::OnState(const NorvaneClient::Target& source, State state,
                         const std::string& text) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t index = Find(source);
    Source& entry = sources_[index];
    if (state == State::kNotice) {
      Push("{\"s\":" + std::to_string(index) + ",\"notice\":" + JsonString(text) + "}", false);
    } else if (entry.state != StateName(state) || entry.text != text) {
      entry.state = StateName(state);
      entry.text = text;
      Push(SourceJson(index), false);
    }
  }
  changed_.notify_all();
}

void NorvaneWeb::EndAll(const std::string& text) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (std::size_t index = 0; index < sources_.size(); ++index) {
      if (sources_[index].state == "ended") continue;
      sources_[index].state = "ended";
      sources_[index].text = text;
      Push(SourceJson(index), false);
    }
  }
  changed_.notify_all();
}

std::size_t NorvaneWeb::Find(const NorvaneClient::Target& target) {
  const std::string label = Label(target);
  const auto found = by_label_.find(label);
  return found != by_label_.end() ? found->second : Introduce(label, false);
}

std::size_t NorvaneWeb::Introduce(const std::string& label, bool pattern) {
  const std::size_t index = sources_.size();
  sources_.push_back(Source{label, pattern, pattern ? "listing" : "connecting", "", ""});
  by_label_.emplace(label, index);
  Push(SourceJson(index), false);
  return index;
}

std::string NorvaneWeb::SourceJson(std::size_t index) const {
  const Source& source = sources_[index];
  return "{\"s\":" + std::to_string(index) + ",\"label\":" + JsonString(source.label) +
         ",\"pattern\":" + (source.pattern ? "true" : "false") +
         ",\"state\":" + JsonString(source.state) + ",\"text\":" + JsonString(source.text) + "}";
}

void NorvaneWeb::AddLine(std::size_t index, const std::string& line) {
  std::size_t start = 0;
  do {
    std::size_t length = std::min(kMaxLineBytes, line.size() - start);
    // A piece ends before a UTF-8 sequence rather than within it.
    while (start + length < line.size() && length > kMaxLineBytes - 3 &&
           (static_cast<unsigned char>(line[start + length]) & 0xc0) == 0x80) {
      --length;
    }
    Push("{\"s\":" + std::to_string(index) +
             ",\"t\":" + JsonString(NorvaneClient::Escape(line.substr(start, length), false)) + "}",
         true);
    start += length;
  } while (start < line.size());
}

void NorvaneWeb::Push(std::string json, bool line) {
  history_bytes_ += json.size();
  history_lines_ += line ? 1 : 0;
  history_.push_back(Event{next_seq_++, std::move(json), line});
  while (history_lines_ > kMaxLines || history_bytes_ > kMaxHistoryBytes ||
         history_.size() > 2 * kMaxLines) {
    history_bytes_ -= history_.front().json.size();
    history_lines_ -= history_.front().line ? 1 : 0;
    history_.pop_front();
  }
}
