// norvane web: shows the files that a tail run follows, live, in a browser. The gateway is the
// run's listener: on the run's thread it splits the data into lines and keeps the recent ones, and
// the threads of an HTTP server (cpp-httplib) serve one page and, to every open page, a stream of
// Server-Sent Events read from that history. A page that cannot keep up only falls behind in the
// history (and is told how much it missed); it never holds up the run or the other pages.
#ifndef NORVANE_TOOLS_NORVANEWEB_H_
#define NORVANE_TOOLS_NORVANEWEB_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "NorvaneClient.h"

namespace httplib {
class DataSink;
class Request;
class Response;
class Server;
}  // namespace httplib

class NorvaneWeb final : public NorvaneClient::Listener {
 public:
  // The exit code of norvane web when its address cannot be listened on.
  static constexpr int kExitListen = 8;
  static constexpr const char* kDefaultHost = "127.0.0.1";
  static constexpr int kDefaultPort = 8080;
  // The lines the gateway keeps for a page that opens, and that a page shows at most.
  static constexpr std::size_t kMaxLines = 20000;
  static constexpr std::size_t kMaxHistoryBytes = 8 << 20;
  // A longer line is shown in pieces of at most this many bytes.
  static constexpr std::size_t kMaxLineBytes = 16384;
  // Event streams open at once; the next is refused with 503 until one closes.
  static constexpr int kMaxStreams = 32;

  struct Settings {
    std::string host = kDefaultHost;
    int port = kDefaultPort;  // 0: any free port
    // Checked on every request when not empty.
    std::string token;
  };

  // "HOST:PORT", "[IPV6]:PORT" or ":PORT" (the default host); PORT 0 takes any free port. False
  // with *error set on a bad address.
  static bool ParseListen(const std::string& text, Settings* settings, std::string* error);
  // localhost, 127.0.0.0/8 and ::1.
  static bool IsLoopback(const std::string& host);
  // Why a token given by the user cannot be used, or "".
  static std::string TokenProblem(const std::string& token);
  // 32 hexadecimal digits from the system's random source.
  static std::string NewToken();
  // bytes as a JSON string literal; a byte that is not part of valid UTF-8 becomes U+FFFD.
  static std::string JsonString(const std::string& bytes);

  NorvaneWeb(Settings settings, const std::vector<NorvaneClient::Target>& targets);
  ~NorvaneWeb() override;
  NorvaneWeb(const NorvaneWeb&) = delete;
  NorvaneWeb& operator=(const NorvaneWeb&) = delete;

  // Binds the address; false with *error set.
  bool Listen(std::string* error);
  // The address to open in a browser, with the token; valid after Listen.
  std::string Url() const;
  // Serves on threads of its own until Stop or the destructor.
  void Start();
  // Ends every stream and the server; waits for its threads.
  void Stop();

  // The run is over: every source that has not ended yet ends with text.
  void EndAll(const std::string& text);

  void OnData(const NorvaneClient::Target& source, const std::string& text, bool end) override;
  void OnState(const NorvaneClient::Target& source, State state, const std::string& text) override;

 private:
  struct Source {
    std::string label;
    bool pattern = false;
    std::string state;
    std::string text;
    std::string partial;
  };
  struct Event {
    std::uint64_t seq;
    std::string json;  // one item of a "feed" event
    bool line;
  };
  // Where one stream stands in the history.
  struct Cursor {
    std::uint64_t next = 0;
    bool greeted = false;
  };

  void Route();
  // Answers the request itself (true) when it lacks the token or comes through a foreign host.
  bool Refuse(const httplib::Request& request, httplib::Response& response) const;
  void ServeEvents(const httplib::Request& request, httplib::Response& response);
  // Writes the next part of a stream; false ends it.
  bool Pump(Cursor* cursor, httplib::DataSink& sink);
  // The following need mutex_.
  std::size_t Find(const NorvaneClient::Target& target);
  std::size_t Introduce(const std::string& label, bool pattern);
  std::string SourceJson(std::size_t index) const;
  void AddLine(std::size_t index, const std::string& line);
  void Push(std::string json, bool line);
  std::string Batch(Cursor* cursor);

  const Settings settings_;
  // Names this run in event ids, so that a page reconnecting to another run starts afresh.
  const std::string instance_;
  std::string cookie_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;
  std::atomic<int> streams_{0};
  std::atomic<bool> served_{false};

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ = false;
  std::vector<Source> sources_;
  std::map<std::string, std::size_t> by_label_;
  std::deque<Event> history_;
  std::uint64_t next_seq_ = 1;
  std::size_t history_bytes_ = 0;
  std::size_t history_lines_ = 0;
};

#endif  // NORVANE_TOOLS_NORVANEWEB_H_
