// End-to-end load benchmark of the feed: starts the real norvaned (a copy in a temp dir, with a
// generated Norvane.cf on 127.0.0.1 and a free port) and real `norvane tail` clients, writes log
// files at chosen rates, reads every client's standard output through a pipe, checks every byte
// (count and CRC-32 per followed file) and prints figures as ratios measured within the same run:
//   a  one client, one file written as fast as possible: delivered MB/s; daemon CPU per GB
//      divided by zlib level 1 + Blowfish on the same bytes (measured here, in-process)
//   b  daemon CPU with N = 1, 10, 100 clients on one busy file, divided by N = 1
//   c  200 files at 10 KB/s: daemon CPU divided by the zlib + Blowfish cost of those bytes
//   d  the daemon's peak (VmHWM) and after-drain (VmRSS) memory with 100 clients
//   e  client CPU per GB divided by daemon CPU per GB (from case a)
//   f  write-to-print latency at a low rate: min, median, p99
// CPU is utime + stime from /proc/<pid>/stat. Run on demand (scripts/bench.sh), never in CI.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <zlib.h>

#include "FWBlowfish.h"
#include "FWFeedCodec.h"
#include "LogText.h"

namespace {

namespace fs = std::filesystem;
volatile sig_atomic_t interrupted = 0;

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

long long NowNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}
double Now() { return static_cast<double>(NowNs()) * 1e-9; }

void CheckInterrupt() {
  if (interrupted) throw Failure("interrupted");
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The CPU time of a live process in seconds; -1 when it cannot be read. The kernel's run time of
// the process in nanoseconds (schedstat) where it keeps one, else utime + stime in clock ticks,
// which are too coarse for the fraction of a second that some cases cost.
double CpuSeconds(pid_t pid) {
  std::istringstream schedstat(ReadFile("/proc/" + std::to_string(pid) + "/schedstat"));
  if (unsigned long long run_ns = 0; schedstat >> run_ns) return static_cast<double>(run_ns) * 1e-9;
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const std::size_t paren = stat.rfind(')');
  if (paren == std::string::npos) return -1;
  std::istringstream fields(stat.substr(paren + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  for (int i = 3; fields >> field && i <= 15; ++i) {  // field 3 is the state
    if (i == 14) utime = std::stoull(field);
    if (i == 15) stime = std::stoull(field);
  }
  return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// A "VmHWM" / "VmRSS" line of /proc/<pid>/status, in MiB.
double StatusMiB(pid_t pid, const std::string& key) {
  std::istringstream lines(ReadFile("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(key + ":", 0) == 0) return std::stod(line.substr(key.size() + 1)) / 1024.0;
  }
  return -1;
}

// A child process, stopped by its pid (SIGTERM, then SIGKILL after a bound) when destroyed.
class Child {
 public:
  Child(const std::vector<std::string>& argv, int out_fd, int err_fd) {
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    pid_ = fork();
    if (pid_ < 0) throw Failure(std::string("fork: ") + std::strerror(errno));
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);  // never outlive the bench, even a killed one
      signal(SIGPIPE, SIG_DFL);          // the bench ignores it; exec would pass that on
      dup2(out_fd, 1);
      dup2(err_fd, 2);
      execv(args[0], args.data());
      _exit(127);
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() { Stop(); }

  pid_t Pid() const { return pid_; }
  bool Running() { return Reap(0); }
  void Signal(int sig) const {
    if (!done_) kill(pid_, sig);
  }
  // Waits up to `seconds` for the exit; true while it still runs.
  bool Reap(double seconds) {
    const double end = Now() + seconds;
    while (!done_) {
      const pid_t got = waitpid(pid_, &status_, WNOHANG);
      if (got == pid_ || (got < 0 && errno != EINTR)) done_ = true;
      if (done_ || Now() >= end) break;
      usleep(10000);
    }
    return !done_;
  }
  // SIGTERM, up to 10 s, then SIGKILL and up to 5 s more. The exit status, -1 if none.
  int Stop() {
    Signal(SIGTERM);
    if (Reap(10)) {
      std::fprintf(stderr, "FeedLoad: pid %d ignored SIGTERM for 10 s; SIGKILL\n", pid_);
      Signal(SIGKILL);
      Reap(5);
    }
    return done_ ? status_ : -1;
  }

 private:
  pid_t pid_ = -1;
  int status_ = 0;
  bool done_ = false;
};

struct Fd {
  int fd = -1;
  explicit Fd(int f = -1) : fd(f) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

// Byte count and CRC-32 of a stream.
struct Tally {
  unsigned long long bytes = 0;
  uLong crc = crc32(0L, Z_NULL, 0);
  void Add(const char* data, std::size_t size) {
    bytes += size;
    crc = crc32(crc, reinterpret_cast<const Bytef*>(data), static_cast<uInt>(size));
  }
};

// CPU seconds per GB of zlib level 1 (compress2) + Blowfish over 1 MiB chunks of text.
double LimitCpuPerGB(const std::string& text, std::size_t total) {
  const Blowfish cipher(FWFeedCodec::kFeedKey);
  const std::size_t chunk = 1 << 20;
  std::string out(compressBound(chunk) + 8, '\0');
  timespec start{}, end{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &start);
  std::size_t done = 0;
  for (std::size_t at = 0; done < total; at = (at + chunk) % (text.size() - chunk)) {
    uLongf size = out.size();
    if (compress2(reinterpret_cast<Bytef*>(out.data()), &size,
                  reinterpret_cast<const Bytef*>(text.data() + at), chunk, 1) != Z_OK) {
      throw Failure("compress2 failed");
    }
    std::string body(out.data(), size);
    cipher.Encrypt(body);
    done += chunk;
  }
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &end);
  const double cpu = static_cast<double>(end.tv_sec - start.tv_sec) +
                     static_cast<double>(end.tv_nsec - start.tv_nsec) * 1e-9;
  return cpu / (static_cast<double>(done) / 1e9);
}

// The limit measured right before a case and right after it: the machine's speed drifts (other
// guests, clock changes), and a ratio is only as good as the two figures are from the same time.
class Limit {
 public:
  Limit(const std::string& text, double mb)
      : text_(text), bytes_(static_cast<std::size_t>(mb * 1e6)) {}
  void Before() { before_ = LimitCpuPerGB(text_, bytes_); }
  // The mean of the two measurements, in CPU seconds per GB.
  double After() const {
    const double after = LimitCpuPerGB(text_, bytes_);
    std::printf(
        "==> zlib level 1 + Blowfish over 1 MiB chunks, in-process: %.2f CPU s per GB "
        "before the case, %.2f after\n",
        before_, after);
    return (before_ + after) / 2;
  }

 private:
  const std::string& text_;
  const std::size_t bytes_;
  double before_ = 0;
};

struct Settings {
  std::string norvaned = NORVANED_BINARY;
  std::string norvane = NORVANE_BINARY;
  std::string cases = "abcdef";
  bool keep = false;
  double a_mb = 200, a_seconds = 60;  // volume, and the most time spent writing it
  std::vector<int> b_clients{1, 10, 100};
  double b_rate = 1, seconds = 10;  // MB/s (bytes/s once parsed) of b's file; length of b and c
  int c_files = 200, c_per_client = 20;
  double c_rate = 10;                  // KB/s (bytes/s once parsed) into each file
  double c_runs = 3;                   // runs of case c; the median is its figure
  double f_rate = 20, f_seconds = 10;  // lines/s
  double drain = 120;                  // the longest wait for clients to catch up
  double limit_mb = 256;               // volume of the in-process zlib + Blowfish limit
};

// What one client printed for one followed file.
struct Source {
  int file = 0;
  Tally got;
};

struct Client {
  std::unique_ptr<Child> proc;
  std::unique_ptr<Fd> out, err;
  std::vector<Source> sources;
  std::map<std::string, int> by_name;  // file name -> index in sources (prefixed output)
  std::string partial, err_line, err_text;
  int following = 0;
  bool out_eof = false, err_eof = false, stopping = false;
};

struct LogFile {
  std::string name;
  std::unique_ptr<Fd> fd;
  Tally written;
  std::size_t pool_at = 0;
};

// One daemon serving its own temp dir, its files, and the clients that follow them.
class Run {
 public:
  Run(const Settings& settings, const std::string& pool, int files, bool stamped)
      : settings_(settings), pool_(pool), stamped_(stamped) {
    char dir_template[] = "/tmp/norvane-load.XXXXXX";
    if (mkdtemp(dir_template) == nullptr) throw Failure("mkdtemp failed");
    dir_ = dir_template;
    fs::create_directory(dir_ + "/logs");
    for (int i = 0; i < files; ++i) {
      char name[32];
      std::snprintf(name, sizeof name, "f%03d.log", i);
      const std::string path = dir_ + "/logs/" + name;
      const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (fd < 0) throw Failure("cannot create " + path);
      const std::size_t at = pool.find('\n', (i * 7919UL) % pool.size()) + 1;  // a line start
      files_.push_back(LogFile{name, std::make_unique<Fd>(fd), {}, at == pool.size() ? 0 : at});
    }
    StartDaemon();
  }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  ~Run() {
    if (std::uncaught_exceptions() > 0) failed_ = true;
    for (Client& client : clients_) {  // unread pipes would keep a client from ending
      client.out.reset();
      client.err.reset();
      client.proc->Signal(SIGTERM);
    }
    for (Client& client : clients_) client.proc.reset();
    daemon_.reset();
    if (!settings_.keep && !failed_) fs::remove_all(dir_);
    if (failed_ || settings_.keep) std::printf("    (kept %s)\n", dir_.c_str());
  }

  pid_t Daemon() const { return daemon_->Pid(); }

  // Starts clients in batches of about ten connections, client k following `per_client` files from
  // file k * per_client on (modulo the count), and waits until every one has reported "following"
  // for each of its files.
  void AddClients(int count, int per_client) {
    for (int started = 0; started < count;) {
      const int batch = std::min(std::max(1, 10 / per_client), count - started);
      for (int i = 0; i < batch; ++i, ++started) StartClient(started * per_client, per_client);
      const double end = Now() + 30;
      while (!AllFollowing()) {
        if (Now() > end) throw Failure("clients not following after 30 s" + ClientErrors());
        Pump(0.02);
      }
    }
  }

  // Appends whole lines from the pool to file i, about `bytes` of them.
  void Write(std::size_t i, std::size_t bytes) {
    LogFile& file = files_[i];
    const std::size_t at = file.pool_at;
    std::size_t end = std::min(at + std::max<std::size_t>(bytes, 1), pool_.size()) - 1;
    while (pool_[end] != '\n') ++end;  // the pool ends with a line end
    WriteText(i, pool_.data() + at, end + 1 - at);
    file.pool_at = end + 1 == pool_.size() ? 0 : end + 1;
  }

  // One line carrying the monotonic clock in nanoseconds, for the latency case.
  void WriteStamped(std::size_t i, int seq) {
    const std::string line =
        std::to_string(NowNs()) + " seq " + std::to_string(seq) + " " + std::string(60, 'x') + "\n";
    WriteText(i, line.data(), line.size());
  }

  // Writes `rate` bytes/s into each of the files for `seconds`, reading the clients meanwhile.
  void WritePaced(double rate, double seconds) {
    const double start = Now();
    for (double now = start; now - start < seconds; now = Now()) {
      for (std::size_t i = 0; i < files_.size(); ++i) {
        const double due = rate * (now - start) - static_cast<double>(files_[i].written.bytes);
        if (due >= 512 || (due > 0 && rate < 5e3)) Write(i, static_cast<std::size_t>(due));
      }
      Pump(0.005);
    }
  }

  unsigned long long Written() const {
    unsigned long long total = 0;
    for (const LogFile& file : files_) total += file.written.bytes;
    return total;
  }
  // The bytes written that clients have not printed yet, summed over every client and file.
  unsigned long long Shortfall() const {
    unsigned long long missing = 0;
    for (const Client& client : clients_) {
      for (const Source& source : client.sources) {
        const unsigned long long want = files_[static_cast<std::size_t>(source.file)].written.bytes;
        missing += want - std::min(want, source.got.bytes);
      }
    }
    return missing;
  }
  // Reads until every client has what was written (or the drain bound passes); the time of the
  // last byte. Never throws for a shortfall: Finish() says what is missing.
  double Drain() {
    const double end = Now() + settings_.drain;
    while (Shortfall() > 0 && Now() < end) Pump(0.01);
    return Now();
  }
  double ClientCpu() const {
    double total = 0;
    for (const Client& client : clients_) total += CpuSeconds(client.proc->Pid());
    return total;
  }

  // Stops every client (SIGTERM: it says stop and quit and writes what arrived), reads their
  // output to the end and checks every source against what was written. Loud and throwing on a
  // lost, repeated or altered byte, or a client or daemon that did not exit with 0 on SIGTERM.
  void Finish(const std::string& label) {
    for (Client& client : clients_) {
      client.stopping = true;
      client.proc->Signal(SIGTERM);
    }
    const double end = Now() + 15;
    while (Now() < end && !std::all_of(clients_.begin(), clients_.end(),
                                       [](const Client& c) { return c.out_eof && c.err_eof; })) {
      Pump(0.01);
    }
    std::string problems;
    for (Client& client : clients_) {
      if (client.out_eof && client.err_eof) continue;
      problems +=
          "\n  pid " + std::to_string(client.proc->Pid()) + " still writes 15 s after SIGTERM";
      client.proc->Signal(SIGKILL);
    }
    int lost = 0, extra = 0, altered = 0;
    for (std::size_t c = 0; c < clients_.size(); ++c) {
      Client& client = clients_[c];
      const int status = client.proc->Stop();
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        problems += "\n  client " + std::to_string(c) + " ended with status " +
                    std::to_string(status) + ": " + client.err_text;
      }
      if (!client.partial.empty()) {
        problems += "\n  client " + std::to_string(c) + " ended inside a line";
        ++altered;
      }
      for (const Source& source : client.sources) {
        const Tally& want = files_[static_cast<std::size_t>(source.file)].written;
        const std::string where = "\n  client " + std::to_string(c) + ", " +
                                  files_[static_cast<std::size_t>(source.file)].name + ": ";
        if (source.got.bytes < want.bytes) {
          if (++lost <= 5) problems += where + "LOST " + Missing(want.bytes, source.got.bytes);
        } else if (source.got.bytes > want.bytes) {
          if (++extra <= 5)
            problems += where + "REPEATED/EXTRA " + Missing(source.got.bytes, want.bytes);
        } else if (source.got.crc != want.crc) {
          if (++altered <= 5) problems += where + "ALTERED (same count, different CRC-32)";
        }
      }
    }
    if (const int status = daemon_->Stop(); !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      problems += "\n  norvaned ended with status " + std::to_string(status) + " on SIGTERM";
    }
    if (!problems.empty()) {
      throw Failure("case " + label + ": CHECK FAILED (" + std::to_string(lost) + " short, " +
                    std::to_string(extra) + " long, " + std::to_string(altered) +
                    " altered sources)" + problems);
    }
  }

  // One pass: waits up to `seconds` for client output and takes all of it. A client whose
  // output ends before it was asked to stop is a failure.
  void Pump(double seconds) {
    CheckInterrupt();
    std::vector<pollfd> fds;
    std::vector<std::pair<Client*, bool>> owners;  // (client, standard output?)
    for (Client& client : clients_) {
      if (!client.out_eof)
        fds.push_back({client.out->fd, POLLIN, 0}), owners.push_back({&client, true});
      if (!client.err_eof)
        fds.push_back({client.err->fd, POLLIN, 0}), owners.push_back({&client, false});
    }
    if (fds.empty()) {
      usleep(static_cast<useconds_t>(seconds * 1e6));
      return;
    }
    if (poll(fds.data(), fds.size(), static_cast<int>(std::ceil(seconds * 1000))) <= 0) return;
    static std::vector<char> buffer(1 << 18);
    for (std::size_t i = 0; i < fds.size(); ++i) {
      if (fds[i].revents == 0) continue;
      Client& client = *owners[i].first;
      const bool is_out = owners[i].second;
      const ssize_t n = read(fds[i].fd, buffer.data(), buffer.size());
      if (n > 0) {
        if (is_out) OnOut(client, buffer.data(), static_cast<std::size_t>(n));
        if (!is_out) OnErr(client, buffer.data(), static_cast<std::size_t>(n));
        continue;
      }
      if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      (is_out ? client.out_eof : client.err_eof) = true;
      if (!client.stopping) {
        throw Failure("a norvane client ended by itself (pid " +
                      std::to_string(client.proc->Pid()) + "):\n  " + client.err_text);
      }
    }
  }

  // Latencies of stamped lines, in milliseconds.
  std::vector<double> latencies;

 private:
  static std::string Missing(unsigned long long more, unsigned long long less) {
    return std::to_string(more - less) + " bytes (" + std::to_string(less) + " of " +
           std::to_string(more) + ")";
  }

  void WriteText(std::size_t i, const char* data, std::size_t size) {
    for (std::size_t done = 0; done < size;) {
      const ssize_t n = write(files_[i].fd->fd, data + done, size - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) throw Failure("writing " + files_[i].name + ": " + std::strerror(errno));
      done += static_cast<std::size_t>(n);
    }
    files_[i].written.Add(data, size);
  }

  void StartDaemon() {
    {
      const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      socklen_t length = sizeof address;
      if (probe < 0 || bind(probe, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
          getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw Failure("no free port on 127.0.0.1");
      }
      port_ = ntohs(address.sin_port);
      close(probe);
    }
    fs::copy_file(settings_.norvaned, dir_ + "/norvaned");
    std::ofstream(dir_ + "/Norvane.cf")
        << "FileVersion=1.0\n[SessionManager]\n[SessionManager\\Ports\\MonitoringPort]\n"
        << "IncomingServer=127.0.0.1\nIncomingPort=" << port_ << "\nDocumentRoot=" << dir_
        << "/logs\nPassword=" << getenv("NORVANE_PASSWORD") << "\n";
    const Fd out(open((dir_ + "/daemon.out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    daemon_ = std::make_unique<Child>(std::vector<std::string>{dir_ + "/norvaned", "--foreground"},
                                      out.fd, out.fd);
    for (const double end = Now() + 15;
         ReadFile(dir_ + "/Norvane.log").find(" listening on ") == std::string::npos;) {
      CheckInterrupt();
      if (!daemon_->Running()) {
        throw Failure("norvaned ended at start (status " + std::to_string(daemon_->Stop()) +
                      ", see " + dir_ + "):\n" + ReadFile(dir_ + "/daemon.out"));
      }
      if (Now() > end) {
        throw Failure("norvaned not listening after 15 s (see " + dir_ + "):\n" +
                      ReadFile(dir_ + "/daemon.out"));
      }
      usleep(20000);
    }
  }

  void StartClient(int first, int per_client) {
    int out_pipe[2], err_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0) {
      throw Failure(std::string("pipe: ") + std::strerror(errno));
    }
    Client client;
    client.out = std::make_unique<Fd>(out_pipe[0]);
    client.err = std::make_unique<Fd>(err_pipe[0]);
    const Fd out_write(out_pipe[1]), err_write(err_pipe[1]);
    std::vector<std::string> argv{settings_.norvane, "tail", "--port", std::to_string(port_)};
    for (int i = 0; i < per_client; ++i) {
      const int file = (first + i) % static_cast<int>(files_.size());
      client.by_name[files_[static_cast<std::size_t>(file)].name] = i;
      client.sources.push_back(Source{file, {}});
      argv.push_back(files_[static_cast<std::size_t>(file)].name);
    }
    fcntl(client.out->fd, F_SETFL, O_NONBLOCK);
    fcntl(client.err->fd, F_SETFL, O_NONBLOCK);
    client.proc = std::make_unique<Child>(argv, out_write.fd, err_write.fd);
    clients_.push_back(std::move(client));
  }

  bool AllFollowing() const {
    return std::all_of(clients_.begin(), clients_.end(), [](const Client& c) {
      return c.following == static_cast<int>(c.sources.size());
    });
  }

  std::string ClientErrors() const {
    std::string text;
    for (const Client& client : clients_) {
      if (!client.err_text.empty()) text += "\n  " + client.err_text;
      if (text.size() > 2000) break;
    }
    return text;
  }

  // What a client printed: one source as it is, several as "host:port/file: " lines.
  void OnOut(Client& client, const char* data, std::size_t size) {
    if (client.sources.size() == 1 && !stamped_) {
      client.sources[0].got.Add(data, size);
      return;
    }
    client.partial.append(data, size);
    std::size_t start = 0;
    const long long now = NowNs();
    for (std::size_t end; (end = client.partial.find('\n', start)) != std::string::npos;
         start = end + 1) {
      std::size_t text = start;
      Source* source = &client.sources[0];
      if (client.sources.size() > 1) {
        const std::size_t slash = client.partial.find('/', start);
        const std::size_t colon = client.partial.find(": ", start);
        auto it = slash < colon && colon < end
                      ? client.by_name.find(client.partial.substr(slash + 1, colon - slash - 1))
                      : client.by_name.end();
        if (it == client.by_name.end()) {
          throw Failure("a client printed a line of no followed file: " +
                        client.partial.substr(start, std::min<std::size_t>(end - start, 200)));
        }
        source = &client.sources[static_cast<std::size_t>(it->second)];
        text = colon + 2;
      }
      source->got.Add(client.partial.data() + text, end + 1 - text);
      if (stamped_) {
        latencies.push_back(static_cast<double>(now - std::atoll(client.partial.c_str() + text)) /
                            1e6);
      }
    }
    client.partial.erase(0, start);
  }

  // What a client said on standard error: "following" lines are counted, others kept.
  static void OnErr(Client& client, const char* data, std::size_t size) {
    client.err_line.append(data, size);
    std::size_t start = 0;
    for (std::size_t end; (end = client.err_line.find('\n', start)) != std::string::npos;
         start = end + 1) {
      const std::string line = client.err_line.substr(start, end + 1 - start);
      if (line.find(": following ") != std::string::npos) {
        ++client.following;
      } else if (client.err_text.size() < 4096) {
        client.err_text += line;
      }
    }
    client.err_line.erase(0, start);
  }

 private:
  const Settings& settings_;
  const std::string& pool_;
  const bool stamped_;
  std::string dir_;
  int port_ = 0;
  bool failed_ = false;
  std::vector<LogFile> files_;
  std::unique_ptr<Child> daemon_;
  std::vector<Client> clients_;
};

// The table printed at the end.
struct Row {
  std::string id, figure, value, target;
};
std::vector<Row> rows;

std::string Fixed(double value, int digits, const std::string& unit = "") {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f%s", digits, value, unit.c_str());
  return text;
}

void Note(const std::string& text) {
  std::printf("==> %s\n", text.c_str());
  std::fflush(stdout);
}

// a and e: one client follows one file written as fast as possible, at most 32 MiB ahead of it.
void CaseOneClient(const Settings& s, const std::string& pool, Limit& limit, bool a, bool e) {
  Note("a/e: one client, one file written as fast as possible (" + Fixed(s.a_mb, 0) + " MB or " +
       Fixed(s.a_seconds, 0) + " s)");
  Run run(s, pool, 1, false);
  run.AddClients(1, 1);
  if (a) limit.Before();
  const double daemon0 = CpuSeconds(run.Daemon()), client0 = run.ClientCpu(), start = Now();
  const auto volume = static_cast<unsigned long long>(s.a_mb * 1e6);
  while (run.Written() < volume && Now() - start < s.a_seconds) {
    if (run.Shortfall() < (32ULL << 20)) {
      run.Write(0, std::min<unsigned long long>(1 << 20, volume - run.Written()));
      run.Pump(0);
    } else {
      run.Pump(0.01);
    }
  }
  const double end = run.Drain();
  const double daemon = CpuSeconds(run.Daemon()) - daemon0, client = run.ClientCpu() - client0;
  const double gb = static_cast<double>(run.Written()) / 1e9;
  run.Finish("a");
  if (a) {
    const double limit_per_gb = limit.After();
    rows.push_back({"a", "delivered MB/s (" + Fixed(gb * 1e3, 0) + " MB)",
                    Fixed(gb * 1e3 / (end - start), 1), ">= 50"});
    rows.push_back({"a",
                    "daemon CPU/GB (" + Fixed(daemon / gb, 2) + " s) / zlib1+Blowfish (" +
                        Fixed(limit_per_gb, 2) + " s)",
                    Fixed(daemon / gb / limit_per_gb, 2, "x"), "<= 1.2x"});
  }
  if (e) {
    rows.push_back({"e", "client CPU/GB (" + Fixed(client / gb, 2) + " s) / daemon CPU/GB",
                    Fixed(client / daemon, 2, "x"), "<= 1.5x"});
  }
}

// b and d: N clients follow one file written at a fixed rate for a fixed time.
void CaseManyClients(const Settings& s, const std::string& pool, bool b, bool d) {
  std::vector<int> counts = s.b_clients;
  if (!b) counts = {counts.back()};
  double base = 0;
  for (const int n : counts) {
    Note("b/d: " + std::to_string(n) + " client(s) on one file at " + Fixed(s.b_rate / 1e6, 2) +
         " MB/s for " + Fixed(s.seconds, 0) + " s");
    Run run(s, pool, 1, false);
    run.AddClients(n, 1);
    const double daemon0 = CpuSeconds(run.Daemon());
    run.WritePaced(s.b_rate, s.seconds);
    const double written = Now(), end = run.Drain();
    const double daemon = CpuSeconds(run.Daemon()) - daemon0;
    const double peak = StatusMiB(run.Daemon(), "VmHWM");
    double drained = -1;
    if (d && n == counts.back()) {  // idle a little with every client connected, then look
      for (const double idle = Now() + 2; Now() < idle;) run.Pump(0.05);
      drained = StatusMiB(run.Daemon(), "VmRSS");
    }
    const double mb = static_cast<double>(run.Written()) / 1e6;
    run.Finish("b/d, N=" + std::to_string(n));
    if (n == counts.front()) base = daemon;
    if (b) {
      rows.push_back({"b",
                      "N=" + std::to_string(n) + ": daemon CPU " + Fixed(daemon, 2) + " s (" +
                          Fixed(daemon * 1e3 / mb, 1) + " ms/MB), last byte +" +
                          Fixed(end - written, 1) + " s; / N=" + std::to_string(counts.front()),
                      base > 0 ? Fixed(daemon / base, 2, "x") : "n/a (0 ticks)",
                      n == 100 ? "<= 2x" : ""});
    }
    if (drained >= 0) {
      rows.push_back({"d", "N=" + std::to_string(n) + ": daemon peak VmHWM", Fixed(peak, 1, " MiB"),
                      "<= 64 MiB"});
      rows.push_back({"d", "N=" + std::to_string(n) + ": daemon VmRSS 2 s after the drain",
                      Fixed(drained, 1, " MiB"), "< 16 MiB"});
    }
  }
}

// c: many files at a low rate each, followed by clients of several files each. A cost this small
// (a quarter of a CPU second) moves with the machine's other guests, so the case runs several
// times and its figure is the median run.
void CaseManyFiles(const Settings& s, const std::string& pool, Limit& limit) {
  const int clients = (s.c_files + s.c_per_client - 1) / s.c_per_client;
  struct Result {
    double ratio, daemon, mb;
  };
  std::vector<Result> results;
  for (int i = 0; i < static_cast<int>(s.c_runs); ++i) {
    Note("c: " + std::to_string(s.c_files) + " files at " + Fixed(s.c_rate / 1e3, 0) +
         " KB/s each for " + Fixed(s.seconds, 0) + " s, " + std::to_string(clients) +
         " client(s) of " + std::to_string(s.c_per_client) + " files (run " +
         std::to_string(i + 1) + " of " + Fixed(s.c_runs, 0) + ")");
    Run run(s, pool, s.c_files, false);
    run.AddClients(clients, s.c_per_client);
    limit.Before();
    const double daemon0 = CpuSeconds(run.Daemon());
    run.WritePaced(s.c_rate, s.seconds);
    run.Drain();
    const double daemon = CpuSeconds(run.Daemon()) - daemon0;
    const double gb = static_cast<double>(run.Written()) / 1e9;
    run.Finish("c");
    const double ratio = daemon / (gb * limit.After());
    Note("c: daemon CPU " + Fixed(daemon, 3) + " s, " + Fixed(ratio, 2, "x") + " the limit");
    results.push_back({ratio, daemon, gb * 1e3});
  }
  std::sort(results.begin(), results.end(),
            [](const Result& x, const Result& y) { return x.ratio < y.ratio; });
  const Result& median = results[results.size() / 2];
  rows.push_back({"c",
                  "daemon CPU " + Fixed(median.daemon, 2) + " s for " + Fixed(median.mb, 1) +
                      " MB / zlib1+Blowfish on those bytes (median of " +
                      std::to_string(results.size()) + ", " + Fixed(results.front().ratio, 2) +
                      "-" + Fixed(results.back().ratio, 2, "x)"),
                  Fixed(median.ratio, 2, "x"), "<= 1.5x"});
}

// f: one client, stamped lines at a low rate; the time from write() to the client's print.
void CaseLatency(const Settings& s, const std::string& pool) {
  Note("f: latency, " + Fixed(s.f_rate, 0) + " lines/s for " + Fixed(s.f_seconds, 0) + " s");
  Run run(s, pool, 1, true);
  run.AddClients(1, 1);
  const int lines = static_cast<int>(s.f_rate * s.f_seconds);
  const double start = Now();
  for (int seq = 0; seq < lines; ++seq) {
    for (double due = start + seq / s.f_rate; Now() < due;) run.Pump(std::max(0.0, due - Now()));
    run.WriteStamped(0, seq);
  }
  run.Drain();
  run.Finish("f");
  std::vector<double> ms = run.latencies;
  if (ms.size() != static_cast<std::size_t>(lines)) {
    throw Failure("case f: " + std::to_string(ms.size()) + " stamped lines of " +
                  std::to_string(lines));
  }
  std::sort(ms.begin(), ms.end());
  const auto p99 = static_cast<std::size_t>(std::ceil(0.99 * static_cast<double>(ms.size()))) - 1;
  rows.push_back(
      {"f", "write-to-print ms, min / median / p99 (" + std::to_string(lines) + " lines)",
       Fixed(ms.front(), 1) + " / " + Fixed(ms[ms.size() / 2], 1) + " / " + Fixed(ms[p99], 1),
       "p99 <= 50"});
}

constexpr const char* kUsage = R"(Usage: FeedLoad [OPTIONS]
Starts norvaned and norvane clients on 127.0.0.1 and prints the feed's cost as ratios measured
in this run. Cases: a one client as fast as possible, b N clients on one busy file, c many
files at a low rate, d the daemon's memory with the most clients of b, e client vs daemon CPU,
f write-to-print latency.
  --case LIST            cases to run, e.g. a,b (default: all)
  --quick                about a minute: smaller volumes and shorter runs
  --a-mb MB              volume of case a (200)            --a-seconds S  its writing bound (60)
  --clients N,N,...      client counts of case b (1,10,100; the last one is case d's)
  --b-rate MB/S          rate of the busy file (1)          --seconds S    length of b and c (10)
  --files N              files of case c (200)              --c-rate KB/S  rate of each (10)
  --c-runs N             runs of case c, the median is its figure (3)
  --files-per-client N   files each client of case c follows (20)
  --f-rate N             stamped lines per second (20)      --f-seconds S  length of f (10)
  --drain S              longest wait for the clients to catch up (120)
  --limit-mb MB          volume of the in-process zlib + Blowfish measurement (256)
  --norvaned PATH, --norvane PATH   the programs to run (default: the ones of this build)
  --keep                 keep the temp directories (they are kept anyway after a failure)
Exit status: 0 every byte checked, 1 a case failed (lost, repeated or altered bytes, a process
that did not behave), 2 usage, 130 interrupted.
)";

std::vector<int> Numbers(const std::string& text) {
  std::vector<int> numbers;
  std::istringstream list(text);
  for (std::string item; std::getline(list, item, ',');) numbers.push_back(std::stoi(item));
  if (numbers.empty()) throw std::invalid_argument("empty list");
  return numbers;
}

void Parse(int argc, char** argv, Settings* s) {
  std::map<std::string, double*> numbers{
      {"--a-mb", &s->a_mb},           {"--a-seconds", &s->a_seconds}, {"--b-rate", &s->b_rate},
      {"--seconds", &s->seconds},     {"--c-rate", &s->c_rate},       {"--f-rate", &s->f_rate},
      {"--f-seconds", &s->f_seconds}, {"--drain", &s->drain},         {"--limit-mb", &s->limit_mb},
      {"--c-runs", &s->c_runs}};
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--quick") {
      s->a_mb = 20, s->a_seconds = 15, s->seconds = 4, s->f_seconds = 4;
      s->drain = 40, s->limit_mb = 32, s->c_runs = 1;
      continue;
    }
    if (arg == "--keep") {
      s->keep = true;
      continue;
    }
    if (arg == "-h" || arg == "--help") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    }
    if (i + 1 >= argc) throw std::invalid_argument("unknown option or missing value: " + arg);
    const std::string value = argv[++i];
    if (auto it = numbers.find(arg); it != numbers.end()) {
      *it->second = std::stod(value);
      if (*it->second <= 0) throw std::invalid_argument(arg + " must be positive");
    } else if (arg == "--case") {
      s->cases = value;
    } else if (arg == "--clients") {
      s->b_clients = Numbers(value);
    } else if (arg == "--files") {
      s->c_files = std::stoi(value);
    } else if (arg == "--files-per-client") {
      s->c_per_client = std::stoi(value);
    } else if (arg == "--norvaned") {
      s->norvaned = value;
    } else if (arg == "--norvane") {
      s->norvane = value;
    } else {
      throw std::invalid_argument("unknown option: " + arg);
    }
  }
  if (s->c_files < 1 || s->c_per_client < 1) throw std::invalid_argument("--files must be >= 1");
  if (s->c_runs < 1) throw std::invalid_argument("--c-runs must be >= 1");
  s->b_rate *= 1e6, s->c_rate *= 1e3;
}

std::string Machine() {
  std::string model = "?";
  std::istringstream lines(ReadFile("/proc/cpuinfo"));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("model name", 0) == 0) {
      model = line.substr(line.find(':') + 2);
      break;
    }
  }
  return std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " CPU(s), " + model;
}

std::string Load() {
  const std::string load = ReadFile("/proc/loadavg");
  return load.substr(0, load.find(' ', load.find(' ', load.find(' ') + 1) + 1));
}

}  // namespace

int main(int argc, char** argv) {
  Settings s;
  try {
    Parse(argc, argv, &s);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "FeedLoad: %s\nTry 'FeedLoad --help'.\n", e.what());
    return 2;
  }
  struct sigaction action {};
  action.sa_handler = [](int) { interrupted = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
  std::random_device random;
  setenv("NORVANE_PASSWORD",
         ("load-" + std::to_string(random()) + std::to_string(random())).c_str(), 1);
  const auto wants = [&](char c) { return s.cases.find(c) != std::string::npos; };

  const std::string machine = Machine(), load_before = Load();
  Note("machine: " + machine + "; load average " + load_before);
  const std::string pool = LogText(8 << 20);
  Limit limit(pool, s.limit_mb);
  int status = 0;
  const auto attempt = [&](bool wanted, const std::string& id, auto&& run_case) {
    if (!wanted || status == 130) return;
    try {
      run_case();
    } catch (const Failure& failure) {
      std::fprintf(stderr, "\nFeedLoad: FAILED: %s\n\n", failure.what());
      rows.push_back({id, interrupted ? "INTERRUPTED" : "FAILED (see above)", "-", ""});
      status = interrupted ? 130 : 1;
    } catch (const std::exception& error) {
      std::fprintf(stderr, "\nFeedLoad: FAILED: %s\n\n", error.what());
      rows.push_back({id, "FAILED (see above)", "-", ""});
      status = 1;
    }
  };
  attempt(wants('a') || wants('e'), "a/e",
          [&] { CaseOneClient(s, pool, limit, wants('a'), wants('e')); });
  attempt(wants('b') || wants('d'), "b/d",
          [&] { CaseManyClients(s, pool, wants('b'), wants('d')); });
  attempt(wants('c'), "c", [&] { CaseManyFiles(s, pool, limit); });
  attempt(wants('f'), "f", [&] { CaseLatency(s, pool); });

  std::printf("\nFeed load, %s; load average %s before, %s after\n", machine.c_str(),
              load_before.c_str(), Load().c_str());
  std::printf("%-4s %-72s %-24s %s\n", "case", "figure", "value", "target");
  for (const Row& row : rows) {
    std::printf("%-4s %-72s %-24s %s\n", row.id.c_str(), row.figure.c_str(), row.value.c_str(),
                row.target.c_str());
  }
  if (std::ifstream("/proc/self/schedstat").good()) {
    std::printf("CPU: run time from /proc/<pid>/schedstat, in nanoseconds.\n");
  } else {
    std::printf(
        "CPU: utime + stime from /proc/<pid>/stat in ticks of %.0f ms; short runs are coarse.\n",
        1e3 / static_cast<double>(sysconf(_SC_CLK_TCK)));
  }
  std::printf("%s\n", status == 0 ? "Every delivered byte checked: count and CRC-32 match."
                                  : "FAILURES above: the figures of failed cases are missing.");
  return status;
}
