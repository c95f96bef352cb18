// The log feed's message codec: every message travels as one frame, compressed with zlib,
// enciphered with Blowfish under the fixed feed key and prefixed with an eight-byte header.
//
// Frame layout (frames follow each other with nothing in between):
//   bytes 0..3  four 0x00 bytes (the sync marker)
//   bytes 4..7  L, the length of the compressed message before padding, unsigned 32-bit,
//               most significant byte first
//   bytes 8..   the compressed message (one complete zlib stream; none at all for an empty
//               message, so L = 0) padded with 0x01 bytes to P = L rounded up to a multiple of 8,
//               then enciphered block by block (see Blowfish)
#ifndef NORVANE_SRC_FWFEEDCODEC_H_
#define NORVANE_SRC_FWFEEDCODEC_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "FWBlowfish.h"

// One end of a feed connection: frames outgoing messages and reassembles incoming frames into
// messages. Each connection (session) owns its own codec; the object holds the keyed cipher and
// the received bytes that do not yet form a whole frame. Not thread-safe; copyable.
//
// Receiving: Append the bytes read from the socket, then call Next until it returns kNeedMore
// (or a failure). Memory stays bounded for any input as long as the caller does so: the buffer
// then never holds more than one incomplete frame (at most 8 + the frame limit + 7 bytes) plus
// the bytes of the last Append, and no frame longer than the frame limit is ever buffered whole.
//
// Errors: zlib failures throw FWEOperationFailed with the source "MonitoringSession", e.g.
// "ProxySession::Inflate operation failed (inflate: -3)". A message inflating past a limit is
// FWESizeExceeded from Inflate, "Size exceeded (inflated message over N bytes)"; Next reports
// it as kMessageTooLarge instead.
class FWFeedCodec {
 public:
  // The fixed key of the feed, the same for both directions and every session.
  static constexpr const char* kFeedKey = "qgbcnn1HCRNb91390sSMBHbr2JN%&?%&";
  static constexpr std::size_t kHeaderSize = 8;
  // Limits for a server reading a client's frames: a larger L or message ends the session.
  static constexpr std::size_t kServerFrameLimit = 1024 * 1024;
  static constexpr std::size_t kServerMessageLimit = 1024 * 1024;
  // Limits for a client reading a server's frames.
  static constexpr std::size_t kClientFrameLimit = 64 * 1024 * 1024;
  static constexpr std::size_t kClientMessageLimit = 256 * 1024 * 1024;

  enum class Result {
    kNeedMore,         // no whole frame buffered: Append more bytes
    kMessage,          // *message holds the next message
    kLostSync,         // a frame did not start with four zero bytes
    kFrameTooLarge,    // a frame's L exceeds the frame limit
    kMessageTooLarge,  // a message inflates past the message limit
  };

  // Keys the cipher with kFeedKey. frame_limit is the largest L accepted, message_limit the
  // largest inflated message.
  FWFeedCodec(std::size_t frame_limit, std::size_t message_limit);

  // The whole frame for a message; with `more`, for the message message + more, without joining
  // them first. Throws FWEOperationFailed on a zlib failure.
  std::string Frame(std::string_view message, std::string_view more = {}) const;

  // Buffers received bytes. Ignored after a failure result, until Clear().
  void Append(std::string_view bytes);
  // Takes the next whole frame off the buffer. kMessage: *message is replaced by its text.
  // The three failure results are final: the buffered input is discarded and every later call
  // returns the same result until Clear(). A zlib failure throws FWEOperationFailed after the
  // failing frame has been taken off the buffer; the following frames stay buffered.
  Result Next(std::string* message);
  // Empties the buffer and forgets a failure result.
  void Clear();
  // Replaces the limits for the frames not yet taken (a server raises them after login).
  void SetLimits(std::size_t frame_limit, std::size_t message_limit) {
    frame_limit_ = frame_limit;
    message_limit_ = message_limit;
  }
  // Bytes received and not yet taken as a frame.
  std::size_t GetBufferedSize() const { return buffer_.size() - read_pos_; }

  // Replaces data by one complete zlib stream (level 1, a sync flush point before the final
  // block); an empty string stays empty. Throws FWEOperationFailed.
  static void Deflate(std::string& data);
  // Replaces data by its decompressed form. Decoding stops at the end of the zlib stream; a
  // stream that ends without its final block yields what it holds. An empty string stays empty.
  // Throws FWEOperationFailed for a corrupt stream and FWESizeExceeded, without growing further,
  // when the output would exceed max_output bytes.
  static void Inflate(std::string& data, std::size_t max_output);

 private:
  // Inflate without the size exception: false when the output would exceed max_output.
  static bool InflateWithin(std::string& data, std::size_t max_output);
  Result Fail(Result result);
  void Compact();

  // The cipher keyed with kFeedKey, one for the whole process: its tables stay in the cache
  // while many feeds and sessions take turns, and no codec pays for the key schedule.
  const Blowfish& cipher_;
  std::size_t frame_limit_;
  std::size_t message_limit_;
  std::string buffer_;
  // Start of the unread part of buffer_; consumed bytes are dropped when Next runs dry.
  std::size_t read_pos_ = 0;
  Result failure_ = Result::kNeedMore;
};

#endif  // NORVANE_SRC_FWFEEDCODEC_H_
