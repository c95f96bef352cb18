#include "FWFeedCodec.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

#include <zlib.h>

#include "FWException.h"
#include "FWStringUtils.h"

namespace {

// Errors name the session that uses the codec as their source; the operation names are the
// product's own and are kept.
constexpr const char* kSource = "MonitoringSession";
constexpr const char* kDeflateOperation = "ProxySession::Deflate";
constexpr const char* kInflateOperation = "ProxySession::Inflate";
constexpr int kLevel = 1;  // fastest: frames are made on the service thread on every poll
// Output grows from this size; zlib's counters are 32-bit, so input and output are handed over in
// pieces of at most kMaxPiece bytes.
constexpr std::size_t kChunk = 100000;
constexpr std::size_t kMaxPiece = std::size_t{1} << 30;
// Above this capacity an emptied receive buffer gives its memory back.
constexpr std::size_t kKeptCapacity = 64 * 1024;

[[noreturn]] void ThrowZlib(unsigned line, const char* operation, const char* prefix, int result) {
  throw FWEOperationFailed(kSource, line, std::string(operation),
                           FWStringUtils::Printf("%s%d", prefix, result));
}

Bytef* ZBytes(char* p) { return reinterpret_cast<Bytef*>(p); }
Bytef* ZBytes(const char* p) { return reinterpret_cast<Bytef*>(const_cast<char*>(p)); }

// Hands zlib the next piece of input once it has used up the last one; returns false when no
// input is left.
bool FeedInput(z_stream& z, std::string_view input, std::size_t& in_pos) {
  if (z.avail_in != 0) return true;
  if (in_pos == input.size()) return false;
  const std::size_t piece = std::min(input.size() - in_pos, kMaxPiece);
  z.next_in = ZBytes(input.data() + in_pos);
  z.avail_in = static_cast<uInt>(piece);
  in_pos += piece;
  return true;
}

// Points zlib at the free end of out, growing it (at most to cap bytes) when it is full. Returns
// the room given.
std::size_t ProvideOutput(z_stream& z, std::string& out, std::size_t out_pos, std::size_t cap) {
  if (out_pos == out.size()) out.resize(std::min(cap, std::max(kChunk, out.size() * 2)));
  const std::size_t room = std::min(out.size() - out_pos, kMaxPiece);
  z.next_out = ZBytes(out.data() + out_pos);
  z.avail_out = static_cast<uInt>(room);
  return room;
}

// Owns a deflate stream that is reset for every message instead of being made anew: a fresh
// stream costs more than compressing a typical message (zlib clears its tables on every init).
// A reset stream produces exactly the bytes a fresh one would: level 1, zlib's default window and
// memory settings, so a frame is byte for byte what any zlib at these settings makes of it.
class DeflateStream {
 public:
  DeflateStream() {
    const int result = deflateInit(&z_, kLevel);
    if (result != Z_OK) ThrowZlib(__LINE__, kDeflateOperation, "deflateInit: ", result);
  }
  ~DeflateStream() { deflateEnd(&z_); }
  DeflateStream(const DeflateStream&) = delete;
  DeflateStream& operator=(const DeflateStream&) = delete;

  // The stream of this thread: frames are made on one thread at a time per codec, and one stream
  // a thread serves every codec on it.
  static DeflateStream& OfThisThread() {
    thread_local DeflateStream stream;
    return stream;
  }

  // Appends first and then second to out as one complete zlib stream: the compressed data, a
  // sync flush point, then the final block (the bytes of one input made of both). out grows by
  // exactly the stream, plus room for the cipher's padding: frames wait in send queues, and room
  // that zlib's bound asked for would triple their memory.
  void Compress(std::string_view first, std::string_view second, std::string& out);

 private:
  // One deflate call into the scratch from out_pos on; Z_OK or Z_STREAM_END.
  int Deflate(int flush, std::size_t& out_pos);

  z_stream z_{};
  // zlib writes here first. Its size only grows, so it is neither cleared nor allocated again,
  // unless a large message made it larger than kKeptScratch.
  std::string scratch_;
  static constexpr std::size_t kKeptScratch = 1 << 20;
};

void DeflateStream::Compress(std::string_view first, std::string_view second, std::string& out) {
  const int reset = deflateReset(&z_);
  if (reset != Z_OK) ThrowZlib(__LINE__, kDeflateOperation, "deflateInit: ", reset);
  z_.avail_in = 0;  // a message that failed may have left input behind
  std::size_t out_pos = 0;
  // Room for the whole stream in most cases: the bound plus the sync flush marker.
  const std::size_t room = deflateBound(&z_, first.size() + second.size()) + 16;
  if (scratch_.size() < room) scratch_.resize(room);
  for (const std::string_view input : {first, second}) {
    for (std::size_t in_pos = 0; FeedInput(z_, input, in_pos);) Deflate(Z_NO_FLUSH, out_pos);
  }
  // A sync flush is complete when it returns with output room to spare.
  do {
    Deflate(Z_SYNC_FLUSH, out_pos);
  } while (z_.avail_out == 0);
  while (Deflate(Z_FINISH, out_pos) != Z_STREAM_END) {
  }
  out.reserve(out.size() + out_pos + 8);
  out.append(scratch_.data(), out_pos);
  if (scratch_.size() > kKeptScratch) std::string().swap(scratch_);
}

int DeflateStream::Deflate(int flush, std::size_t& out_pos) {
  const std::size_t given =
      ProvideOutput(z_, scratch_, out_pos, std::numeric_limits<std::size_t>::max());
  const int result = deflate(&z_, flush);
  out_pos += given - z_.avail_out;
  if (result != Z_OK && result != Z_STREAM_END) {
    ThrowZlib(__LINE__, kDeflateOperation, "deflate: ", result);
  }
  return result;
}

// Owns an inflate stream that is reset for every message, like DeflateStream.
class InflateStream {
 public:
  InflateStream() {
    const int result = inflateInit(&z_);
    if (result != Z_OK) ThrowZlib(__LINE__, kInflateOperation, "inflateInit: ", result);
  }
  ~InflateStream() { inflateEnd(&z_); }
  InflateStream(const InflateStream&) = delete;
  InflateStream& operator=(const InflateStream&) = delete;

  static InflateStream& OfThisThread() {
    thread_local InflateStream stream;
    return stream;
  }

  // Decompresses input into *out; false as soon as the output exceeds max_output bytes.
  bool Decompress(std::string_view input, std::size_t max_output, std::string* out);

 private:
  z_stream z_{};
};

bool InflateStream::Decompress(std::string_view input, std::size_t max_output, std::string* out) {
  // One byte past the limit is room enough to notice that the limit is passed.
  const std::size_t cap =
      max_output == std::numeric_limits<std::size_t>::max() ? max_output : max_output + 1;
  const int reset = inflateReset(&z_);
  if (reset != Z_OK) ThrowZlib(__LINE__, kInflateOperation, "inflateInit: ", reset);
  z_.avail_in = 0;
  std::size_t in_pos = 0;
  std::size_t out_pos = 0;
  // Log text compresses about four to one; the output grows when it needs more.
  out->resize(std::min(cap, input.size() * 4 + 64));
  for (;;) {
    const bool input_left = FeedInput(z_, input, in_pos);
    const std::size_t room = ProvideOutput(z_, *out, out_pos, cap);
    const int result = inflate(&z_, Z_SYNC_FLUSH);
    out_pos += room - z_.avail_out;
    if (out_pos > max_output) return false;
    if (result == Z_STREAM_END) break;
    // The input ended before the stream did: what was decoded is the message.
    if (result == Z_BUF_ERROR && !input_left) break;
    if (result != Z_OK) ThrowZlib(__LINE__, kInflateOperation, "inflate: ", result);
  }
  out->resize(out_pos);
  return true;
}

// Appends one complete zlib stream for the non-empty input first + second to out; nothing for
// empty input.
void AppendCompressed(std::string_view first, std::string_view second, std::string& out) {
  if (!first.empty() || !second.empty()) {
    DeflateStream::OfThisThread().Compress(first, second, out);
  }
}

std::uint32_t ReadBigEndian(const char* p) {
  const auto byte = [p](int i) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(p[i]));
  };
  return byte(0) << 24 | byte(1) << 16 | byte(2) << 8 | byte(3);
}

bool IsSyncMarker(const char* p) { return p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 0; }

const Blowfish& FeedCipher() {
  static const Blowfish cipher(FWFeedCodec::kFeedKey);
  return cipher;
}

}  // namespace

FWFeedCodec::FWFeedCodec(std::size_t frame_limit, std::size_t message_limit)
    : cipher_(FeedCipher()), frame_limit_(frame_limit), message_limit_(message_limit) {}

// The message is compressed straight behind the header and enciphered in place: one buffer.
std::string FWFeedCodec::Frame(std::string_view message, std::string_view more) const {
  std::string frame(kHeaderSize, '\0');
  AppendCompressed(message, more, frame);
  const std::size_t body_size = frame.size() - kHeaderSize;
  if (body_size > std::numeric_limits<std::uint32_t>::max()) {
    throw FWESizeExceeded(kSource, __LINE__, std::string("frame over 4294967295 bytes"));
  }
  const auto length = static_cast<std::uint32_t>(body_size);
  for (int i = 0; i < 4; ++i) frame[4 + i] = static_cast<char>(length >> (24 - 8 * i));
  cipher_.Encrypt(frame, kHeaderSize);
  return frame;
}

void FWFeedCodec::Append(std::string_view bytes) {
  if (failure_ != Result::kNeedMore) return;
  buffer_.append(bytes);
}

FWFeedCodec::Result FWFeedCodec::Next(std::string* message) {
  if (failure_ != Result::kNeedMore) return failure_;
  const std::size_t available = buffer_.size() - read_pos_;
  if (available < kHeaderSize) {
    Compact();
    return Result::kNeedMore;
  }
  const char* const header = buffer_.data() + read_pos_;
  if (!IsSyncMarker(header)) return Fail(Result::kLostSync);
  const std::uint32_t length = ReadBigEndian(header + 4);
  if (length > frame_limit_) return Fail(Result::kFrameTooLarge);
  const std::uint64_t padded = (std::uint64_t{length} + 7) / 8 * 8;
  if (available - kHeaderSize < padded) {
    Compact();
    // The room for the whole frame at once, instead of growing it step by step as it comes.
    buffer_.reserve(kHeaderSize + static_cast<std::size_t>(padded));
    return Result::kNeedMore;
  }
  // Deciphered and inflated where it lies: a large message is not copied on its way.
  char* const body = buffer_.data() + read_pos_ + kHeaderSize;
  read_pos_ += kHeaderSize + static_cast<std::size_t>(padded);
  cipher_.DecipherBlocks(body, static_cast<std::size_t>(padded));
  message->clear();
  if (length > 0 && !InflateStream::OfThisThread().Decompress(std::string_view(body, length),
                                                              message_limit_, message)) {
    return Fail(Result::kMessageTooLarge);
  }
  return Result::kMessage;
}

void FWFeedCodec::Clear() {
  std::string().swap(buffer_);
  read_pos_ = 0;
  failure_ = Result::kNeedMore;
}

FWFeedCodec::Result FWFeedCodec::Fail(Result result) {
  Clear();
  failure_ = result;
  return result;
}

void FWFeedCodec::Compact() {
  buffer_.erase(0, read_pos_);
  read_pos_ = 0;
  if (buffer_.empty() && buffer_.capacity() > kKeptCapacity) std::string().swap(buffer_);
}

void FWFeedCodec::Deflate(std::string& data) {
  std::string compressed;
  AppendCompressed(data, {}, compressed);
  data = std::move(compressed);
}

void FWFeedCodec::Inflate(std::string& data, std::size_t max_output) {
  if (!InflateWithin(data, max_output)) {
    throw FWESizeExceeded(kSource, __LINE__,
                          FWStringUtils::Printf("inflated message over %zu bytes", max_output));
  }
}

bool FWFeedCodec::InflateWithin(std::string& data, std::size_t max_output) {
  if (data.empty()) return true;
  std::string text;
  if (!InflateStream::OfThisThread().Decompress(data, max_output, &text)) return false;
  data = std::move(text);
  return true;
}
