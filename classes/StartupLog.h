// The lines the daemon logs when it starts: who it is and where it runs, then the configuration
// it runs with.
#ifndef NORVANE_CLASSES_STARTUPLOG_H_
#define NORVANE_CLASSES_STARTUPLOG_H_

class SessionManager;

// Logs a rule of 60 "-", "<display name> starting ...", another rule, then "Version Build Date: "
// (as "%b %d, %Y"), "Current Date: " (mail date format), "OS version: ", "Physical Memory: %dMB"
// and "Directory for temporary files: ", one line each.
void LogStartupBanner();

// Logs "Configuration:" and then the configuration file text of the manager, every line after
// four blanks. A password that is set shows as "********", never as itself.
void LogConfiguration(const SessionManager& manager);

#endif  // NORVANE_CLASSES_STARTUPLOG_H_
