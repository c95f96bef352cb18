// norvaned: hands this host's log files to remote monitoring clients.
//
// The daemon takes no options. It detaches, moves into the directory of its executable when it
// was started through a path that holds a "/", and keeps its pid file, its log and its
// configuration there, all named after the product ("Norvane.pid", "Norvane.log", "Norvane.cf").
// It serves until SIGINT or SIGTERM and always exits with status 0.
#include <signal.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "FWException.h"
#include "FWIniParser.h"
#include "FWLogStream.h"
#include "FWProduct.h"
#include "FWStringUtils.h"
#include "SessionManager.h"

// The one session manager of the process; null until it is built. Owned by main.
SessionManager* ManagerInstance = nullptr;

// The number of the signal that ends the loop; 0 while the loop goes on. Written only by
// signal_handler.
volatile std::sig_atomic_t loop_terminated = 0;

namespace {

// Stores the signal and does nothing else: no logging, locking or I/O in a handler.
void signal_handler(int signal_number) { loop_terminated = signal_number; }

// Started through a path with a "/" (absolute or relative): work in the executable's directory
// and record the pid there. Started by bare name through the search path: keep the inherited
// directory and write no pid file. The asymmetry is intended. Failures are not reported.
void SettleWorkingDirectory(const std::string& program_path) {
  const std::size_t slash = program_path.rfind('/');
  if (slash == std::string::npos) return;
  const std::string directory = program_path.substr(0, slash + 1);
  if (chdir(directory.c_str()) != 0) {
    // The files then go to the inherited directory; there is nowhere to report this yet.
  }
  try {
    FWStringUtils::SaveToFile(FWStringUtils::GetDefaultInstance().Int2Str(getpid()) + "\n",
                              FWProduct::GetName() + ".pid");
  } catch (const FWException&) {
    // An unwritable pid file does not stop the daemon.
  }
}

// SIGINT and SIGTERM end the loop. SIGPIPE is ignored: a peer that reset its connection must
// never end the process (sends also pass MSG_NOSIGNAL).
void InstallSignals() {
  signal(SIGINT, signal_handler);
  signal(SIGTERM, signal_handler);
  signal(SIGPIPE, SIG_IGN);
}

// Reads the configuration (a missing or unreadable file leaves the defaults; a file that does not
// parse throws), starts the manager and runs the loop until a signal arrives.
void Serve(SessionManager& manager) {
  FWIniParser parser("1.0", true);
  parser.ParseToObject(manager, FWProduct::GetName() + ".cf", true);
  InstallSignals();
  manager.Init();
  // Reset after Init on purpose: a signal during Init is forgotten and the daemon runs on.
  loop_terminated = 0;
  do {
    manager.Select();
  } while (loop_terminated == 0);
  LogStream.Log("going down on signal " +
                FWStringUtils::GetDefaultInstance().Int2Str(loop_terminated));
}

}  // namespace

int main(int argc, char* argv[]) {
  std::vector<std::string> arguments(argc);
  for (int i = 0; i < argc; ++i) arguments[i] = argv[i];

  if (daemon(1, 0) != 0) {
    // Failing to detach is not reported: the daemon then serves in the foreground.
  }
  if (!arguments.empty()) SettleWorkingDirectory(arguments[0]);
  LogStream.OpenFile(FWProduct::GetName() + ".log", false);
  ManagerInstance = new SessionManager();

  try {
    Serve(*ManagerInstance);
  } catch (const FWException& e) {
    LogStream.Log(e.GetText());
  } catch (...) {
    LogStream.Log("Unhandled exception.");
  }

  ManagerInstance->Exit();
  delete ManagerInstance;
  ManagerInstance = nullptr;
  LogStream.Close();
  return 0;
}
