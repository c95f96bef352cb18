#include "LogFeed.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "FWLogStream.h"
#include "FeedProtocol.h"

namespace {

// The file itself: appended to, truncated, renamed away, deleted (its link count changes).
constexpr unsigned kFileEvents = IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;
// Its directory: a name created, renamed from or to, or deleted.
constexpr unsigned kDirectoryEvents = IN_CREATE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE;

std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string BaseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

long long NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

// ---- One feed ----

LogFeed::LogFeed(std::string root, std::string name)
    : root_(std::move(root)),
      name_(std::move(name)),
      tail_(""),
      codec_(FWFeedCodec::kServerFrameLimit, FWFeedCodec::kServerMessageLimit) {}

int LogFeed::Start() { return tail_.Start(root_, name_); }

void LogFeed::Join(Follower* follower) {
  followers_.push_back(follower);
  Rejoin(follower);
  if (follower->GetOwnTail() != nullptr) Poll();
}

void LogFeed::Leave(Follower* follower) {
  followers_.erase(std::remove(followers_.begin(), followers_.end(), follower), followers_.end());
}

// Frames are made only for the kinds some follower takes, once each.
int LogFeed::Poll(bool check_path) {
  for (Follower* follower : followers_) {
    if (follower->GetOwnTail() != nullptr || !follower->IsHeldBack()) continue;
    // Without a descriptor for its own reader the follower keeps taking frames past its bound:
    // memory grows, but no byte is lost.
    std::unique_ptr<LogTail> own = tail_.Clone(follower->GetReaderPrefix());
    if (own != nullptr) follower->SetOwnTail(std::move(own));
  }
  const LogTail::Step before = tail_.GetStep();
  const std::string data = tail_.Poll(check_path);
  const LogTail::Step after = tail_.GetStep();
  std::vector<FWSharedBytes> replies;
  std::vector<FWSharedBytes> positioned;
  int delivered = 0;
  for (Follower* follower : followers_) {
    if (const LogTail* own = follower->GetOwnTail(); own != nullptr) {
      const LogTail::Step step = own->GetStep();
      if (step == after) {  // it read these bytes itself
        follower->SetOwnTail(nullptr);
        continue;
      }
      if (step != before || follower->IsHeldBack()) continue;
      follower->SetOwnTail(nullptr);
    }
    if (data.empty()) continue;
    const bool positions = follower->WantsPositions();
    std::vector<FWSharedBytes>& frames = positions ? positioned : replies;
    if (frames.empty()) frames = feed::FrameData(codec_, data, tail_.GetPosition(), positions);
    follower->Deliver(frames);
    ++delivered;
  }
  return delivered;
}

void LogFeed::Rejoin(Follower* follower) {
  const LogTail* own = follower->GetOwnTail();
  if (own != nullptr && own->GetStep() == tail_.GetStep()) follower->SetOwnTail(nullptr);
}

bool LogFeed::WantsMore() const {
  if (!tail_.HasMore()) return false;
  return std::any_of(followers_.begin(), followers_.end(), [](Follower* follower) {
    return follower->GetOwnTail() == nullptr && !follower->IsHeldBack();
  });
}

// ---- Every feed, and the watches ----

LogFeeds::LogFeeds() : events_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

LogFeeds::~LogFeeds() {
  feeds_.clear();
  if (events_ >= 0) ::close(events_);
}

LogFeed* LogFeeds::Join(const std::string& root, const std::string& name,
                        LogFeed::Follower* follower) {
  const std::string path = root + "/" + name;
  auto found = feeds_.find(path);
  if (found == feeds_.end()) {
    auto feed = std::make_unique<LogFeed>(root, name);
    if (feed->Start() != 0) return nullptr;
    found = feeds_.emplace(path, std::move(feed)).first;
    Watch(*found->second);
  }
  LogFeed& feed = *found->second;
  feed.Join(follower);  // may poll: the file under the path may be another one now
  Watch(feed);
  return &feed;
}

void LogFeeds::Leave(LogFeed* feed, LogFeed::Follower* follower) {
  feed->Leave(follower);
  if (!feed->IsEmpty()) return;
  RemoveWatch(feed->file_watch_, *feed);
  RemoveWatch(feed->directory_watch_, *feed);
  feeds_.erase(feed->GetPath());
}

// A watch follows an inode: once the feed reads another file under the path, the path is
// watched anew. A path that does not exist yet is noticed through its directory.
void LogFeeds::Watch(LogFeed& feed) {
  if (events_ < 0) return;
  const std::string& path = feed.GetPath();
  if (feed.directory_watch_ < 0) {
    feed.directory_watch_ = AddWatch(DirectoryOf(path), kDirectoryEvents, feed, BaseName(path));
  }
  const LogTail::Step now = feed.GetTail().GetStep();
  if (feed.file_watch_ >= 0 && now.dev == feed.watched_.dev && now.ino == feed.watched_.ino) return;
  RemoveWatch(feed.file_watch_, feed);
  feed.file_watch_ = AddWatch(path, kFileEvents, feed, "");
  feed.watched_ = now;
}

int LogFeeds::AddWatch(const std::string& path, unsigned mask, LogFeed& feed,
                       const std::string& name) {
  const int watch = ::inotify_add_watch(events_, path.c_str(), mask);
  if (watch >= 0) watches_[watch].push_back(Interest{&feed, name});
  return watch;
}

void LogFeeds::RemoveWatch(int& watch, const LogFeed& feed) {
  if (watch < 0) return;
  auto found = watches_.find(watch);
  if (found != watches_.end()) {
    std::vector<Interest>& interests = found->second;
    interests.erase(std::remove_if(interests.begin(), interests.end(),
                                   [&](const Interest& i) { return i.feed == &feed; }),
                    interests.end());
    if (interests.empty()) {
      ::inotify_rm_watch(events_, watch);
      watches_.erase(found);
    }
  }
  watch = -1;
}

void LogFeeds::ReadEvents() {
  if (events_ < 0) return;
  alignas(inotify_event) char buffer[16 * 1024];
  for (;;) {
    const ssize_t length = ::read(events_, buffer, sizeof(buffer));
    if (length <= 0) return;
    for (ssize_t at = 0; at < length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      if ((event->mask & IN_Q_OVERFLOW) != 0) {
        for (auto& entry : feeds_) entry.second->due_ = entry.second->path_changed_ = true;
        continue;
      }
      const auto found = watches_.find(event->wd);
      if (found == watches_.end()) continue;
      for (const Interest& interest : found->second) {
        if (interest.name.empty() || (event->len > 0 && interest.name == event->name)) {
          interest.feed->due_ = true;
          if ((event->mask & IN_MODIFY) == 0) interest.feed->path_changed_ = true;
        }
      }
      // The kernel dropped the watch (its file is gone): the next poll watches the path anew.
      if ((event->mask & IN_IGNORED) != 0) {
        for (const Interest& interest : found->second) {
          if (interest.feed->file_watch_ == event->wd) interest.feed->file_watch_ = -1;
          if (interest.feed->directory_watch_ == event->wd) interest.feed->directory_watch_ = -1;
        }
        watches_.erase(found);
      }
    }
  }
}

int LogFeeds::GetWaitBound() const {
  const long long now = NowMs();
  if (events_ < 0 || now >= next_round_) return -1;
  return static_cast<int>(next_round_ - now);
}

// A feed that only grew is read on without a stat of its path: the watches report any change of
// what the path names. The once-a-second poll checks the path always.
void LogFeeds::PollDue(bool new_second) {
  const long long now = NowMs();
  const bool round = now >= next_round_;
  int polled = 0;
  for (auto& entry : feeds_) {
    LogFeed& feed = *entry.second;
    const bool event = round && feed.due_;
    // The second's poll is for files whose events do not come: an event that waits for its round,
    // or one read at an event within the last second, has shown that they do.
    const bool fallback = new_second && !feed.due_ && now - feed.last_poll_ >= kFallbackMs;
    if (!fallback && !event && !feed.WantsMore()) continue;
    const bool check_path = fallback || feed.path_changed_ || events_ < 0;
    if (event) feed.due_ = feed.path_changed_ = false;
    if (event || fallback) feed.last_poll_ = now;
    const int delivered = feed.Poll(check_path);
    if (event) polled += std::max(delivered, 1);
    Watch(feed);
  }
  if (polled > 0) {
    const long long gap = kMaxRoundGap * polled * polled / (kSessionsAtMaxGap * kSessionsAtMaxGap);
    next_round_ = NowMs() + std::clamp(gap, kMinRoundGap, kMaxRoundGap);
  }
}

bool LogFeeds::IsBusy() const {
  return std::any_of(feeds_.begin(), feeds_.end(),
                     [](const auto& entry) { return entry.second->WantsMore(); });
}
