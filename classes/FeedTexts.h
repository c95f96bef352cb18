// The texts of the log feed protocol, as both ends write and compare them: the daemon's greeting
// and replies, the position line of the extensions, and the defaults a client assumes. Each
// reply ends in "\r\n" and travels as one message of its own.
#ifndef NORVANE_CLASSES_FEEDTEXTS_H_
#define NORVANE_CLASSES_FEEDTEXTS_H_

namespace feed {

// The greeting is the product name followed by this.
inline constexpr const char* kGreetingTail = " Monitoring Service Ready.\r\n";
inline constexpr const char* kLineEnd = "\r\n";

// Login.
inline constexpr const char* kUserAccepted = "+OK\r\n";
inline constexpr const char* kUserUnknown = "-ERR User unknown\r\n";
inline constexpr const char* kLoginAccepted = "+OK Login successful\r\n";
inline constexpr const char* kLoginFailed = "-ERR Login failed (invalid password)\r\n";
// Any other line before login, and after it.
inline constexpr const char* kInvalidCommand = "-ERR invalid command\r\n";
inline constexpr const char* kUnrecognizedCommand = "-ERR unrecognized command\r\n";

// After login. A listing is one message per name (name + "\r\n"), then kListEnd.
inline constexpr const char* kListEnd = "+OK\r\n";
// Followed by the full path of the file and "\r\n".
inline constexpr const char* kStarted = "+OK start transmitting ";
inline constexpr const char* kNotOffered = "-ERR invalid logfile name\r\n";
// Followed by the name, ": ", the system's reason and "\r\n".
inline constexpr const char* kCannotRead = "-ERR can't read ";
inline constexpr const char* kBadArguments = "-ERR bad arguments\r\n";
inline constexpr const char* kStopped = "+OK logfile transmission stopped\r\n";
inline constexpr const char* kClosing = "+OK closing connection\r\n";

// The position line that begins each data message after "backlog" or "resume":
// "+FEED DEV INO OFFSET[ NOTE]\r\n".
inline constexpr const char* kFeedHead = "+FEED ";
// The notes of the first message after "resume".
inline constexpr const char* kNoteContinued = "continued";
inline constexpr const char* kNoteRotated = "rotated";
inline constexpr const char* kNoteTruncated = "truncated";
inline constexpr const char* kNoteGone = "gone";

// What a port and a client take when nothing else is said.
inline constexpr int kDefaultPort = 9080;
inline constexpr const char* kDefaultUser = "logwatcher";
// Everyone who has the product knows it, so a port that keeps it admits loopback clients only.
inline constexpr const char* kDefaultPassword = "Kem01&*sB";

}  // namespace feed

#endif  // NORVANE_CLASSES_FEEDTEXTS_H_
