#include "FWFeedCodec.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "FWBlowfish.h"
#include "FWException.h"

namespace {

using Result = FWFeedCodec::Result;

constexpr std::size_t kMiB = 1024 * 1024;

std::string FromHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

std::string Header(std::uint32_t length) {
  std::string header(4, '\0');
  for (int shift = 24; shift >= 0; shift -= 8) header.push_back(static_cast<char>(length >> shift));
  return header;
}

// Plain zlib, independent of the codec: the whole of a zlib stream, expected to be `size` bytes.
std::string Uncompress(const std::string& stream, std::size_t size) {
  std::string out(size, '\0');
  uLongf out_length = size;
  const int result = uncompress(reinterpret_cast<Bytef*>(out.data()), &out_length,
                                reinterpret_cast<const Bytef*>(stream.data()), stream.size());
  EXPECT_EQ(result, Z_OK);
  out.resize(out_length);
  return out;
}

// Log-like text that compresses well, or random bytes that do not.
std::string BigMessage(std::size_t size, bool random) {
  std::mt19937 rng(42);
  std::string s;
  s.reserve(size + 64);
  while (s.size() < size) {
    if (random) {
      s.push_back(static_cast<char>(rng()));
    } else {
      s += "line " + std::to_string(rng() % 100000) + " of the log\r\n";
    }
  }
  s.resize(size);
  return s;
}

class FWFeedCodecTest : public ::testing::Test {
 protected:
  // The frame body deciphered by a cipher keyed apart from the codec: L and the P plain bytes.
  static std::uint32_t OpenFrame(const std::string& frame, std::string* plain) {
    EXPECT_GE(frame.size(), FWFeedCodec::kHeaderSize);
    EXPECT_EQ(frame.substr(0, 4), std::string(4, '\0'));
    const auto byte = [&frame](int i) { return static_cast<std::uint32_t>(frame[i] & 0xFF); };
    const std::uint32_t length = byte(4) << 24 | byte(5) << 16 | byte(6) << 8 | byte(7);
    *plain = frame.substr(FWFeedCodec::kHeaderSize);
    const Blowfish cipher(FWFeedCodec::kFeedKey);
    cipher.Decrypt(*plain, static_cast<unsigned>(plain->size()));
    return length;
  }

  // Appends the input in pieces of the given size and collects every message until kNeedMore.
  static std::vector<std::string> Read(FWFeedCodec& codec, const std::string& input,
                                       std::size_t piece) {
    std::vector<std::string> messages;
    for (std::size_t i = 0; i < input.size(); i += piece) {
      codec.Append(std::string_view(input).substr(i, piece));
      std::string message;
      while (codec.Next(&message) == Result::kMessage) messages.push_back(message);
    }
    return messages;
  }

  FWFeedCodec server_{FWFeedCodec::kServerFrameLimit, FWFeedCodec::kServerMessageLimit};
  FWFeedCodec client_{FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit};
};

}  // namespace

// Expected streams from zlib at level 1 with a sync flush before the end (checked apart).
TEST_F(FWFeedCodecTest, DeflateMakesOneCompleteLevelOneStreamWithSyncPoint) {
  std::string data = "hello\r\n";
  FWFeedCodec::Deflate(data);
  EXPECT_EQ(data, FromHex("7801ca48cdc9c9e7e502000000ffff03000a7a022c"));
  std::string empty;
  FWFeedCodec::Deflate(empty);
  EXPECT_EQ(empty, "");
  FWFeedCodec::Inflate(data, 7);
  EXPECT_EQ(data, "hello\r\n");
}

TEST_F(FWFeedCodecTest, FrameOfFiveByteRemainderIsPaddedWithOneBytes) {
  const std::string frame = server_.Frame("hello\r\n");
  ASSERT_EQ(frame.size(), 8u + 24u);
  EXPECT_EQ(frame.substr(0, 8), std::string("\0\0\0\0\0\0\0\x15", 8));
  std::string plain;
  ASSERT_EQ(OpenFrame(frame, &plain), 21u);
  EXPECT_EQ(plain, FromHex("7801ca48cdc9c9e7e502000000ffff03000a7a022c") + "\x01\x01\x01");
  EXPECT_EQ(Uncompress(plain.substr(0, 21), 7), "hello\r\n");
}

TEST_F(FWFeedCodecTest, FrameOfWholeBlocksHasNoPadding) {
  const std::string frame = server_.Frame("abcdefghij");
  ASSERT_EQ(frame.size(), 8u + 24u);
  EXPECT_EQ(frame.substr(0, 8), std::string("\0\0\0\0\0\0\0\x18", 8));
  std::string plain;
  ASSERT_EQ(OpenFrame(frame, &plain), 24u);
  EXPECT_EQ(plain, FromHex("78014a4c4a4e494d4bcfc8cc02000000ffff0300158603f8"));
}

TEST_F(FWFeedCodecTest, EmptyMessageIsTheEightHeaderBytesAlone) {
  const std::string frame = server_.Frame("");
  EXPECT_EQ(frame, std::string(8, '\0'));
  server_.Append(frame);
  std::string message = "previous";
  EXPECT_EQ(server_.Next(&message), Result::kMessage);
  EXPECT_EQ(message, "");
  EXPECT_EQ(server_.Next(&message), Result::kNeedMore);
}

TEST_F(FWFeedCodecTest, OneByteReadsAndOneBigReadGiveTheSameMessagesInOrder) {
  const std::vector<std::string> sent = {"user admin\r\n", "", "pass secret\r\n",
                                         BigMessage(5000, true), "quit\r\n"};
  std::string stream;
  for (const std::string& m : sent) stream += client_.Frame(m);
  EXPECT_EQ(Read(server_, stream, 1), sent);
  EXPECT_EQ(server_.GetBufferedSize(), 0u);
  EXPECT_EQ(Read(server_, stream, stream.size()), sent);
  EXPECT_EQ(Read(server_, stream, 7), sent);
}

TEST_F(FWFeedCodecTest, PartialFrameWaitsForTheRest) {
  const std::string frame = server_.Frame("list\r\n");
  std::string message;
  server_.Append(frame.substr(0, 7));
  EXPECT_EQ(server_.Next(&message), Result::kNeedMore);
  server_.Append(frame.substr(7, frame.size() - 8));
  EXPECT_EQ(server_.Next(&message), Result::kNeedMore);
  EXPECT_EQ(server_.GetBufferedSize(), frame.size() - 1);
  server_.Append(frame.substr(frame.size() - 1));
  EXPECT_EQ(server_.Next(&message), Result::kMessage);
  EXPECT_EQ(message, "list\r\n");
}

TEST_F(FWFeedCodecTest, WrongSyncMarkerStopsReadingEvenBeforeAValidFrame) {
  const std::string good = server_.Frame("stop\r\n");
  std::string bad = good;
  bad[3] = '\x01';
  const std::vector<std::string> messages = Read(server_, good + bad + good, 1000);
  EXPECT_EQ(messages, std::vector<std::string>{"stop\r\n"});
  std::string message;
  EXPECT_EQ(server_.Next(&message), Result::kLostSync);
  EXPECT_EQ(server_.GetBufferedSize(), 0u);
  server_.Append(good);
  EXPECT_EQ(server_.Next(&message), Result::kLostSync);
  EXPECT_EQ(server_.GetBufferedSize(), 0u);
  server_.Clear();
  server_.Append(good);
  EXPECT_EQ(server_.Next(&message), Result::kMessage);
  EXPECT_EQ(message, "stop\r\n");
}

// --- Bounded input ---

TEST_F(FWFeedCodecTest, FrameLengthOverTheLimitIsReportedFromTheHeaderAlone) {
  std::string message;
  server_.Append(Header(FWFeedCodec::kServerFrameLimit));
  EXPECT_EQ(server_.Next(&message), Result::kNeedMore);
  server_.Clear();
  server_.Append(Header(FWFeedCodec::kServerFrameLimit + 1));
  EXPECT_EQ(server_.Next(&message), Result::kFrameTooLarge);
  EXPECT_EQ(server_.Next(&message), Result::kFrameTooLarge);
  client_.Append(Header(FWFeedCodec::kClientFrameLimit + 1));
  EXPECT_EQ(client_.Next(&message), Result::kFrameTooLarge);
  FWFeedCodec small(16, 100);
  small.Append(Header(0xFFFFFFFF));
  EXPECT_EQ(small.Next(&message), Result::kFrameTooLarge);
}

TEST_F(FWFeedCodecTest, FrameOfExactlyTheLimitIsAccepted) {
  // Random bytes do not compress: find a message whose compressed length is exactly 1 MiB.
  const std::string source = BigMessage(kMiB, true);
  std::size_t size = kMiB - 1024;
  const auto compressed_length = [&source](std::size_t n) {
    std::string data = source.substr(0, n);
    FWFeedCodec::Deflate(data);
    return data.size();
  };
  for (int step = 0; step < 20 && compressed_length(size) != kMiB; ++step) {
    size = size + kMiB - compressed_length(size);
  }
  const std::string frame = client_.Frame(source.substr(0, size));
  std::string plain;
  ASSERT_EQ(OpenFrame(frame, &plain), kMiB);
  server_.Append(frame);
  std::string message;
  ASSERT_EQ(server_.Next(&message), Result::kMessage);
  EXPECT_EQ(message, source.substr(0, size));
}

TEST_F(FWFeedCodecTest, MessageInflatingPastTheLimitIsReported) {
  std::string message;
  server_.Append(client_.Frame(std::string(FWFeedCodec::kServerMessageLimit, 'x')));
  ASSERT_EQ(server_.Next(&message), Result::kMessage);
  EXPECT_EQ(message.size(), FWFeedCodec::kServerMessageLimit);
  server_.Append(client_.Frame(std::string(FWFeedCodec::kServerMessageLimit + 1, 'x')));
  server_.Append(client_.Frame("quit\r\n"));
  EXPECT_EQ(server_.Next(&message), Result::kMessageTooLarge);
  EXPECT_EQ(server_.GetBufferedSize(), 0u);
  EXPECT_EQ(server_.Next(&message), Result::kMessageTooLarge);
}

TEST_F(FWFeedCodecTest, InflateThrowsSizeExceededOnePastTheLimit) {
  std::string at_limit = "0123456789";
  FWFeedCodec::Deflate(at_limit);
  std::string past_limit = at_limit;
  std::string unlimited = at_limit;
  FWFeedCodec::Inflate(at_limit, 10);
  EXPECT_EQ(at_limit, "0123456789");
  FWFeedCodec::Inflate(unlimited, std::numeric_limits<std::size_t>::max());
  EXPECT_EQ(unlimited, "0123456789");
  try {
    FWFeedCodec::Inflate(past_limit, 9);
    FAIL() << "no exception";
  } catch (const FWESizeExceeded& e) {
    EXPECT_EQ(e.GetSource(), "MonitoringSession");
    EXPECT_EQ(e.GetNotification().GetRawText(), "Size exceeded (inflated message over 9 bytes)");
  }
}

// --- zlib failures and streams from other peers ---

TEST_F(FWFeedCodecTest, CorruptStreamThrowsOperationFailedWithZlibCode) {
  const auto inflate_error = [](std::string data) {
    try {
      FWFeedCodec::Inflate(data, kMiB);
    } catch (const FWEOperationFailed& e) {
      EXPECT_EQ(e.GetSource(), "MonitoringSession");
      return e.GetNotification().GetRawText();
    }
    return std::string("no exception");
  };
  EXPECT_EQ(inflate_error(std::string("\0\0\0\0", 4)),
            "ProxySession::Inflate operation failed (inflate: -3)");
  EXPECT_EQ(inflate_error(FromHex("78bb00000001")),  // asks for a preset dictionary
            "ProxySession::Inflate operation failed (inflate: 2)");
}

TEST_F(FWFeedCodecTest, CorruptFrameThrowsAndLeavesTheNextFrameBuffered) {
  std::string body = "not a zlib stream";
  const Blowfish cipher(FWFeedCodec::kFeedKey);
  cipher.Encrypt(body);
  server_.Append(Header(17) + body + server_.Frame("list\r\n"));
  std::string message;
  EXPECT_THROW(server_.Next(&message), FWEOperationFailed);
  EXPECT_EQ(server_.Next(&message), Result::kMessage);
  EXPECT_EQ(message, "list\r\n");
}

TEST_F(FWFeedCodecTest, StreamWithoutFinalBlockYieldsWhatItHolds) {
  // A peer may end a stream at its sync point: drop the final block and the checksum.
  std::string data = FromHex("7801ca48cdc9c9e7e502000000ffff");
  FWFeedCodec::Inflate(data, 100);
  EXPECT_EQ(data, "hello\r\n");
}

TEST_F(FWFeedCodecTest, TwentyMebibyteMessagesRoundTripAsCompleteStreams) {
  for (const bool random : {false, true}) {
    const std::string sent = BigMessage(20 * kMiB, random);
    const std::string frame = server_.Frame(sent);
    std::string plain;
    const std::uint32_t length = OpenFrame(frame, &plain);
    ASSERT_EQ(frame.size(), 8 + (length + 7) / 8 * 8);
    EXPECT_TRUE(Uncompress(plain.substr(0, length), sent.size()) == sent) << random;
    client_.Append(frame);
    std::string message;
    ASSERT_EQ(client_.Next(&message), Result::kMessage);
    EXPECT_TRUE(message == sent) << random;
  }
}
