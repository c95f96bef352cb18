// The Blowfish block cipher (64-bit blocks, 16 rounds, tables initialised from the hexadecimal
// digits of pi) in ECB mode over whole strings, with the feed's own padding and byte order.
#ifndef NORVANE_SRC_FWBLOWFISH_H_
#define NORVANE_SRC_FWBLOWFISH_H_

#include <cstdint>
#include <string>

// Byte order: each 8-byte block b0..b7 is read as two words, left = b0 | b1 << 8 | b2 << 16 |
// b3 << 24 and right = b4 | ... | b7 << 24 (the first byte of a half is its least significant),
// and written back the same way. Peers of the feed depend on this order; a standard big-endian
// Blowfish agrees only after each 32-bit half is byte-swapped on input and output.
//
// Not thread-safe for a concurrent Init/Reset; once keyed, the const operations may run from
// several threads. Copyable (about 4 KiB of tables).
class Blowfish {
 public:
  using Word = std::uint32_t;
  using PArray = Word[18];
  using SBoxes = Word[4][256];

  // All tables zero: call Init (or Reset) before use.
  Blowfish() = default;
  // Init(key).
  explicit Blowfish(const std::string& key) { Init(key); }

  // Loads the standard initial P-array and S-boxes.
  void Reset();
  // The standard key schedule over the key's bytes up to its first zero byte, used cyclically
  // (only the first 72 bytes have an effect). An empty key leaves the tables unchanged.
  void GenSubkeys(const std::string& key);
  // Reset() then GenSubkeys(key).
  void Init(const std::string& key);

  // Encipher or decipher one block in place.
  void BF_En(Word* left, Word* right) const;
  void BF_De(Word* left, Word* right) const;

  // Pads data with 0x01 bytes to a multiple of 8 (none when it already is one, so the empty
  // string stays empty) and enciphers it in place, block by block.
  void Encrypt(std::string& data) const;
  // The same for the part of data from offset on (padded and enciphered); the bytes before it
  // stay as they are.
  void Encrypt(std::string& data, std::size_t offset) const;
  // Deciphers every whole block in place (a shorter tail is left as it is), then cuts the data to
  // `length` bytes or extends it with zero bytes.
  void Decrypt(std::string& data, unsigned length) const;
  // Deciphers every whole block in place, then cuts the data at its first 0x01 byte, if any. Meant
  // for text that never holds 0x01.
  void Decrypt(std::string& data) const;
  // Deciphers the size / 8 whole blocks at data in place.
  void DecipherBlocks(char* data, std::size_t size) const;

 private:
  // The round function: ((S1[a] + S2[b]) ^ S3[c]) + S4[d], a the most significant byte of x.
  Word F(Word x) const {
    return ((s_[0][x >> 24] + s_[1][(x >> 16) & 0xFF]) ^ s_[2][(x >> 8) & 0xFF]) + s_[3][x & 0xFF];
  }

  // Plain arrays rather than std::array: the round function indexes them 64 times a block, and
  // unoptimised (sanitizer) builds would call operator[] for each.
  PArray p_{};
  SBoxes s_{};
};

#endif  // NORVANE_SRC_FWBLOWFISH_H_
