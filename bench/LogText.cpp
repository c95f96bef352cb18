#include "LogText.h"

#include <random>

std::string LogText(std::size_t size) {
  static const char* const kWords[] = {"GET", "POST", "/index.html", "/api/v1/items",
                                       "200", "404",  "served",      "in",
                                       "ms",  "user", "session",     "cache"};
  std::mt19937 random(42);
  std::string text;
  while (text.size() < size) {
    text += "2026-11-23 11:" + std::to_string(random() % 60) + ":" + std::to_string(random() % 60) +
            " web[" + std::to_string(random() % 9000) + "]:";
    for (int i = 0; i < 8; ++i) text += std::string(" ") + kWords[random() % 12];
    text += ' ' + std::to_string(random() % 100000) + "\n";
  }
  return text;
}
