// norvaned: hands this host's log files to remote monitoring clients.
//
// Until the service is assembled, the program only says what it is and what it will run.
#include <cstdio>

int main() {
  std::printf(
      "norvaned %s: the framework is built; the log-feed service is not assembled yet.\n"
      "When it is, norvaned will detach, read Norvane.cf beside itself and serve log files.\n",
      NORVANE_VERSION);
  return 0;
}
