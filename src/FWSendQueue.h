// The bytes a connection still has to send: a queue of whole messages. Sending writes as many of
// them as the socket takes in one sendmsg call and drops what was sent from the front without
// moving the rest; memory goes back as messages are sent.
#ifndef NORVANE_SRC_FWSENDQUEUE_H_
#define NORVANE_SRC_FWSENDQUEUE_H_

#include <cstddef>
#include <deque>
#include <string>

// Not thread-safe; one queue per direction of a connection.
class FWSendQueue {
 public:
  void Append(std::string data);
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
  std::deque<std::string> messages_;
  // Bytes of the front message already sent.
  std::size_t front_sent_ = 0;
  std::size_t size_ = 0;
};

#endif  // NORVANE_SRC_FWSENDQUEUE_H_
