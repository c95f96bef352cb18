// Micro-benchmarks of the feed's per-byte work: framing (compress + encipher) against the bare
// cost of zlib level 1 plus Blowfish on the same bytes, decoding, the line-end conversions, and
// our Blowfish against OpenSSL's. Run on demand (scripts/bench.sh), never in CI; compare the
// rows of one run with each other, not with another machine's.
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/blowfish.h>
#include <zlib.h>

#include "FWBlowfish.h"
#include "FWFeedCodec.h"
#include "FWStringUtils.h"
#include "LogTail.h"
#include "LogText.h"

#ifdef NORVANE_BENCH_LIBDEFLATE
#include <libdeflate.h>
#endif

namespace {

// Log-like text of exactly size bytes.
std::string LogTextOf(std::size_t size) {
  std::string text = LogText(size);
  text.resize(size);
  return text;
}

void SetBytes(benchmark::State& state, std::size_t size) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
}

void BM_Frame(benchmark::State& state) {
  const std::string text = LogTextOf(static_cast<std::size_t>(state.range(0)));
  const FWFeedCodec codec(FWFeedCodec::kServerFrameLimit, FWFeedCodec::kServerMessageLimit);
  for (auto _ : state) benchmark::DoNotOptimize(codec.Frame(text));
  SetBytes(state, text.size());
}

// The limit a frame cannot beat: one zlib level-1 compression of the text into a ready buffer,
// then Blowfish over the result.
void BM_ZlibBlowfishLimit(benchmark::State& state) {
  const std::string text = LogTextOf(static_cast<std::size_t>(state.range(0)));
  const Blowfish cipher(FWFeedCodec::kFeedKey);
  std::string out(compressBound(text.size()) + 8, '\0');
  for (auto _ : state) {
    uLongf size = out.size();
    compress2(reinterpret_cast<Bytef*>(out.data()), &size,
              reinterpret_cast<const Bytef*>(text.data()), text.size(), 1);
    std::string body(out.data(), size);
    cipher.Encrypt(body);
    benchmark::DoNotOptimize(body);
  }
  SetBytes(state, text.size());
}

#ifdef NORVANE_BENCH_LIBDEFLATE
// The alternative compressor: libdeflate's whole-buffer zlib format at level 1, plus Blowfish.
void BM_LibdeflateBlowfish(benchmark::State& state) {
  const std::string text = LogTextOf(static_cast<std::size_t>(state.range(0)));
  const Blowfish cipher(FWFeedCodec::kFeedKey);
  libdeflate_compressor* compressor = libdeflate_alloc_compressor(1);
  std::string out(libdeflate_zlib_compress_bound(compressor, text.size()) + 8, '\0');
  for (auto _ : state) {
    const std::size_t size =
        libdeflate_zlib_compress(compressor, text.data(), text.size(), out.data(), out.size());
    std::string body(out.data(), size);
    cipher.Encrypt(body);
    benchmark::DoNotOptimize(body);
  }
  libdeflate_free_compressor(compressor);
  SetBytes(state, text.size());
}
BENCHMARK(BM_LibdeflateBlowfish)->RangeMultiplier(4)->Range(1 << 10, 4 << 20);
#endif

// The daemon's frames when it follows many files: each frame from another of 200 texts, in turn,
// as a round reads 200 busy files (compare with BM_ZlibBlowfishLimit/1048576).
void BM_FramesOfManyFiles(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const std::string pool = LogText(8 << 20);
  const FWFeedCodec codec(FWFeedCodec::kServerFrameLimit, FWFeedCodec::kServerMessageLimit);
  std::vector<std::size_t> at(200);
  for (std::size_t i = 0; i < at.size(); ++i) at[i] = i * 7919 * 97 % (pool.size() - size);
  std::size_t file = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(codec.Frame(std::string_view(pool).substr(at[file], size)));
    at[file] = (at[file] + size) % (pool.size() - size);
    file = (file + 1) % at.size();
  }
  SetBytes(state, size);
}

// The client's side: reassemble, decipher and inflate frames of the given size.
void BM_Decode(benchmark::State& state) {
  const std::string text = LogTextOf(static_cast<std::size_t>(state.range(0)));
  const std::string frame =
      FWFeedCodec(FWFeedCodec::kServerFrameLimit, FWFeedCodec::kServerMessageLimit).Frame(text);
  FWFeedCodec codec(FWFeedCodec::kClientFrameLimit, FWFeedCodec::kClientMessageLimit);
  std::string message;
  for (auto _ : state) {
    codec.Append(frame);
    codec.Next(&message);
    benchmark::DoNotOptimize(message);
  }
  SetBytes(state, text.size());
}

// The daemon's "\n" to "\r\n" conversion of what it reads, and the client's way back.
void BM_ToDos(benchmark::State& state) {
  const std::string text = LogTextOf(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    bool after_cr = false;
    benchmark::DoNotOptimize(LogTail::ToDos(text, &after_cr));
  }
  SetBytes(state, text.size());
}

void BM_Convert2Unix(benchmark::State& state) {
  bool after_cr = false;
  const std::string text =
      LogTail::ToDos(LogTextOf(static_cast<std::size_t>(state.range(0))), &after_cr);
  for (auto _ : state) benchmark::DoNotOptimize(FWStringUtils::Convert2Unix(text));
  SetBytes(state, text.size());
}

void BM_BlowfishOurs(benchmark::State& state) {
  const Blowfish cipher(FWFeedCodec::kFeedKey);
  std::string data(static_cast<std::size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    cipher.Encrypt(data);
    benchmark::DoNotOptimize(data);
  }
  SetBytes(state, data.size());
}

// OpenSSL's Blowfish in ECB mode over the same bytes (its byte order differs; the work does not).
void BM_BlowfishOpenSSL(benchmark::State& state) {
  BF_KEY key;
  BF_set_key(&key, static_cast<int>(std::strlen(FWFeedCodec::kFeedKey)),
             reinterpret_cast<const unsigned char*>(FWFeedCodec::kFeedKey));
  std::string data(static_cast<std::size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    auto* bytes = reinterpret_cast<unsigned char*>(data.data());
    for (std::size_t i = 0; i < data.size(); i += 8) {
      BF_ecb_encrypt(bytes + i, bytes + i, &key, BF_ENCRYPT);
    }
    benchmark::DoNotOptimize(data);
  }
  SetBytes(state, data.size());
}

}  // namespace

BENCHMARK(BM_Frame)->RangeMultiplier(4)->Range(1 << 10, 4 << 20);
BENCHMARK(BM_ZlibBlowfishLimit)->RangeMultiplier(4)->Range(1 << 10, 4 << 20);
BENCHMARK(BM_FramesOfManyFiles)->Arg(10 << 10)->Arg(40 << 10);
BENCHMARK(BM_Decode)->RangeMultiplier(4)->Range(1 << 10, 4 << 20);
BENCHMARK(BM_ToDos)->Arg(1 << 20);
BENCHMARK(BM_Convert2Unix)->Arg(1 << 20);
BENCHMARK(BM_BlowfishOurs)->Arg(1 << 20);
BENCHMARK(BM_BlowfishOpenSSL)->Arg(1 << 20);

BENCHMARK_MAIN();
