// norvane: the command-line client of norvaned. Parses the arguments, finds the password, turns
// SIGINT and SIGTERM into a clean stop and runs NorvaneClient (for web with a NorvaneWeb gateway
// as its listener); its result is the exit code.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "FWErrorMessage.h"
#include "FWHeap.h"
#include "FWProduct.h"
#include "NorvaneClient.h"
#include "NorvaneWeb.h"

namespace {

constexpr const char* kHelp = R"(Usage: norvane list [OPTIONS] [HOST[:PORT]]...
       norvane tail [OPTIONS] [HOST:PORT/]FILE...
       norvane web [--listen ADDR:PORT] [OPTIONS] [HOST:PORT/]FILE...
       norvane --help | --version

Commands
  list    Print the files a daemon offers, one per line. With several daemons each name is
          written as HOST:PORT/NAME, ready to be given to tail.
  tail    Follow files and write what is appended to them to standard output, byte for byte
          (on a terminal control characters are shown escaped; see --raw), with each "\r\n"
          line end written as "\n". Only what is appended after the start is
          sent (see -n); the daemon sends new data as it is written. Runs until Ctrl-C or
          SIGTERM, or until a connection fails (see -F).
          With more than one FILE every line is prefixed with its source, "HOST:PORT/FILE: ",
          and lines of different sources never mix; the unfinished last line of a source is
          written (with a line end) when that source ends.
  web     Follow files as tail does (same targets, -n, -F) and show them live in a browser:
          serves one page on 127.0.0.1:8080 (see --listen), with each source in its own
          colour and state, a filter (text or regular expression, case, inverted) kept in the
          address, pause, and the last 20000 lines. Prints the address to open; runs until
          Ctrl-C or SIGTERM. When every feed has ended the page stays up to show why.
          From elsewhere: ssh -L 8080:127.0.0.1:8080 HOST, then open http://127.0.0.1:8080/

Targets
  FILE is a name as `norvane list` prints it (it may contain "/" for files in subdirectories)
  on the default daemon. HOST:PORT/FILE names the daemon as well; HOST or PORT may be left
  empty to take the default (web1:/access.log, :9081/app.log). A text before the first "/"
  counts as a daemon only when it holds a ":". Several daemons may be followed at once:
    norvane tail web1:9080/access.log web2:9080/access.log
  A FILE holding "*", "?" or "[" is a pattern: every name in the daemon's list that it matches
  is followed ("*" and "?" do not match "/"), each line prefixed with its source. With -F the
  daemon is asked again every 8 s and new matching files are announced and followed from their
  first line (up to 10000 lines back). Quote patterns for the shell:
    norvane tail 'web1:9080/*.log' ':9081/nginx/*'

Options
  -H, --host HOST        default daemon host (127.0.0.1); IPv4 addresses and host names
  -p, --port PORT        default daemon port (9080)
  -u, --user NAME        user to log in as (logwatcher)
      --password TEXT    password; visible to other users of the machine in the process list,
                         prefer NORVANE_PASSWORD
  -t, --timeout SECONDS  longest wait for a connection, for each reply and for the daemon to
                         close after "quit" (10). A tail that receives nothing is not timed out:
                         the daemon only sends when the file grows.
      --keepalive SECONDS
                         idle time after which TCP keepalive probes check that the daemon's
                         host still answers; after 3 unanswered probes 10 s apart the run ends
                         with exit code 6 (60; 0 turns the probes off). A daemon process that
                         hangs on a live host is not detected this way: the feed then stays
                         silent, as it does when the file does not grow.
  -n, --lines N          tail: first write the last N lines of each file (0 to 10000), then
                         follow; nothing is lost or written twice in between. Needs a daemon
                         with the backlog extension; an older one gets a warning and only new
                         lines are written
  -F, --retry            tail: when a connection is lost or the daemon stops answering (for
                         example while it restarts), say so on standard error and connect again
                         after 1 s, then 2, 4, ... up to 30 s between attempts; the feed resumes
                         at the next byte of the same file, so nothing is lost or repeated. A
                         file rotated, truncated or removed meanwhile is reported and followed
                         from its first byte
      --color[=WHEN]     colour each source's prefix: auto (the default: when standard output
                         is a terminal and NO_COLOR is not set), always (also --color alone)
                         or never
      --raw              write data as received; otherwise, when standard output is a
                         terminal, control characters other than tab and line ends are shown
                         as \xHH (a log line cannot retitle or garble the terminal)
      --crlf             keep the "\r\n" line ends as received
  -q, --quiet            do not report on standard error which file is being followed
      --listen ADDR:PORT web: where to serve the page (127.0.0.1:8080; [::1]:PORT for IPv6,
                         port 0 for any free one). An address other than loopback needs a
                         token: without --web-token one is generated and printed
      --web-token TOKEN  web: the token that every request must carry, as ?token=TOKEN in the
                         address opened (kept in a cookie then) or as "Authorization: Bearer";
                         8 to 256 letters, digits and - . _ ~. Prefer NORVANE_WEB_TOKEN
  -h, --help             show this help
      --version          show the version

Password
  From --password, else from the environment variable NORVANE_PASSWORD, else asked on the
  terminal without echo when standard input is a terminal. Otherwise norvane stops with exit
  code 2; it never guesses a password.

Stopping
  Ctrl-C (SIGINT) or SIGTERM sends "stop" and "quit" to every daemon, writes what arrived until
  each has closed the connection, and exits with 0. A second Ctrl-C ends at once. If one of
  several connections fails, the others are ended the same way and the failure decides the
  exit code; with -F a lost connection is no failure, it is made again.

Exit codes
  0  done: list printed, or tail stopped by Ctrl-C / SIGTERM or a closed standard output
  1  standard output could not be written
  2  usage error (unknown option, missing argument, no password)
  3  connection refused, lost (for example the daemon ended) or not made in time; host unknown
  4  login refused: unknown user or wrong password
  5  file not offered by the daemon ("-ERR invalid logfile name"), a name it cannot be asked,
     or a pattern that matches none of its files
  6  the daemon stopped answering: no reply within the time-out, or keepalive probes unanswered
  7  the daemon broke the protocol (unexpected reply or corrupt frame)
  8  web: the page's address cannot be listened on
)";

// The write end of the stop pipe, for the signal handler (the only state a handler may touch),
// and whether a stop was asked for.
volatile sig_atomic_t stop_write_fd = -1;
volatile sig_atomic_t stop_requested = 0;

void OnStopSignal(int /*sig*/) {
  const int saved = errno;
  stop_requested = 1;
  const char byte = 's';
  if (stop_write_fd >= 0) (void)!::write(stop_write_fd, &byte, 1);
  errno = saved;
}

struct Arguments {
  std::string command;
  std::string colour = "auto";
  bool raw = false;
  bool version = false;
  std::vector<std::string> targets;
  NorvaneClient::Target defaults{NorvaneClient::kDefaultHost, NorvaneClient::kDefaultPort, ""};
  NorvaneClient::Options options;
  bool password_given = false;
  bool help = false;
  NorvaneWeb::Settings web;
};

int Usage(const std::string& text) {
  std::fprintf(stderr, "norvane: %s\nTry 'norvane --help'.\n", text.c_str());
  return NorvaneClient::kExitUsage;
}

bool ParseSeconds(const std::string& text, int minimum, int* seconds) {
  if (text.empty() || text.size() > 6 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  *seconds = std::stoi(text);
  return *seconds >= minimum;
}

// Applies one option with its value; "" when it is fine, else the complaint.
std::string ApplyOption(const std::string& name, const std::string& value, Arguments* args) {
  if (name == "--host") {
    args->defaults.host = value;
    return value.empty() ? "empty host" : "";
  }
  if (name == "--port") {
    return NorvaneClient::ParsePort(value, &args->defaults.port) ? "" : "bad port: " + value;
  }
  if (name == "--user") {
    args->options.user = value;
    return "";
  }
  if (name == "--password") {
    args->options.password = value;
    args->password_given = true;
    return "";
  }
  if (name == "--color") {
    args->colour = value;
    return value == "auto" || value == "always" || value == "never"
               ? ""
               : "bad --color value: " + value + " (expected auto, always or never)";
  }
  if (name == "--lines") {
    return ParseSeconds(value, 0, &args->options.backlog_lines) &&
                   args->options.backlog_lines <= NorvaneClient::kMaxBacklogLines
               ? ""
               : "bad line count: " + value + " (expected 0 to " +
                     std::to_string(NorvaneClient::kMaxBacklogLines) + ")";
  }
  if (name == "--listen") {
    std::string error;
    return NorvaneWeb::ParseListen(value, &args->web, &error) ? "" : error;
  }
  if (name == "--web-token") {
    args->web.token = value;
    const std::string problem = NorvaneWeb::TokenProblem(value);
    return problem.empty() ? "" : "bad --web-token: " + problem;
  }
  if (name == "--timeout") {
    return ParseSeconds(value, 1, &args->options.timeout_seconds) ? "" : "bad time-out: " + value;
  }
  return ParseSeconds(value, 0, &args->options.keepalive_seconds) ? "" : "bad keepalive: " + value;
}

bool StartsWithDashes(const std::string& text) { return text.rfind("--", 0) == 0; }

std::string LongName(const std::string& option) {
  if (option == "-H") return "--host";
  if (option == "-p") return "--port";
  if (option == "-u") return "--user";
  if (option == "-t") return "--timeout";
  if (option == "-q") return "--quiet";
  if (option == "-n") return "--lines";
  if (option == "-F") return "--retry";
  if (option == "-h") return "--help";
  return option;
}

bool TakesValue(const std::string& name) {
  return name == "--host" || name == "--port" || name == "--user" || name == "--password" ||
         name == "--timeout" || name == "--keepalive" || name == "--lines" || name == "--color" ||
         name == "--listen" || name == "--web-token";
}

// Handles argv[*i] (an option); advances *i past a separate value. "" or the complaint.
std::string ParseOption(int argc, char** argv, int* i, Arguments* args) {
  std::string name = argv[*i];
  std::string value;
  const std::size_t equals = name.find('=');
  const bool inline_value = StartsWithDashes(name) && equals != std::string::npos;
  if (inline_value) {
    value = name.substr(equals + 1);
    name = name.substr(0, equals);
  }
  name = LongName(name);
  if (name == "--color" && !inline_value) return ApplyOption(name, "always", args);
  if (name == "--help" || name == "--crlf" || name == "--quiet" || name == "--retry" ||
      name == "--raw" || name == "--version") {
    if (inline_value) return "option " + name + " takes no value";
    args->help = args->help || name == "--help";
    args->version = args->version || name == "--version";
    args->raw = args->raw || name == "--raw";
    args->options.keep_crlf = args->options.keep_crlf || name == "--crlf";
    args->options.quiet = args->options.quiet || name == "--quiet";
    args->options.retry = args->options.retry || name == "--retry";
    return "";
  }
  if (!TakesValue(name)) return "unknown option " + name;
  if (!inline_value) {
    if (*i + 1 >= argc) return "option " + name + " needs a value";
    value = argv[++*i];
  }
  return ApplyOption(name, value, args);
}

// "" when the arguments are complete, else the complaint.
std::string ParseArguments(int argc, char** argv, Arguments* args) {
  bool options_ended = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (!options_ended && arg == "--") {
      options_ended = true;
    } else if (!options_ended && arg.size() > 1 && arg[0] == '-') {
      const std::string complaint = ParseOption(argc, argv, &i, args);
      if (!complaint.empty()) return complaint;
    } else if (args->command.empty()) {
      args->command = arg;
    } else {
      args->targets.push_back(arg);
    }
  }
  if (args->help || args->version) return "";
  if (args->command != "list" && args->command != "tail" && args->command != "web") {
    return args->command.empty() ? "no command given" : "unknown command " + args->command;
  }
  if (args->command != "list" && args->targets.empty()) {
    return args->command + " needs at least one FILE";
  }
  if (args->command == "web" && args->web.token.empty()) {
    if (const char* env = std::getenv("NORVANE_WEB_TOKEN"); env != nullptr && *env != '\0') {
      args->web.token = env;
      const std::string problem = NorvaneWeb::TokenProblem(env);
      if (!problem.empty()) return "bad NORVANE_WEB_TOKEN: " + problem;
    }
  }
  return "";
}

// "" when every target parses, else the complaint.
std::string ParseTargets(const Arguments& args, std::vector<NorvaneClient::Target>* targets) {
  const bool tail = args.command != "list";
  std::string error;
  for (const std::string& text : args.targets) {
    NorvaneClient::Target target;
    const bool ok = tail ? NorvaneClient::ParseTailTarget(text, args.defaults, &target, &error)
                         : NorvaneClient::ParseDaemon(text, args.defaults, &target, &error);
    if (!ok) return tail ? error : error + " in \"" + text + "\"";
    targets->push_back(target);
  }
  if (targets->empty()) targets->push_back(args.defaults);
  return "";
}

// Restores the terminal's settings when the prompt ends, however it ends.
class EchoOff final {
 public:
  explicit EchoOff(int fd) : fd_(fd) {
    active_ = ::tcgetattr(fd_, &saved_) == 0;
    if (!active_) return;
    termios quiet = saved_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    active_ = ::tcsetattr(fd_, TCSAFLUSH, &quiet) == 0;
  }
  ~EchoOff() {
    if (active_) (void)::tcsetattr(fd_, TCSAFLUSH, &saved_);
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;

 private:
  const int fd_;
  termios saved_{};
  bool active_ = false;
};

// Reads one line from the terminal on standard input without echo. False when the user
// interrupted (a stop signal arrived) or the input ended first.
bool AskPassword(const std::string& prompt, int stop_fd, std::string* password) {
  std::fprintf(stderr, "%s", prompt.c_str());
  std::fflush(stderr);
  EchoOff echo_off(STDIN_FILENO);
  bool complete = false;
  for (;;) {
    char c = 0;
    const ssize_t got = ::read(STDIN_FILENO, &c, 1);
    char signal_byte = 0;
    if (::read(stop_fd, &signal_byte, 1) == 1) break;
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    if (c == '\n') {
      complete = true;
      break;
    }
    *password += c;
  }
  std::fprintf(stderr, "\n");
  return complete;
}

// "" when the password is known, else the complaint; *interrupted is set when the user
// interrupted the prompt.
std::string FindPassword(const Arguments& args, int stop_fd, NorvaneClient::Options* options,
                         bool* interrupted) {
  if (args.password_given) return "";
  if (const char* env = std::getenv("NORVANE_PASSWORD"); env != nullptr) {
    options->password = env;
    return "";
  }
  if (!::isatty(STDIN_FILENO)) {
    return "no password: give --password, set NORVANE_PASSWORD, or run on a terminal to be "
           "asked";
  }
  if (!AskPassword("Password for " + options->user + ": ", stop_fd, &options->password)) {
    *interrupted = true;
  }
  return "";
}

// The stop pipe: both ends non-blocking and closed on exec. Returns false on failure.
bool InstallStopSignals(int fds[2]) {
  if (::pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0) return false;
  stop_write_fd = fds[1];
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no SA_RESTART: a blocking prompt read returns EINTR
  return ::sigaction(SIGINT, &action, nullptr) == 0 && ::sigaction(SIGTERM, &action, nullptr) == 0;
}

// norvane web: the gateway serves while the client runs with it as its listener. When every feed
// has ended without a stop request, the page stays up to show why until one comes.
int RunWeb(Arguments* args, const std::vector<NorvaneClient::Target>& targets, int stop_fd) {
  NorvaneWeb::Settings settings = args->web;
  const bool generated = settings.token.empty() && !NorvaneWeb::IsLoopback(settings.host);
  if (generated) settings.token = NorvaneWeb::NewToken();
  NorvaneWeb web(settings, targets);
  std::string error;
  if (!web.Listen(&error)) {
    std::fprintf(stderr, "norvane: cannot listen on %s:%d for the web view: %s\n",
                 settings.host.c_str(), settings.port, error.c_str());
    return NorvaneWeb::kExitListen;
  }
  web.Start();
  std::fprintf(stderr, "norvane: web view on %s (Ctrl-C stops%s)\n", web.Url().c_str(),
               generated ? "; a generated token, --web-token sets one" : "");
  NorvaneClient::Options options = args->options;
  options.listener = &web;
  options.keep_crlf = false;
  NorvaneClient client(NorvaneClient::Mode::kTail, targets, options, STDOUT_FILENO, STDERR_FILENO);
  const int code = client.Run(stop_fd);
  if (stop_requested == 0) {
    web.EndAll(code == NorvaneClient::kExitOk ? "stopped" : "stopped after another's failure");
    std::fprintf(stderr, "norvane: every feed has ended; the page stays up until Ctrl-C\n");
    pollfd entry{stop_fd, POLLIN, 0};
    while (stop_requested == 0) (void)::poll(&entry, 1, -1);
  }
  web.Stop();
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  // Writes to a closed pipe or socket give EPIPE instead of ending the process.
  ::signal(SIGPIPE, SIG_IGN);
  FWHeap::KeepLargeBlocks();
  Arguments args;
  const std::string complaint = ParseArguments(argc, argv, &args);
  if (!complaint.empty()) return Usage(complaint);
  if (args.help) {
    std::fputs(kHelp, stdout);
    return NorvaneClient::kExitOk;
  }
  if (args.version) {
    std::printf("norvane %s\n", FWProduct::GetVersion().c_str());
    return NorvaneClient::kExitOk;
  }
  const bool terminal = ::isatty(STDOUT_FILENO) == 1;
  const char* no_colour = std::getenv("NO_COLOR");
  const bool colour_wanted = no_colour == nullptr || *no_colour == '\0';
  args.options.escape = terminal && !args.raw;
  args.options.colour =
      args.colour == "always" || (args.colour == "auto" && terminal && colour_wanted);
  std::vector<NorvaneClient::Target> targets;
  const std::string target_complaint = ParseTargets(args, &targets);
  if (!target_complaint.empty()) return Usage(target_complaint);
  int stop_fds[2] = {-1, -1};
  if (!InstallStopSignals(stop_fds)) {
    std::fprintf(stderr, "norvane: stop signals: %s\n", GetErrorMessage(errno).c_str());
    return NorvaneClient::kExitUsage;
  }
  bool interrupted = false;
  const std::string password_complaint =
      FindPassword(args, stop_fds[0], &args.options, &interrupted);
  if (!password_complaint.empty()) return Usage(password_complaint);
  if (interrupted) return NorvaneClient::kExitOk;
  if (args.command == "web") return RunWeb(&args, targets, stop_fds[0]);
  const NorvaneClient::Mode mode =
      args.command == "list" ? NorvaneClient::Mode::kList : NorvaneClient::Mode::kTail;
  NorvaneClient client(mode, targets, args.options, STDOUT_FILENO, STDERR_FILENO);
  return client.Run(stop_fds[0]);
}
