// norvaned: hands this host's log files to remote monitoring clients.
//
// Started through a path that holds a "/", the daemon moves into the directory of its executable
// and keeps its files there, all named after the product: "Norvane.pid", "Norvane.log" and
// "Norvane.cf". Before it detaches it opens its log, reads and checks its configuration and binds
// every port, so that only a daemon that will serve detaches: any failure is printed on standard
// error and logged, with what to do about it, and the process exits with status 1. It then
// serves until SIGINT or SIGTERM (also one received during start-up) and exits with status 0.
#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "FWClassFactory.h"
#include "FWErrorMessage.h"
#include "FWException.h"
#include "FWHeap.h"
#include "FWIniParser.h"
#include "FWLogStream.h"
#include "FWProduct.h"
#include "FWPublishSubscribe.h"
#include "FWStringUtils.h"
#include "MonitoringPort.h"
#include "ProxyPort.h"
#include "SessionManager.h"

// The number of the signal that ends the loop; 0 while the loop goes on. Written only by
// signal_handler, and never reset: a signal received during start-up ends the daemon too.
volatile std::sig_atomic_t loop_terminated = 0;

namespace {

constexpr int kExitServed = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
// Log lines start with a stamp of this width ("Nov 23, 2026, 11:30:00 ").
constexpr std::size_t kStampWidth = 23;

constexpr const char* kHelp = R"(Usage: norvaned [OPTIONS]

Serves this host's log files to norvane clients. Started through a path (/opt/norvane/norvaned,
./norvaned) it works in the directory of its executable and keeps Norvane.cf (configuration),
Norvane.log (its own log) and Norvane.pid there. It reads and checks the configuration, opens
its log and every port, and only then detaches and serves until SIGTERM or SIGINT.

Options
  -c, --config FILE  read FILE instead of Norvane.cf
  -t, --check        check the configuration, print the result and exit; starts nothing
  -f, --foreground   do not detach, and write the log to standard error as well (for systemd
                     Type=simple, containers and trying things out)
      --version      print the version and exit
  -h, --help         show this help and exit

Exit status
  0  stopped by SIGTERM or SIGINT, or --check found the configuration good
  1  the configuration, the log or a port cannot be used (the reason is on standard error and
     in the log), or the service failed while running
  2  unknown option or argument
)";

struct Options {
  // The configuration file as given with -c; empty for the product's own name.
  std::string config;
  bool check = false;
  bool foreground = false;
};

// Stores the signal and does nothing else: no logging, locking or I/O in a handler.
void signal_handler(int signal_number) { loop_terminated = signal_number; }

// SIGINT and SIGTERM end the loop. SIGPIPE is ignored: a peer that reset its connection must
// never end the process (sends also pass MSG_NOSIGNAL).
void InstallSignals() {
  signal(SIGINT, signal_handler);
  signal(SIGTERM, signal_handler);
  signal(SIGPIPE, SIG_IGN);
}

// -1 to go on, or the exit code of a run that ends here (help, version, usage error).
int ParseOptions(int argc, char* argv[], Options* options) {
  enum { kVersion = 1000 };
  static const option kLongOptions[] = {
      {"config", required_argument, nullptr, 'c'}, {"check", no_argument, nullptr, 't'},
      {"foreground", no_argument, nullptr, 'f'},   {"version", no_argument, nullptr, kVersion},
      {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0}};
  opterr = 0;
  for (int option; (option = getopt_long(argc, argv, ":c:tfh", kLongOptions, nullptr)) != -1;) {
    switch (option) {
      case 'c':
        options->config = optarg;
        break;
      case 't':
        options->check = true;
        break;
      case 'f':
        options->foreground = true;
        break;
      case kVersion:
        std::printf("norvaned %s (built %s)\n", FWProduct::GetVersion().c_str(),
                    FWProduct::GetBuildDate().c_str());
        return kExitServed;
      case 'h':
        std::fputs(kHelp, stdout);
        return kExitServed;
      case ':':
        std::fprintf(stderr, "norvaned: %s needs an argument (norvaned --help lists the options)\n",
                     argv[optind - 1]);
        return kExitUsage;
      default:
        std::fprintf(stderr, "norvaned: unknown option %s (norvaned --help lists the options)\n",
                     argv[optind - 1]);
        return kExitUsage;
    }
  }
  if (optind < argc) {
    std::fprintf(stderr,
                 "norvaned: unexpected argument \"%s\" (norvaned --help lists the options)\n",
                 argv[optind]);
    return kExitUsage;
  }
  return -1;
}

std::string CurrentDirectory() {
  std::vector<char> buffer(4096);
  if (::getcwd(buffer.data(), buffer.size()) == nullptr) return ".";
  return buffer.data();
}

std::string Absolute(const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  return CurrentDirectory() + "/" + path;
}

// Started through a path with a "/" (absolute or relative): work in the executable's directory.
// Started by bare name through the search path: keep the inherited directory. The result says
// whether the daemon works in its own directory (and so keeps a pid file there).
bool SettleWorkingDirectory(const std::string& program_path) {
  const std::size_t slash = program_path.rfind('/');
  if (slash == std::string::npos) return false;
  const std::string directory = program_path.substr(0, slash + 1);
  if (::chdir(directory.c_str()) != 0) {
    const int error = errno;
    std::fprintf(stderr, "norvaned: can't change into %s (%s); working in %s\n", directory.c_str(),
                 GetErrorMessage(error).c_str(), CurrentDirectory().c_str());
  }
  return true;
}

// Start-up messages go to the log and to standard error: before the daemon detaches, standard
// error is the operator's terminal or the service manager's journal.
class StartupReport {
 public:
  explicit StartupReport(bool log_echoes_to_stderr) : echoed_(log_echoes_to_stderr) {}

  // A failure that keeps the daemon from serving, and what to do about it.
  void Fail(const std::string& problem, const std::string& hint) const {
    Say(problem + "; " + hint);
  }
  void Say(const std::string& text) const {
    LogStream.Log(text);
    Show(text);
  }
  // A warning: the daemon serves, but the operator should change something.
  void Warn(const std::string& text) const {
    LogStream.Log(FWNotification(text, 0, FWNotification::kWarning));
    Show("warning: " + text);
  }
  // Standard error only, for a text the log already has.
  void Show(const std::string& text) const {
    if (!echoed_) std::fprintf(stderr, "norvaned: %s\n", text.c_str());
  }

 private:
  const bool echoed_;
};

// What the configuration reader logged while it read (unknown keys, ...), without the stamps.
std::vector<std::string> TakeLoggedLines() {
  std::vector<std::string> lines;
  const std::string& buffer = LogStream.GetLogBuffer();
  for (std::size_t start = 0, end; (end = buffer.find('\n', start)) != std::string::npos;
       start = end + 1) {
    if (end - start > kStampWidth)
      lines.push_back(buffer.substr(start + kStampWidth, end - start - kStampWidth));
  }
  LogStream.SetBufferLimit(0);
  LogStream.ClearLogBuffer();
  return lines;
}

// Reads the configuration into the manager. A missing file leaves the defaults (when no file was
// named with -c); one that cannot be read or parsed is a failure naming the file and line.
bool ReadConfiguration(SessionManager& manager, const std::string& path, bool named,
                       const StartupReport& report) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 && errno == ENOENT && !named) {
    report.Say("no configuration file " + path +
               ": running on the defaults; copy Norvane.cf.example there and set DocumentRoot "
               "and Password");
    return true;
  }
  LogStream.SetBufferLimit(1 << 16);
  bool parsed = false;
  try {
    FWIniParser parser("1.0", false);
    parser.ParseToObject(manager, path, true);
    parsed = true;
  } catch (const FWEIniParseError& e) {
    TakeLoggedLines();
    report.Fail(path + ":" + std::to_string(e.GetLine()) + ": " + e.GetText(),
                "settings are lines Key=value under a [section] header; fix the line and test "
                "the file with norvaned --check");
  } catch (const FWException& e) {
    TakeLoggedLines();
    report.Fail(path + ": " + e.GetText(),
                "name an existing file that the user running norvaned may read");
  }
  if (!parsed) return false;
  for (const std::string& line : TakeLoggedLines()) report.Show(path + ": " + line);
  return true;
}

// The rules of the configuration, plus: every port's DocumentRoot is a readable directory.
bool CheckConfiguration(const SessionManager& manager, const std::string& path,
                        const StartupReport& report) {
  const std::vector<std::string> problems = manager.ConfigurationProblems();
  for (const std::string& problem : problems) {
    report.Fail(path + ": " + problem,
                "set it in the port's section (Norvane.cf.example describes every setting)");
  }
  if (problems.empty() && manager.GetPorts().empty()) {
    report.Say(path +
               ": no port is configured, so norvaned serves nothing; add a "
               "[SessionManager\\Ports\\MonitoringPort] section");
  }
  return problems.empty();
}

// What to do when a port cannot be bound, from the failed call's errno (0 when it had none).
std::string ListenHint(int error) {
  switch (error) {
    case EADDRINUSE:
      return "another program listens there (ss -ltnp shows which): stop it or choose another "
             "IncomingPort";
    case EACCES:
      return "ports below 1024 need root or CAP_NET_BIND_SERVICE: choose an IncomingPort from "
             "1024";
    case EADDRNOTAVAIL:
      return "IncomingServer must be an address of this machine (ip -brief address lists them)";
    default:
      return "check IncomingServer and IncomingPort";
  }
}

// Reports why the ports could not all be opened: the first port without a listening socket,
// with the hint for the errno; false.
bool ReportPortFailure(const SessionManager& manager, const std::string& path, const FWException& e,
                       int error, const StartupReport& report) {
  int number = 0;
  for (const std::unique_ptr<ProxyPort>& port : manager.GetPorts()) {
    ++number;
    if (port->GetListeningSocket() != 0) continue;
    report.Fail(FWStringUtils::Printf("can't listen on %s (port %d of %s): %s",
                                      port->GetAddressText().c_str(), number, path.c_str(),
                                      e.GetText().c_str()),
                ListenHint(error));
    return false;
  }
  report.Fail(e.GetText(), "see the lines above");
  return false;
}

// Opens every port; a failure names the address and port that could not be bound. Only a socket
// failure carries an errno to choose the hint by.
bool OpenPorts(SessionManager& manager, const std::string& path, const StartupReport& report) {
  try {
    manager.InitPorts();
    return true;
  } catch (const FWESocketError& e) {
    return ReportPortFailure(manager, path, e, e.GetErrno(), report);
  } catch (const FWException& e) {
    return ReportPortFailure(manager, path, e, 0, report);
  }
}

// What the operator must be warned of: a configuration that every user may read (it holds the
// ports' passwords), and ports that keep the built-in default password.
std::vector<std::string> SecurityWarnings(const SessionManager& manager, const std::string& path) {
  std::vector<std::string> warnings;
  struct stat st;
  if (::stat(path.c_str(), &st) == 0 && (st.st_mode & S_IROTH) != 0) {
    warnings.push_back(FWStringUtils::Printf(
        "%s may be read by every user (mode %04o) and holds the ports' passwords; chmod o-r %s",
        path.c_str(), static_cast<unsigned>(st.st_mode & 07777), path.c_str()));
  }
  for (const std::string& warning : manager.SecurityWarnings()) warnings.push_back(warning);
  return warnings;
}

// What --check found good: the file, what each port would serve, and the warnings.
void PrintSummary(const SessionManager& manager, const std::string& path) {
  std::printf("%s: configuration OK, %zu port(s)\n", path.c_str(), manager.GetPorts().size());
  for (const std::unique_ptr<ProxyPort>& port : manager.GetPorts()) {
    const auto* monitoring = dynamic_cast<const MonitoringPort*>(port.get());
    std::printf("  %s on %s", port->GetName().c_str(), port->GetAddressText().c_str());
    if (monitoring != nullptr) {
      std::printf(" serves %s (%s)", monitoring->GetDocumentRoot().c_str(),
                  monitoring->GetSearchPattern().c_str());
    }
    std::printf("\n");
  }
  for (const std::string& warning : SecurityWarnings(manager, path)) {
    std::printf("warning: %s\n", warning.c_str());
  }
}

// Created for the owner and the group only, like the log.
void WritePidFile(const std::string& name) {
  const std::string text = std::to_string(getpid()) + "\n";
  const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
  bool written =
      fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  int error = errno;
  if (fd >= 0 && ::close(fd) != 0 && written) {
    written = false;
    error = errno;
  }
  if (!written) {
    LogStream.Log("can't write the pid file " + name + " (" + GetErrorMessage(error) + ")");
  }
}

// Runs the loop until a signal arrives; the exit code.
int Serve(SessionManager& manager) {
  try {
    manager.InitWorker();
    while (loop_terminated == 0) manager.Select();
  } catch (const FWException& e) {
    LogStream.Log(e.GetText());
    return kExitFailed;
  } catch (...) {
    LogStream.Log("Unhandled exception.");
    return kExitFailed;
  }
  LogStream.Log("going down on signal " +
                FWStringUtils::GetDefaultInstance().Int2Str(loop_terminated));
  return kExitServed;
}

}  // namespace

int main(int argc, char* argv[]) {
  // Before anything uses the class registry: reading the configuration needs the classes.
  RegisterServiceClasses();
  Options options;
  if (const int code = ParseOptions(argc, argv, &options); code >= 0) return code;
  InstallSignals();
  FWHeap::KeepLargeBlocks();

  const std::string named_config = Absolute(options.config);
  const bool own_directory = argc > 0 && SettleWorkingDirectory(argv[0]);
  const std::string product = FWProduct::GetName();
  const std::string config =
      named_config.empty() ? CurrentDirectory() + "/" + product + ".cf" : named_config;

  if (options.foreground) LogStream.SetEcho(stderr);
  const StartupReport report(options.foreground);
  auto manager = std::make_unique<SessionManager>();
  if (options.check) {
    const bool good = ReadConfiguration(*manager, config, !named_config.empty(), report) &&
                      CheckConfiguration(*manager, config, report);
    if (good) PrintSummary(*manager, config);
    return good ? kExitServed : kExitFailed;
  }

  const std::string log_name = product + ".log";
  LogStream.OpenFile(log_name, false);
  if (!LogStream.IsOpen()) {
    const int error = errno;
    report.Fail("can't open the log " + CurrentDirectory() + "/" + log_name + " (" +
                    GetErrorMessage(error) + ")",
                "the directory must be writable by the user running norvaned");
    return kExitFailed;
  }
  int code = kExitFailed;
  bool ready = ReadConfiguration(*manager, config, !named_config.empty(), report) &&
               CheckConfiguration(*manager, config, report);
  const std::string descriptors = ready ? manager->FitDescriptorLimit() : std::string();
  ready = ready && OpenPorts(*manager, config, report);
  if (ready) {
    // After the start-up lines of the log, before detaching: on the terminal and in the log.
    if (!descriptors.empty()) report.Say(descriptors);
    for (const std::string& warning : SecurityWarnings(*manager, config)) report.Warn(warning);
    if (!options.foreground && daemon(1, 0) != 0) {
      const int error = errno;
      report.Fail("can't detach (" + GetErrorMessage(error) + ")", "try norvaned --foreground");
    } else {
      const std::string pid_file = product + ".pid";
      if (own_directory) WritePidFile(pid_file);
      code = Serve(*manager);
      if (own_directory) std::remove(pid_file.c_str());
    }
  }
  manager->Exit();
  manager.reset();
  LogStream.Close();
  return code;
}
