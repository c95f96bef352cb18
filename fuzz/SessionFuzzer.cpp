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
// shared feeds (with inotify). Every reply must decode as a whole frame at the client, the first
// being the greeting. Each session gets a socket accepted on a listening Unix socket of an
// abstract name (no network, no file) and a document root in a temporary directory with a few
// small log files, a link inside it and a link out of it.
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
#include <sstream>
#include <string>

#include "FWBlowfish.h"
#include "FWClassFactory.h"
#include "FWException.h"
#include "FWFeedCodec.h"
#include "FuzzInput.h"
#include "LogFeed.h"
#include "LoginGuard.h"
#include "MonitoringPort.h"
#include "MonitoringSession.h"
#include "SessionContext.h"

namespace {

// Repeated texts stop growing here: past the 1 MiB message limit, and quick enough to compress.
constexpr std::size_t kRepeatLimit = (1u << 20) + 4096;
// ... and a framed one is cut after this many lines: every line is answered by a reply framed
// and compressed of its own, and 100000 short lines would take seconds (a time-out to the fuzzer).
constexpr std::size_t kRepeatLines = 4000;
// What chunk 2 picks from, "|" between them. The password is not the built-in default, which
// admits loopback clients only.
constexpr const char* kCommands =
    "user logwatcher|pass fuzz-secret|pass wrong|USER logwatcher|user nobody|list|start a.log|"
    "start b.log|start sub/c.log|start inner.log|start escape.log|start ../outside.log|"
    "start missing.log|start|backlog 2 a.log|backlog 0 sub/c.log|"
    "backlog 99999999999999999999 a.log|backlog x a.log|resume 0 0 0 a.log|resume 1 2 3|stop|quit|"
    "bogus";

[[noreturn]] void Die(const std::string& what) {
  std::fprintf(stderr, "SessionFuzzer: %s\n", what.c_str());
  std::abort();
}

void WriteFile(const std::string& path, const std::string& text, int flags) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
  if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    Die("cannot write " + path);
  }
  ::close(fd);
}

// A non-empty text repeated as often as two input bytes say, up to kRepeatLimit, then cut after
// its lines-th "\r\n" if it has that many.
void Repeat(FuzzInput& in, std::string& text, std::size_t lines = SIZE_MAX) {
  if (text.empty()) return;
  const std::size_t times = (std::size_t{in.Byte()} << 8 | in.Byte()) + 1;
  const std::string once = text;
  for (std::size_t i = 1; i < times && text.size() < kRepeatLimit; ++i) text += once;
  std::size_t pos = 0;
  for (std::size_t i = 0; i < lines && pos != std::string::npos; ++i) {
    pos = text.find("\r\n", pos);
    if (pos != std::string::npos) pos += 2;
  }
  if (pos != std::string::npos) text.resize(pos);
}

// The document root and the listener, made once for all inputs.
struct Fixture {
  Fixture() {
    // In memory where the machine has /dev/shm: the files change with many inputs.
    base =
        std::string(::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/norvane-fuzz-XXXXXX";
    if (::mkdtemp(base.data()) == nullptr) Die("mkdtemp failed");
    root = base + "/root";
    std::filesystem::create_directories(root + "/sub");
    WriteFile(base + "/outside.log", "outside\n", O_TRUNC);
    WriteFile(root + "/b.log", "", O_TRUNC);
    WriteFile(root + "/notes.txt", "not a log\n", O_TRUNC);
    std::filesystem::create_symlink("../outside.log", root + "/escape.log");
    std::filesystem::create_symlink("a.log", root + "/inner.log");
    ResetFiles();
    port.SetDocumentRoot(FWString(root));
    port.SetPassword(FWString("fuzz-secret"));
    listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    address.sun_family = AF_UNIX;
    // An abstract name: a leading zero byte, then the name.
    const std::string name = "norvane-fuzz-" + std::to_string(::getpid());
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (listener < 0 ||
        ::bind(listener, reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
        ::listen(listener, 4) != 0) {
      Die("cannot listen");
    }
  }
  ~Fixture() {
    ::close(listener);
    std::error_code ignored;
    std::filesystem::remove_all(base, ignored);
  }

  // Every input starts from the same files.
  void ResetFiles() {
    if (!files_changed) return;
    files_changed = false;
    WriteFile(root + "/a.log", "first line\nsecond line\r\nthird", O_TRUNC);
    WriteFile(root + "/sub/c.log", "c1\nc2\n", O_TRUNC);
    ::unlink((root + "/a.log.1").c_str());
  }

  // "resume DEV INO OFFSET a.log" for the current a.log, so that the session can continue it.
  std::string ResumeCommand(std::uint8_t offset) const {
    struct stat st;
    if (::stat((root + "/a.log").c_str(), &st) != 0) return "resume 0 0 0 a.log\r\n";
    return "resume " + std::to_string(st.st_dev) + " " + std::to_string(st.st_ino) + " " +
           std::to_string(offset) + " a.log\r\n";
  }

  // Appends to a.log (repeat: repeated) or sub/c.log, truncates a.log, or rotates it.
  void ChangeFiles(FuzzInput& in, bool repeat) {
    const std::string a = root + "/a.log";
    files_changed = true;
    const int kind = in.Byte() % 4;
    if (kind == 3) ::rename(a.c_str(), (a + ".1").c_str());
    std::string text = in.ShortText();
    if (kind == 0 && repeat) Repeat(in, text);
    WriteFile(kind == 1 ? root + "/sub/c.log" : a, text, kind < 2 ? O_APPEND : O_TRUNC);
  }

  std::string base;
  std::string root;
  MonitoringPort port;
  int listener = -1;
  sockaddr_un address{};
  socklen_t length = 0;
  bool files_changed = true;
};

// "\0\0\0\0", the length most significant byte first, then the body enciphered (padded).
std::string HandFrame(std::uint32_t length, std::string body) {
  static const Blowfish cipher(FWFeedCodec::kFeedKey);
  cipher.Encrypt(body);
  std::string frame(4, '\0');
  for (int shift = 24; shift >= 0; shift -= 8) frame.push_back(static_cast<char>(length >> shift));
  return frame + body;
}

// One client's connection: its end of the socket, with the client's reader, and the session
// that accepted it.
struct Connection {
  Connection(Fixture& fixture, int number, const SessionContext& context)
      : session(number, &fixture.port, context) {
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 ||
        ::connect(fd, reinterpret_cast<const sockaddr*>(&fixture.address), fixture.length) != 0) {
      Die("connect failed");
    }
    session.Open(fixture.listener);
    if (!session.IsOpen()) Die("the session did not accept the client");
  }
  ~Connection() { ::close(fd); }

  std::size_t Receive() {
    std::size_t total = 0;
    char buffer[65536];
    for (ssize_t got; (got = ::recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0;) {
      codec.Append(std::string_view(buffer, static_cast<std::size_t>(got)));
      total += static_cast<std::size_t>(got);
    }
    return total;
  }

  // Moves the session's unsent replies through the socket and decodes them. Bounded: every
  // round either empties the session's buffer or moves bytes.
  void Drain() {
    for (int round = 0; round < 100000; ++round) {
      const int sent = session.SendIncoming();
      const std::size_t got = Receive();
      if (session.GetIncomingBuffer().empty() || (sent == 0 && got == 0)) break;
    }
    Receive();
    std::string message;
    for (FWFeedCodec::Result result;
         (result = codec.Next(&message)) != FWFeedCodec::Result::kNeedMore;) {
      if (result != FWFeedCodec::Result::kMessage) Die("a reply is not a valid frame");
      if (++messages == 1 && message.find("Monitoring Service Ready.\r\n") == std::string::npos) {
        Die("the first reply is not the greeting: " + message);
      }
    }
    // Replies leave the session whole: an open session that has sent everything has sent no
    // partial frame.
    if (session.IsOpen() && session.GetIncomingBuffer().empty() && codec.GetBufferedSize() != 0) {
      Die("a partial frame after all replies were sent");
    }
  }

  int fd = -1;
  MonitoringSession session;
  FWFeedCodec codec{FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit};
  int messages = 0;
};

// A pass of the daemon's loop (ServiceLoop::Pass) without the sockets, which the other
// chunks stand for: the sessions, then the shared feeds.
void RunPass(FuzzInput& in, LoginGuard& guard, LogFeeds& feeds, Connection* const* connections) {
  const std::time_t step = in.Byte() % 64;
  guard.SetNow(guard.Now() + step);
  for (int i = 0; i < 2; ++i) {
    MonitoringSession& session = connections[i]->session;
    try {
      if (session.IsOpen() && (step != 0 || session.IsBehind())) session.CheckActive();
    } catch (const FWException&) {
      session.Close();
    }
  }
  pollfd events{feeds.GetEventDescriptor(), POLLIN, 0};
  if (events.fd > 0 && ::poll(&events, 1, 0) == 1) feeds.ReadEvents();
  try {
    feeds.PollDue(step != 0);
  } catch (const FWException&) {
    // The loop logs it and goes on.
  }
}

}  // namespace

// libFuzzer calls it once, before the first input: the registry learns the service classes.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  RegisterServiceClasses();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Fixture fixture;
  fixture.ResetFiles();
  // The brake and the feeds outlive the sessions, as the session manager's do.
  LoginGuard guard;
  guard.SetNow(1000000000);
  LogFeeds feeds;
  const SessionContext context{&guard, &feeds};
  {
    Connection first(fixture, 1, context);
    Connection second(fixture, 2, context);
    Connection* const connections[2] = {&first, &second};
    // The clients' own codec makes their frames, as a real client's would.
    const FWFeedCodec codec(FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit);
    FuzzInput in(data, size);
    while (!in.Empty() && (first.session.IsOpen() || second.session.IsOpen())) {
      const std::uint8_t tag = in.Byte();
      Connection& connection = *connections[(tag >> 4) & 1];
      MonitoringSession& session = connection.session;
      try {
        switch (tag % 8) {
          case 0:
            session.QueueOutgoing(in.ShortText());
            break;
          case 1: {
            std::string text = in.ShortText();
            if ((tag & 0x80) != 0) text += "\r\n";
            if ((tag & 0x40) != 0) Repeat(in, text, kRepeatLines);
            const std::string frame = codec.Frame(text);
            const std::size_t split = in.Byte() % (frame.size() + 1);
            session.QueueOutgoing(frame.substr(0, split));
            session.QueueOutgoing(frame.substr(split));
            break;
          }
          case 2: {  // past the end of kCommands: a resume of a.log
            const std::uint8_t choice = in.Byte();
            std::istringstream list(kCommands);
            std::string command;
            for (int i = 0; i <= choice && std::getline(list, command, '|'); ++i) {
            }
            session.QueueOutgoing(
                codec.Frame(list.fail() ? fixture.ResumeCommand(choice) : command + "\r\n"));
            break;
          }
          case 3: {
            std::string compressed = in.ShortText();
            FWFeedCodec::Deflate(compressed);
            const std::uint8_t where = in.Byte();
            const std::uint8_t flip = in.Byte();
            if (!compressed.empty() && (tag & 0x80) != 0) {
              compressed.resize(where % compressed.size());
            } else if (!compressed.empty()) {
              compressed[where % compressed.size()] ^= static_cast<char>(flip);
            }
            session.QueueOutgoing(
                HandFrame(static_cast<std::uint32_t>(compressed.size()), compressed));
            break;
          }
          case 4: {
            std::uint32_t length = 0;  // big-endian, from four bytes
            for (int i = 0; i < 4; ++i) length = length << 8 | in.Byte();
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
            connection.Drain();
            session.CheckFinished();
            break;
        }
      } catch (const FWException&) {
        // As the daemon's loop does with a zlib failure: that session ends.
        session.Close();
      }
    }
    for (Connection* connection : connections) {
      connection->Drain();
      connection->session.Close();
    }
  }
  if (feeds.size() != 0) Die("a shared feed outlived its sessions");
  return 0;
}
