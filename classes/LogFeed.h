// The followed files of the daemon, each read by one feed that every session following the file
// shares: a poll reads the file, converts its line ends, compresses and enciphers the result once,
// and the same frames go to each session that keeps up. The cipher's key is fixed and every frame
// is a whole zlib stream, so a frame made once is byte for byte the frame each session would make.
//
// A session whose unsent output is past its bound when the feed polls does not take the frames:
// it gets a reader of its own at the feed's place (a copy of the feed's reader), catches up from
// there at its own pace, and rejoins the feed once its reader stands where the feed's does. So a
// slow client never holds back the others, never loses a byte, and its memory stays bounded.
//
// Files are watched with inotify (the file, and its directory for renames and re-creation): a
// feed with news is polled on the next pass. The once-a-second poll stays for every feed, for
// files where no event comes.
#ifndef NORVANE_CLASSES_LOGFEED_H_
#define NORVANE_CLASSES_LOGFEED_H_

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "FWFeedCodec.h"
#include "FWSendQueue.h"
#include "LogTail.h"

// Main thread only.
class LogFeed final {
 public:
  // What a feed needs of a session that follows its file. The session owns its own reader while
  // it is not in step with the feed; the feed takes it (SetOwnTail(nullptr)) when the session
  // joins the feed's step and hands it one when the session falls behind.
  class Follower {
   public:
    virtual ~Follower() = default;
    // True while the unsent output is past the session's bound: no frames are taken then.
    virtual bool IsHeldBack() const = 0;
    // Data messages carry their position line ("+FEED DEV INO OFFSET").
    virtual bool WantsPositions() const = 0;
    // Queues one poll's frames for the client.
    virtual void Deliver(const std::vector<FWSharedBytes>& frames) = 0;
    virtual LogTail* GetOwnTail() = 0;
    virtual void SetOwnTail(std::unique_ptr<LogTail> tail) = 0;
    // The log prefix for the reader the follower gets when it falls behind.
    virtual std::string GetReaderPrefix() const = 0;
  };

  LogFeed(std::string root, std::string name);
  LogFeed(const LogFeed&) = delete;
  LogFeed& operator=(const LogFeed&) = delete;

  // Opens the file and records its end, as LogTail::Start does; its errno, 0 when it is followed.
  int Start();
  // Adds a follower that has its own reader on this file (started, and possibly already read
  // from). It joins the feed at once when the two readers are in step, else after the feed has
  // polled once more, else later, when its reader catches up (Rejoin).
  void Join(Follower* follower);
  void Leave(Follower* follower);
  bool IsEmpty() const { return followers_.empty(); }
  // Polls the file once: followers in step get the frames; a follower held back first gets a
  // reader of its own; one with its own reader that stands where the feed stood or stands now
  // joins the feed. Without check_path the path is taken as unchanged (see LogTail::Poll).
  // Returns the number of followers that got frames.
  int Poll(bool check_path = true);
  // After the follower polled its own reader: joins the feed when the two readers are in step.
  void Rejoin(Follower* follower);
  // The file has more unread data than one poll takes, and a follower in step takes it.
  bool WantsMore() const;

  const LogTail& GetTail() const { return tail_; }
  const std::string& GetPath() const { return tail_.GetPath(); }

 private:
  friend class LogFeeds;

  const std::string root_;
  const std::string name_;
  LogTail tail_;
  FWFeedCodec codec_;
  std::vector<Follower*> followers_;
  // Kept by LogFeeds: the watches (-1 for none), the file the file watch follows, and whether an
  // event came since the last poll.
  int file_watch_ = -1;
  int directory_watch_ = -1;
  LogTail::Step watched_;
  bool due_ = false;
  // When an event or the second last read it (steady clock, milliseconds).
  long long last_poll_ = 0;
  // An event may have changed what the path names (not only appended to the open file).
  bool path_changed_ = false;
};

// Every feed of the daemon, by path, and the inotify instance that wakes them.
class LogFeeds final {
 public:
  // Without inotify (no instance left, or none on this system) every feed is polled once a
  // second only.
  LogFeeds();
  ~LogFeeds();
  LogFeeds(const LogFeeds&) = delete;
  LogFeeds& operator=(const LogFeeds&) = delete;

  // Adds the follower to the feed of root/name, started now when no session follows that file
  // yet. Null when the feed cannot be started (the follower then keeps its own reader).
  LogFeed* Join(const std::string& root, const std::string& name, LogFeed::Follower* follower);
  // Removes the follower; a feed without followers closes its file and goes.
  void Leave(LogFeed* feed, LogFeed::Follower* follower);

  // The inotify descriptor to poll for reading; 0 when there is none.
  int GetEventDescriptor() const { return events_ > 0 ? events_ : 0; }
  // While the events wait for their next round (see PollDue) and their descriptor is not to be
  // polled: how long a pass may wait at most, in milliseconds. -1 when they are taken now.
  int GetWaitBound() const;
  // Reads the waiting events and marks the feeds they concern as due.
  void ReadEvents();
  // Polls every feed that wants more and, on a new second, every feed that neither had an event
  // waiting nor was read within the last second. Feeds with events are polled in rounds: a round
  // that sent frames to N sessions (a feed without followers counts as one) is followed by the
  // next after kMaxRoundGap * (N / kSessionsAtMaxGap)^2 ms, at least kMinRoundGap: up to about 28
  // sessions every 20 ms, 100 every quarter of a second, 200 and more once a second, the pace of
  // the second's poll. A write to a quiet file is read within a millisecond of its event, and a
  // few clients see every write within a round; each frame costs a read, a compression and a
  // send whatever it carries, so with many busy sessions the rounds carry up to a second of
  // writes, and the daemon's cost per byte stays near that of compressing and enciphering it.
  void PollDue(bool new_second);
  // A feed wants more: the pass must not wait.
  bool IsBusy() const;

  static constexpr long long kMinRoundGap = 20;
  static constexpr long long kMaxRoundGap = 1000;
  static constexpr long long kSessionsAtMaxGap = 200;
  // A feed not read for this long is read at the next second, events or not.
  static constexpr long long kFallbackMs = 1000;
  std::size_t size() const { return feeds_.size(); }

 private:
  // One feed interested in a watch: in the whole file (name empty) or in one name of a directory.
  struct Interest {
    LogFeed* feed;
    std::string name;
  };

  void Watch(LogFeed& feed);
  int AddWatch(const std::string& path, unsigned mask, LogFeed& feed, const std::string& name);
  void RemoveWatch(int& watch, const LogFeed& feed);

  std::map<std::string, std::unique_ptr<LogFeed>> feeds_;
  int events_ = -1;
  // The earliest time of the next round of events (steady clock, milliseconds).
  long long next_round_ = 0;
  std::unordered_map<int, std::vector<Interest>> watches_;
};

#endif  // NORVANE_CLASSES_LOGFEED_H_
