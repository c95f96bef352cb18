#include "FWBlowfish.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include <gtest/gtest.h>
// OpenSSL 3 marks its Blowfish deprecated; here it only serves as an independent reference.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/blowfish.h>

namespace {

std::string FromHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

// Reverses the bytes of each 32-bit half: turns the usual big-endian reading of a block into the
// cipher's own order and back.
std::string SwapHalves(std::string data) {
  for (std::size_t i = 0; i + 4 <= data.size(); i += 4) {
    std::swap(data[i], data[i + 3]);
    std::swap(data[i + 1], data[i + 2]);
  }
  return data;
}

// The reference: OpenSSL's ECB Blowfish on each block, halves byte-swapped on input and output.
std::string ReferenceEncrypt(const std::string& key, const std::string& padded) {
  BF_KEY schedule;
  BF_set_key(&schedule, static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(key.data()));
  const std::string in = SwapHalves(padded);
  std::string out(in.size(), '\0');
  for (std::size_t i = 0; i < in.size(); i += 8) {
    BF_ecb_encrypt(reinterpret_cast<const unsigned char*>(in.data() + i),
                   reinterpret_cast<unsigned char*>(out.data() + i), &schedule, BF_ENCRYPT);
  }
  return SwapHalves(out);
}

std::string RandomBytes(std::mt19937& rng, std::size_t length, int lowest) {
  std::uniform_int_distribution<int> byte(lowest, 255);
  std::string s(length, '\0');
  for (char& c : s) c = static_cast<char>(byte(rng));
  return s;
}

bool SameTables(const Blowfish& a, const Blowfish& b) {
  return std::memcmp(a.GetP(), b.GetP(), sizeof(a.GetP())) == 0 &&
         std::memcmp(a.GetS(), b.GetS(), sizeof(a.GetS())) == 0;
}

}  // namespace

TEST(FWBlowfishTest, ResetLoadsThePublishedInitialTables) {
  Blowfish cipher;
  cipher.Reset();
  EXPECT_EQ(cipher.GetP()[0], 0x243F6A88u);
  EXPECT_EQ(cipher.GetP()[1], 0x85A308D3u);
  EXPECT_EQ(cipher.GetP()[17], 0x8979FB1Bu);
  EXPECT_EQ(cipher.GetS()[0][0], 0xD1310BA6u);
  EXPECT_EQ(cipher.GetS()[0][255], 0x6E85076Au);
  EXPECT_EQ(cipher.GetS()[1][0], 0x4B7A70E9u);
  EXPECT_EQ(cipher.GetS()[1][255], 0xDB83ADF7u);
  EXPECT_EQ(cipher.GetS()[2][0], 0xE93D5A68u);
  EXPECT_EQ(cipher.GetS()[2][255], 0x406000E0u);
  EXPECT_EQ(cipher.GetS()[3][0], 0x3A39CE37u);
  EXPECT_EQ(cipher.GetS()[3][255], 0x3AC372E6u);
}

// Published vectors, in the usual big-endian reading: they match once each half is swapped.
TEST(FWBlowfishTest, StandardVectorsMatchWithHalvesByteSwapped) {
  struct Vector {
    std::string key, plain, cipher;
  };
  const Vector vectors[] = {
      {"FFFFFFFFFFFFFFFF", "FFFFFFFFFFFFFFFF", "51866FD5B85ECB8A"},
      {"FFFFFFFFFFFFFFFF", "0000000000000000", "F21E9A77B71C49BC"},
      {"1111111111111111", "1111111111111111", "2466DD878B963C9D"},
      {"0123456789ABCDEF", "1111111111111111", "61F9C3802281B096"},
      {"1111111111111111", "0123456789ABCDEF", "7D0CC630AFDA1EC7"},
      {"FEDCBA9876543210", "0123456789ABCDEF", "0ACEAB0FC6A0A28D"},
      {"7CA110454A1A6E57", "01A1D6D039776742", "59C68245EB05282B"},
      {"43297FAD38E373FE", "762514B829BF486A", "13F04154D69D1AE5"},
  };
  for (const Vector& v : vectors) {
    const Blowfish cipher(FromHex(v.key));
    std::string data = SwapHalves(FromHex(v.plain));
    cipher.Encrypt(data);
    EXPECT_EQ(SwapHalves(data), FromHex(v.cipher)) << "key " << v.key;
    cipher.Decrypt(data, 8);
    EXPECT_EQ(SwapHalves(data), FromHex(v.plain)) << "key " << v.key;
  }
}

TEST(FWBlowfishTest, AgreesWithOpenSslOverRandomKeysAndLengths) {
  std::mt19937 rng(20240605);
  std::uniform_int_distribution<std::size_t> data_length(0, 300);
  for (std::size_t key_length = 1; key_length <= 72; ++key_length) {
    for (int round = 0; round < 4; ++round) {
      const std::string key = RandomBytes(rng, key_length, 1);  // zero would end the key
      const std::string plain = RandomBytes(rng, data_length(rng), 0);
      std::string padded = plain;
      padded.append((8 - plain.size() % 8) % 8, '\x01');
      const Blowfish cipher(key);
      std::string data = plain;
      cipher.Encrypt(data);
      ASSERT_EQ(data, ReferenceEncrypt(key, padded)) << "key length " << key_length;
      cipher.Decrypt(data, static_cast<unsigned>(plain.size()));
      ASSERT_EQ(data, plain) << "key length " << key_length;
    }
  }
}

TEST(FWBlowfishTest, BlockOperationsAreInverseAndReadHalvesLeastSignificantByteFirst) {
  const Blowfish cipher("block key");
  Blowfish::Word left = 0x04030201;
  Blowfish::Word right = 0x08070605;
  cipher.BF_En(&left, &right);
  std::string data = "\x01\x02\x03\x04\x05\x06\x07\x08";
  cipher.Encrypt(data);
  const auto byte = [&data](int i) { return static_cast<Blowfish::Word>(data[i] & 0xFF); };
  EXPECT_EQ(left, byte(0) | byte(1) << 8 | byte(2) << 16 | byte(3) << 24);
  EXPECT_EQ(right, byte(4) | byte(5) << 8 | byte(6) << 16 | byte(7) << 24);
  cipher.BF_De(&left, &right);
  EXPECT_EQ(left, 0x04030201u);
  EXPECT_EQ(right, 0x08070605u);
}

TEST(FWBlowfishTest, KeyEndsAtFirstZeroByteAndRepeatsCyclically) {
  const Blowfish reset("");
  EXPECT_TRUE(SameTables(reset, Blowfish(std::string("\0secret", 7))));
  Blowfish reset_explicitly;
  reset_explicitly.Reset();
  EXPECT_TRUE(SameTables(reset, reset_explicitly));
  EXPECT_TRUE(SameTables(Blowfish("abc"), Blowfish(std::string("abc\0xyz", 7))));
  EXPECT_FALSE(SameTables(Blowfish("abc"), Blowfish("abd")));
  // Cyclic use: a key repeated to 72 bytes is the same key; bytes past the 72nd have no effect.
  std::string repeated;
  while (repeated.size() < 72) repeated += "abc";
  EXPECT_TRUE(SameTables(Blowfish("abc"), Blowfish(repeated)));
  std::mt19937 rng(7);
  const std::string long_key = RandomBytes(rng, 72, 1);
  EXPECT_TRUE(SameTables(Blowfish(long_key), Blowfish(long_key + "more bytes")));
  EXPECT_FALSE(SameTables(Blowfish(long_key), Blowfish(long_key.substr(0, 71))));
}

TEST(FWBlowfishTest, EncryptPadsWithOneBytesToWholeBlocks) {
  const Blowfish cipher("pad key");
  std::string empty;
  cipher.Encrypt(empty);
  EXPECT_EQ(empty, "");

  std::string data = "123456789";
  cipher.Encrypt(data);
  ASSERT_EQ(data.size(), 16u);
  std::string whole = data;
  cipher.Decrypt(whole, 16);
  EXPECT_EQ(whole, "123456789\x01\x01\x01\x01\x01\x01\x01");
  cipher.Decrypt(data, 9);
  EXPECT_EQ(data, "123456789");

  std::string eight = "12345678";
  cipher.Encrypt(eight);
  EXPECT_EQ(eight.size(), 8u);
}

TEST(FWBlowfishTest, DecryptWithLengthCutsOrExtendsAndLeavesAShortTail) {
  const Blowfish cipher("length key");
  std::string data = "abcdefgh";
  cipher.Encrypt(data);
  std::string extended = data;
  cipher.Decrypt(extended, 10);
  EXPECT_EQ(extended, std::string("abcdefgh\0\0", 10));

  std::string with_tail = data + "xyz";
  cipher.Decrypt(with_tail, 11);
  EXPECT_EQ(with_tail, "abcdefghxyz");
}

TEST(FWBlowfishTest, DecryptWithoutLengthCutsAtFirstOneByte) {
  const Blowfish cipher("cut key");
  std::string padded = "123456789";
  cipher.Encrypt(padded);
  cipher.Decrypt(padded);
  EXPECT_EQ(padded, "123456789");

  std::string inner =
      "ab\x01"
      "cdefgh";
  cipher.Encrypt(inner);
  cipher.Decrypt(inner);
  EXPECT_EQ(inner, "ab");

  std::string none = "abcdefgh";
  cipher.Encrypt(none);
  cipher.Decrypt(none);
  EXPECT_EQ(none, "abcdefgh");
}
