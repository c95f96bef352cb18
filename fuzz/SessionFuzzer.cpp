// The daemon's side of the feed protocol: two monitoring sessions in the server role receive the
// fuzzer's bytes as their clients', through frame reassembly, deciphering, inflating and the
// command lines, and share the feeds of the files they follow as the daemon's sessions do. Raw
// bytes seldom form a valid frame, so the input is a sequence of chunks, each led by a tag byte
// whose bit 4 chooses the session and whose low three bits choose:
//   0  raw bytes, as read from the socket
//   1  a text framed by the feed codec (bit 7: "\r\n" appended; bit 6: repeated up to about
//      1 MiB, past the limits of a line and a message), handed over in two reads
//   2  a command from a list that logs in, lists, starts, backs up, resumes, stops and quits
//   3  a frame whose compressed message has one byte changed or is cut short
//   4  a frame with a header length of the input's choosing over enciphered bytes
//   5  a change to the followed files: append (bit 6: repeated up to about 1 MiB), truncate,
//      rotate
//   6  a pass of the daemon's loop: its clock moves on by up to 63 s; on a new second, or when
//      a session is behind, the sessions' periodic call (CheckActive: the login time-out, reading
//      on their own); the file events, and the polls of the shared feeds that are due
//   7  the replies sent to the client and decoded there
// The sessions have the daemon's login brake, with a clock that only the passes move, and its
// shared feeds (with inotify). Every reply must decode as a whole frame at the client. With
// SESSION_FUZZER_TRACE set in the environment the replies are printed, to see what an input (a
// seed, a crash) reaches. The session gets a socket accepted on a listening Unix socket of an
// abstract name (no network, no file) and a document root in a temporary directory with a few small
// log files, a link inside it and a link out of it.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "FWBlowfish.h"
#include "FWException.h"
#include "FWFeedCodec.h"
#include "FuzzInput.h"
#include "LogFeed.h"
#include "LoginGuard.h"
#include "MonitoringPort.h"
#include "MonitoringSession.h"

namespace {

// Not the built-in default, which admits loopback clients only: this client is a Unix socket.
constexpr const char* kPassword = "fuzz-secret";
const std::string kFirstLines = "first line\nsecond line\r\nthird";
const std::string kSubLines = "c1\nc2\n";
// Repeated texts stop growing here: past the 1 MiB message limit, and quick enough to compress.
constexpr std::size_t kRepeatLimit = (1u << 20) + 4096;
// ... and are cut after this many lines. The session answers every line it handles with a reply
// of its own, framed and compressed one by one (about 10 us each, several times that under the
// sanitizers), until 8 MiB of replies wait: a message of 100000 short lines takes it seconds,
// which would make the fuzzer report time-outs instead of looking further.
constexpr std::size_t kRepeatLines = 4000;

const bool kTrace = std::getenv("SESSION_FUZZER_TRACE") != nullptr;

// The first 200 bytes of text with control bytes escaped.
std::string Printable(const std::string& text) {
  std::string shown;
  for (std::size_t i = 0; i < text.size() && i < 200; ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c >= 0x20 && c < 0x7F) {
      shown += static_cast<char>(c);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\x%02X", c);
      shown += escaped;
    }
  }
  return shown;
}

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "SessionFuzzer: %s\n", what.c_str());
  std::abort();
}

void WriteFile(const std::string& path, const std::string& text, int flags) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
  if (fd < 0) Die("cannot open " + path);
  if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    Die("cannot write " + path);
  }
  ::close(fd);
}

class Fixture {
 public:
  Fixture() {
    // In memory where the machine has /dev/shm: the files change with many inputs.
    std::string base_template =
        std::string(::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/norvane-fuzz-XXXXXX";
    if (::mkdtemp(base_template.data()) == nullptr) Die("mkdtemp failed");
    base_ = base_template;
    root_ = base_ + "/root";
    std::filesystem::create_directories(root_ + "/sub");
    WriteFile(base_ + "/outside.log", "outside\n", O_TRUNC);
    WriteFile(root_ + "/b.log", "", O_TRUNC);
    WriteFile(root_ + "/notes.txt", "not a log\n", O_TRUNC);
    std::filesystem::create_symlink("../outside.log", root_ + "/escape.log");
    std::filesystem::create_symlink("a.log", root_ + "/inner.log");
    files_changed_ = true;
    ResetFiles();

    port_.SetDocumentRoot(FWString(root_));
    port_.SetPassword(FWString(kPassword));

    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listener_ < 0) Die("socket failed");
    address_.sun_family = AF_UNIX;
    // An abstract name: a leading zero byte, then the name (no file is made).
    const std::string name = "norvane-fuzz-" + std::to_string(::getpid());
    std::memcpy(address_.sun_path + 1, name.data(), name.size());
    address_length_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address_), address_length_) != 0 ||
        ::listen(listener_, 4) != 0) {
      Die("bind or listen failed");
    }

    commands_ = {"user logwatcher\r\n",
                 "pass fuzz-secret\r\n",
                 "pass wrong\r\n",
                 "USER logwatcher\r\n",
                 "user nobody\r\n",
                 "list\r\n",
                 "start a.log\r\n",
                 "start b.log\r\n",
                 "start sub/c.log\r\n",
                 "start inner.log\r\n",
                 "start escape.log\r\n",
                 "start ../outside.log\r\n",
                 "start missing.log\r\n",
                 "start\r\n",
                 "backlog 2 a.log\r\n",
                 "backlog 0 sub/c.log\r\n",
                 "backlog 99999999999999999999 a.log\r\n",
                 "backlog x a.log\r\n",
                 "resume 0 0 0 a.log\r\n",
                 "resume 1 2 3\r\n",
                 "stop\r\n",
                 "quit\r\n",
                 "bogus\r\n"};
  }
  ~Fixture() {
    ::close(listener_);
    std::error_code ignored;
    std::filesystem::remove_all(base_, ignored);
  }
  Fixture(const Fixture&) = delete;
  Fixture& operator=(const Fixture&) = delete;

  // Every input starts from the same files.
  void ResetFiles() {
    if (!files_changed_) return;
    files_changed_ = false;
    WriteFile(root_ + "/a.log", kFirstLines, O_TRUNC);
    WriteFile(root_ + "/sub/c.log", kSubLines, O_TRUNC);
    ::unlink((root_ + "/a.log.1").c_str());
  }

  // A client connected to the listener; the session accepts it.
  int Connect() const {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 ||
        ::connect(fd, reinterpret_cast<const sockaddr*>(&address_), address_length_) != 0) {
      Die("connect failed");
    }
    return fd;
  }

  // "resume DEV INO OFFSET a.log" for the current a.log, so that the session can continue it.
  std::string ResumeCommand(std::uint8_t offset) const {
    struct stat st;
    if (::stat((root_ + "/a.log").c_str(), &st) != 0) return "resume 0 0 0 a.log\r\n";
    return "resume " + std::to_string(st.st_dev) + " " + std::to_string(st.st_ino) + " " +
           std::to_string(offset) + " a.log\r\n";
  }

  void ChangeFiles(FuzzInput& in, bool repeat) {
    const std::string a = root_ + "/a.log";
    files_changed_ = true;
    switch (in.Byte() % 4) {
      case 0: {
        std::string text = in.ShortText();
        if (repeat && !text.empty()) {
          const std::size_t times = (std::size_t{in.Byte()} << 8 | in.Byte()) + 1;
          const std::string once = text;
          for (std::size_t i = 1; i < times && text.size() < kRepeatLimit; ++i) text += once;
        }
        WriteFile(a, text, O_APPEND);
        break;
      }
      case 1:
        WriteFile(root_ + "/sub/c.log", in.ShortText(), O_APPEND);
        break;
      case 2:
        WriteFile(a, in.ShortText(), O_TRUNC);
        break;
      default:
        ::rename(a.c_str(), (a + ".1").c_str());
        WriteFile(a, in.ShortText(), O_TRUNC);
        break;
    }
  }

  MonitoringPort& Port() { return port_; }
  int Listener() const { return listener_; }
  const std::vector<std::string>& Commands() const { return commands_; }

 private:
  std::string base_;
  std::string root_;
  MonitoringPort port_;
  int listener_ = -1;
  sockaddr_un address_{};
  socklen_t address_length_ = 0;
  std::vector<std::string> commands_;
  bool files_changed_ = false;
};

Fixture& TheFixture() {
  static Fixture fixture;
  return fixture;
}

// "\0\0\0\0", the length most significant byte first, then the body enciphered (padded).
std::string HandFrame(std::uint32_t length, std::string body) {
  static const Blowfish cipher(FWFeedCodec::kFeedKey);
  cipher.Encrypt(body);
  std::string frame(4, '\0');
  for (int shift = 24; shift >= 0; shift -= 8) frame.push_back(static_cast<char>(length >> shift));
  return frame + body;
}

// The client's end: what the session sends arrives here and must be whole frames.
class Client {
 public:
  explicit Client(int fd) : fd_(fd) {}
  ~Client() { ::close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Moves the session's unsent replies through the socket and decodes them. Bounded: every
  // round either empties the session's buffer or moves bytes.
  void Drain(MonitoringSession& session) {
    for (int round = 0; round < 100000; ++round) {
      const int sent = session.SendIncoming();
      const std::size_t got = Receive();
      if (session.GetIncomingBuffer().empty() || (sent == 0 && got == 0)) break;
    }
    Receive();
    std::string message;
    for (;;) {
      const FWFeedCodec::Result result = codec_.Next(&message);
      if (result == FWFeedCodec::Result::kNeedMore) break;
      if (result != FWFeedCodec::Result::kMessage) Die("a reply is not a valid frame");
      if (kTrace) std::fprintf(stderr, "reply: %s\n", Printable(message).c_str());
      if (++messages_ == 1 && message.find("Monitoring Service Ready.\r\n") == std::string::npos) {
        Die("the first reply is not the greeting: " + message);
      }
    }
    // Replies leave the session whole, so an open session that has sent everything has sent
    // no partial frame.
    if (session.IsOpen() && session.GetIncomingBuffer().empty() && codec_.GetBufferedSize() != 0) {
      Die("a partial frame after all replies were sent");
    }
  }

 private:
  std::size_t Receive() {
    std::size_t total = 0;
    char buffer[65536];
    for (;;) {
      const ssize_t got = ::recv(fd_, buffer, sizeof(buffer), MSG_DONTWAIT);
      if (got <= 0) break;
      codec_.Append(std::string_view(buffer, static_cast<std::size_t>(got)));
      total += static_cast<std::size_t>(got);
    }
    return total;
  }

  const int fd_;
  FWFeedCodec codec_{FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit};
  int messages_ = 0;
};

// Cuts text after its count-th "\r\n", if it has that many.
void CutAfterLines(std::string& text, std::size_t count) {
  std::size_t pos = 0;
  for (std::size_t i = 0; i < count; ++i) {
    pos = text.find("\r\n", pos);
    if (pos == std::string::npos) return;
    pos += 2;
  }
  text.resize(pos);
}

// One client's connection: its end of the socket and the session that accepted it.
struct Connection {
  Connection(Fixture& fixture, int number)
      : client(fixture.Connect()), session(number, &fixture.Port()) {
    session.Open(fixture.Listener());
    if (!session.IsOpen()) Die("the session did not accept the client");
  }

  Client client;
  MonitoringSession session;
};

// A pass of the daemon's loop (SessionManager::Select) without the sockets, which the other
// chunks stand for: the sessions, then the shared feeds.
void RunPass(FuzzInput& in, LoginGuard& guard, LogFeeds& feeds, Connection* const* connections) {
  const std::time_t step = in.Byte() % 64;
  guard.SetNow(guard.Now() + step);
  const bool new_second = step != 0;
  for (int i = 0; i < 2; ++i) {
    MonitoringSession& session = connections[i]->session;
    try {
      if (session.IsOpen() && (new_second || session.IsBehind())) session.CheckActive();
    } catch (const FWException&) {
      session.Close();
    }
  }
  pollfd events{feeds.GetEventDescriptor(), POLLIN, 0};
  if (events.fd > 0 && ::poll(&events, 1, 0) == 1) feeds.ReadEvents();
  try {
    feeds.PollDue(new_second);
  } catch (const FWException&) {
    // The loop logs it and goes on.
  }
}

void RunChunk(std::uint8_t tag, FuzzInput& in, Fixture& fixture, LoginGuard& guard, LogFeeds& feeds,
              Connection* const* connections, const FWFeedCodec& codec) {
  MonitoringSession& session = connections[(tag >> 4) & 1]->session;
  Client& client = connections[(tag >> 4) & 1]->client;
  switch (tag % 8) {
    case 0:
      session.QueueOutgoing(in.ShortText());
      break;
    case 1: {
      std::string text = in.ShortText();
      if ((tag & 0x80) != 0) text += "\r\n";
      if ((tag & 0x40) != 0 && !text.empty()) {
        const std::size_t times = (std::size_t{in.Byte()} << 8 | in.Byte()) + 1;
        const std::string once = text;
        for (std::size_t i = 1; i < times && text.size() < kRepeatLimit; ++i) text += once;
        CutAfterLines(text, kRepeatLines);
      }
      const std::string frame = codec.Frame(text);
      const std::size_t split = in.Byte() % (frame.size() + 1);
      session.QueueOutgoing(frame.substr(0, split));
      session.QueueOutgoing(frame.substr(split));
      break;
    }
    case 2: {
      const std::vector<std::string>& commands = fixture.Commands();
      const std::uint8_t choice = in.Byte();
      const std::string command =
          choice < commands.size() ? commands[choice] : fixture.ResumeCommand(choice);
      session.QueueOutgoing(codec.Frame(command));
      break;
    }
    case 3: {
      std::string compressed = in.ShortText();
      FWFeedCodec::Deflate(compressed);
      const std::uint8_t where = in.Byte();
      const std::uint8_t flip = in.Byte();
      if (!compressed.empty()) {
        if ((tag & 0x80) != 0) {
          compressed.resize(where % compressed.size());
        } else {
          compressed[where % compressed.size()] ^= static_cast<char>(flip);
        }
      }
      session.QueueOutgoing(HandFrame(static_cast<std::uint32_t>(compressed.size()), compressed));
      break;
    }
    case 4: {
      const std::uint32_t length = in.Word();
      session.QueueOutgoing(HandFrame(length, in.ShortText()));
      break;
    }
    case 5:
      fixture.ChangeFiles(in, (tag & 0x40) != 0);
      break;
    case 6:
      RunPass(in, guard, feeds, connections);
      break;
    default:
      client.Drain(session);
      session.CheckFinished();
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fixture& fixture = TheFixture();
  fixture.ResetFiles();
  // The brake and the feeds outlive the sessions, as the session manager's do.
  LoginGuard guard;
  guard.SetNow(1000000000);
  LogFeeds feeds;
  fixture.Port().SetLoginGuard(&guard);
  fixture.Port().SetLogFeeds(&feeds);
  {
    Connection first(fixture, 1);
    Connection second(fixture, 2);
    Connection* const connections[2] = {&first, &second};
    // The clients' own codec makes their frames, as a real client's would.
    const FWFeedCodec codec(FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit);
    FuzzInput in(data, size);
    while (!in.Empty() && (first.session.IsOpen() || second.session.IsOpen())) {
      const std::uint8_t tag = in.Byte();
      try {
        RunChunk(tag, in, fixture, guard, feeds, connections, codec);
      } catch (const FWException&) {
        // As the daemon's loop does with a zlib failure: that session ends.
        connections[(tag >> 4) & 1]->session.Close();
      }
    }
    for (Connection* connection : connections) {
      connection->client.Drain(connection->session);
      connection->session.Close();
    }
  }
  if (feeds.size() != 0) Die("a shared feed outlived its sessions");
  fixture.Port().SetLogFeeds(nullptr);
  fixture.Port().SetLoginGuard(nullptr);
  return 0;
}
