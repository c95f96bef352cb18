// Log-like text for the benchmarks: whole lines of stamps, words and numbers, compressing about
// as real logs do. The same text for the same size in every run.
#ifndef NORVANE_BENCH_LOGTEXT_H_
#define NORVANE_BENCH_LOGTEXT_H_

#include <cstddef>
#include <string>

// Whole lines, at least size bytes (the last line may pass it).
std::string LogText(std::size_t size);

#endif  // NORVANE_BENCH_LOGTEXT_H_
