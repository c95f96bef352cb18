#include "FWSendQueue.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace {

constexpr std::size_t kMaxPieces = 64;

}  // namespace

void FWSendQueue::Append(std::string data) {
  if (!data.empty()) Append(FWSharedBytes(std::move(data)));
}

void FWSendQueue::Append(const FWSharedBytes& data) {
  if (data.size() == 0) return;
  size_ += data.size();
  messages_.push_back(data);
}

void FWSendQueue::Clear() {
  std::deque<FWSharedBytes>().swap(messages_);
  front_sent_ = 0;
  size_ = 0;
}

std::string FWSendQueue::Text() const {
  std::string text;
  text.reserve(size_);
  for (std::size_t i = 0; i < messages_.size(); ++i) {
    const std::size_t skip = i == 0 ? front_sent_ : 0;
    text.append(messages_[i].data() + skip, messages_[i].size() - skip);
  }
  return text;
}

long FWSendQueue::Send(int socket, std::size_t max) {
  long total = 0;
  while (!messages_.empty() && static_cast<std::size_t>(total) < max) {
    iovec pieces[kMaxPieces];
    std::size_t count = 0;
    std::size_t wanted = 0;
    for (; count < kMaxPieces && count < messages_.size() && wanted < max - total; ++count) {
      const FWSharedBytes& message = messages_[count];
      const std::size_t skip = count == 0 ? front_sent_ : 0;
      const std::size_t length = std::min(message.size() - skip, max - total - wanted);
      pieces[count].iov_base = const_cast<char*>(message.data() + skip);
      pieces[count].iov_len = length;
      wanted += length;
    }
    msghdr header{};
    header.msg_iov = pieces;
    header.msg_iovlen = count;
    // MSG_NOSIGNAL: a peer that reset the connection gives EPIPE instead of SIGPIPE.
    const ssize_t sent = ::sendmsg(socket, &header, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) break;
      return total > 0 ? total : -1;
    }
    total += sent;
    size_ -= static_cast<std::size_t>(sent);
    for (std::size_t left = static_cast<std::size_t>(sent); left > 0;) {
      const std::size_t rest = messages_.front().size() - front_sent_;
      if (left < rest) {
        front_sent_ += left;
        break;
      }
      left -= rest;
      messages_.pop_front();
      front_sent_ = 0;
    }
    if (static_cast<std::size_t>(sent) < wanted) break;  // the socket is full
  }
  if (messages_.empty()) Clear();
  return total;
}
