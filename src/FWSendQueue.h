// The bytes a connection still has to send: a queue of whole messages, some of them shared with
// other connections (one frame of a followed file goes to every session that follows it). Sending
// writes as many of them as the socket takes in one sendmsg call and drops what was sent from the
// front without moving the rest; memory goes back as messages are sent.
#ifndef NORVANE_SRC_FWSENDQUEUE_H_
#define NORVANE_SRC_FWSENDQUEUE_H_

#include <cstddef>
#include <deque>
#include <string>
#include <utility>

// Immutable bytes that several queues hold without copying. The count is a plain integer: one
// thread only. (No std::shared_ptr: the sanitizer's first check of its polymorphic control block
// needs a descriptor, and the daemon must keep working when it has none left.)
class FWSharedBytes {
 public:
  FWSharedBytes() = default;
  explicit FWSharedBytes(std::string bytes) : block_(new Block{std::move(bytes), 1}) {}
  FWSharedBytes(const FWSharedBytes& other) noexcept : block_(other.block_) {
    if (block_ != nullptr) ++block_->refs;
  }
  FWSharedBytes(FWSharedBytes&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  FWSharedBytes& operator=(FWSharedBytes other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~FWSharedBytes() {
    if (block_ != nullptr && --block_->refs == 0) delete block_;
  }

  const char* data() const { return block_ != nullptr ? block_->bytes.data() : ""; }
  std::size_t size() const { return block_ != nullptr ? block_->bytes.size() : 0; }

 private:
  struct Block {
    std::string bytes;
    std::size_t refs;
  };
  Block* block_ = nullptr;
};

// Not thread-safe; one queue per direction of a connection.
class FWSendQueue {
 public:
  void Append(std::string data);
  void Append(const FWSharedBytes& data);
  void Clear();

  // Unsent bytes.
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // The unsent bytes as one text (for tests and diagnostics; copies).
  std::string Text() const;

  // Writes from the front of the queue to a non-blocking socket until it would block, the queue
  // is empty, or max bytes went (one writev of up to 64 messages a call). Returns the bytes sent;
  // -1 with errno set on a failure other than would-block or an interrupted call (nothing is
  // dropped then).
  long Send(int socket, std::size_t max);

 private:
  std::deque<FWSharedBytes> messages_;
  // Bytes of the front message already sent.
  std::size_t front_sent_ = 0;
  std::size_t size_ = 0;
};

#endif  // NORVANE_SRC_FWSENDQUEUE_H_
