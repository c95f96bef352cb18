// The feed's frames as a peer sees them on the wire: Blowfish in the feed's byte order (against
// OpenSSL's Blowfish), one zlib stream per message (against plain zlib), the eight-byte header,
// the limits on what a reader accepts, and broken input.
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "FWBlowfish.h"
#include "FWException.h"
#include "FWFeedCodec.h"
// OpenSSL 3 marks its Blowfish deprecated; here it only serves as an independent reference.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/blowfish.h>

namespace {

using Result = FWFeedCodec::Result;
using std::string_literals::operator""s;

// The fixed key of the feed: every peer has it.
const std::string kKey = "qgbcnn1HCRNb91390sSMBHbr2JN%&?%&";

// The data padded with 0x01 bytes to whole blocks and enciphered by OpenSSL's ECB Blowfish, with
// each 32-bit half byte-swapped on the way in and out: the feed reads a half least significant
// byte first.
std::string Reference(const std::string& key, std::string data) {
  data.resize((data.size() + 7) / 8 * 8, '\x01');
  BF_KEY schedule;
  BF_set_key(&schedule, static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(key.data()));
  const auto swap_halves = [](std::string& d) {
    for (std::size_t i = 0; i + 4 <= d.size(); i += 4) {
      std::swap(d[i], d[i + 3]);
      std::swap(d[i + 1], d[i + 2]);
    }
  };
  swap_halves(data);
  for (std::size_t i = 0; i + 8 <= data.size(); i += 8) {
    auto* block = reinterpret_cast<unsigned char*>(data.data() + i);
    BF_ecb_encrypt(block, block, &schedule, BF_ENCRYPT);
  }
  swap_halves(data);
  return data;
}

// Log-like text that compresses well, or random bytes that do not.
std::string Text(std::size_t size, bool random) {
  std::mt19937 rng(42);
  std::string s;
  while (s.size() < size) {
    s += random ? std::string(1, static_cast<char>(rng()))
                : "line " + std::to_string(rng() % 100000) + " of the log\r\n";
  }
  s.resize(size);
  return s;
}

// The eight-byte header of a frame whose compressed message is length bytes.
std::string Header(std::uint32_t length) {
  std::string header(4, '\0');
  for (int shift = 24; shift >= 0; shift -= 8) header.push_back(static_cast<char>(length >> shift));
  return header;
}

class FWCodecTest : public ::testing::Test {
 protected:
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

  // The readers of a daemon and of a client.
  FWFeedCodec daemon_{FWFeedCodec::kServerFrameLimit, FWFeedCodec::kServerMessageLimit};
  FWFeedCodec client_{FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit};
};

}  // namespace

TEST_F(FWCodecTest, BlowfishAgreesWithOpenSslAndPadsWithOneBytes) {
  std::mt19937 rng(20240605);
  std::uniform_int_distribution<int> key_byte(1, 255);  // a zero byte would end the key
  for (std::size_t key_length = 1; key_length <= 72; key_length += 1) {
    std::string key(key_length, '\0');
    for (char& c : key) c = static_cast<char>(key_byte(rng));
    const std::string plain = Text(rng() % 40, true);
    const Blowfish cipher(key);
    std::string data = plain;
    cipher.Encrypt(data);
    ASSERT_EQ(data, Reference(key, plain)) << "key length " << key_length;
    cipher.Decrypt(data, static_cast<unsigned>(plain.size()));
    ASSERT_EQ(data, plain) << "key length " << key_length;
  }
}

TEST_F(FWCodecTest, MessagesAreTheSameWhateverTheSizesOfTheReads) {
  const std::vector<std::string> sent = {"user admin\r\n", "", "pass secret\r\n", Text(5000, true),
                                         "quit\r\n"};
  std::string stream;
  for (const std::string& m : sent) stream += client_.Frame(m);
  for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, stream.size()}) {
    EXPECT_EQ(Read(daemon_, stream, piece), sent) << piece;
    EXPECT_EQ(daemon_.GetBufferedSize(), 0u);
  }
}

TEST_F(FWCodecTest, WrongSyncMarkerStopsReadingForGood) {
  const std::string good = daemon_.Frame("stop\r\n");
  for (int at = 0; at < 4; ++at) {
    std::string bad = good;
    bad[at] = '\x01';
    EXPECT_EQ(Read(daemon_, good + bad + good, 1000), std::vector<std::string>{"stop\r\n"});
    std::string message;
    daemon_.Append(good);
    EXPECT_EQ(daemon_.Next(&message), Result::kLostSync);
    EXPECT_EQ(daemon_.GetBufferedSize(), 0u);
    daemon_.Clear();
  }
}

// A frame length over the limit is known from the header alone: nothing more is awaited.
TEST_F(FWCodecTest, LimitsOfDaemonAndClientIncludeTheLimitItself) {
  const std::pair<FWFeedCodec*, std::uint32_t> readers[] = {{&daemon_, 1048576},
                                                            {&client_, 67108864}};
  std::string message;
  for (const auto& [codec, limit] : readers) {
    codec->Append(Header(limit));
    EXPECT_EQ(codec->Next(&message), Result::kNeedMore) << limit;
    codec->Clear();
    codec->Append(Header(limit + 1));
    EXPECT_EQ(codec->Next(&message), Result::kFrameTooLarge) << limit;
    EXPECT_EQ(codec->GetBufferedSize(), 0u);
    codec->Clear();
  }
  daemon_.Append(client_.Frame(std::string(1048576, 'x')));
  ASSERT_EQ(daemon_.Next(&message), Result::kMessage);
  EXPECT_EQ(message.size(), 1048576u);
  daemon_.Append(client_.Frame(std::string(1048577, 'x')) + client_.Frame("quit\r\n"));
  EXPECT_EQ(daemon_.Next(&message), Result::kMessageTooLarge);
  EXPECT_EQ(daemon_.Next(&message), Result::kMessageTooLarge);
  EXPECT_EQ(daemon_.GetBufferedSize(), 0u);
}

TEST_F(FWCodecTest, CorruptStreamThrowsAndTheNextFrameIsStillRead) {
  std::string body = "not a zlib stream";
  Blowfish(kKey).Encrypt(body);
  daemon_.Append(Header(17) + body + daemon_.Frame("list\r\n"));
  std::string message;
  try {
    daemon_.Next(&message);
    ADD_FAILURE() << "no exception";
  } catch (const FWEOperationFailed& e) {
    EXPECT_EQ(e.GetText(), "ProxySession::Inflate operation failed (inflate: -3)");
  }
  EXPECT_EQ(daemon_.Next(&message), Result::kMessage);
  EXPECT_EQ(message, "list\r\n");
}

// A peer may end its stream at the sync point: without the final block and the checksum.
TEST_F(FWCodecTest, StreamEndingAtItsSyncPointYieldsWhatItHolds) {
  const std::string at_sync_point = "\x78\x01\xca\x48\xcd\xc9\xc9\xe7\xe5\x02\x00\x00\x00\xff\xff"s;
  std::string data = at_sync_point;
  FWFeedCodec::Inflate(data, 100);
  EXPECT_EQ(data, "hello\r\n");
  data = at_sync_point;
  EXPECT_THROW(FWFeedCodec::Inflate(data, 6), FWESizeExceeded);
}

// Any frame, small or large, is the sync marker, the length and byte for byte what plain zlib
// makes at level 1 with its default window and memory settings (a sync flush, then the final
// block), padded with 0x01 bytes to whole blocks and enciphered under the feed key; the length is
// the one before padding. The first streams are also written out.
TEST_F(FWCodecTest, EveryFrameIsSyncMarkerLengthAndWhatPlainZlibMakesOfTheMessage) {
  const std::pair<std::string, std::string> cases[] = {
      {"hello\r\n",
       "\x78\x01\xca\x48\xcd\xc9\xc9\xe7\xe5\x02\x00\x00\x00\xff\xff\x03\x00\x0a\x7a\x02\x2c"s},
      {"abcdefghij",
       "\x78\x01\x4a\x4c\x4a\x4e\x49\x4d\x4b\xcf\xc8\xcc\x02\x00\x00\x00\xff\xff\x03\x00\x15\x86\x03\xf8"s},
      {"", ""},
      {Text(4096, false), ""},
      {Text(2 << 20, false), ""},
      {Text(2 << 20, true), ""}};
  for (const auto& [sent, written] : cases) {
    std::string stream;
    if (!sent.empty()) {
      z_stream z{};
      ASSERT_EQ(deflateInit(&z, 1), Z_OK);
      stream.resize(deflateBound(&z, sent.size()) + 64);
      z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(sent.data()));
      z.avail_in = static_cast<uInt>(sent.size());
      z.next_out = reinterpret_cast<Bytef*>(stream.data());
      z.avail_out = static_cast<uInt>(stream.size());
      ASSERT_EQ(deflate(&z, Z_SYNC_FLUSH), Z_OK);
      ASSERT_EQ(deflate(&z, Z_FINISH), Z_STREAM_END);
      stream.resize(z.total_out);
      deflateEnd(&z);
    }
    if (sent.size() < 100) {
      EXPECT_EQ(stream, written) << sent;
    }
    const std::string frame = daemon_.Frame(sent);
    EXPECT_TRUE(frame ==
                Header(static_cast<std::uint32_t>(stream.size())) + Reference(kKey, stream))
        << sent.size();
    EXPECT_LT(frame.capacity(), frame.size() + 32) << sent.size();  // frames wait in queues
    // A message handed over in two parts is framed as the same message.
    const std::size_t cut = sent.size() / 3;
    EXPECT_TRUE(daemon_.Frame(sent.substr(0, cut), sent.substr(cut)) == frame) << sent.size();
    EXPECT_TRUE(Read(client_, frame, 65536) == std::vector<std::string>{sent}) << sent.size();
  }
}
