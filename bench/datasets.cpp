#include "bench/datasets.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "bench/timing.h"
#include "tools/chatdb-gen/generator.h"

namespace corvane::bench {

std::string ensureDatabase(const std::string& dir, std::int64_t messages) {
  chatdbgen::GeneratorOptions options;
  options.messages = messages;
  options.chats = 2000;
  options.groups = 200;
  options.bodyOnly = 0.5;
  options.reactions = 0.1;
  options.attachments = 0.15;
  options.days = 730;
  options.endMs = kEndMs;
  options.seed = 1;

  const std::string path = dir + "/chat-" + std::to_string(messages) + "-c2000-g200-d730-s1.db";
  if (std::filesystem::exists(path)) return path;
  std::filesystem::create_directories(dir);
  const std::string partial = path + ".partial." + std::to_string(getpid());
  std::filesystem::remove(partial);

  std::fprintf(stderr, "generating %s ...\n", path.c_str());
  const double start = wallSeconds();
  try {
    chatdbgen::generateChatDb(partial, options, [](std::int64_t done, std::int64_t total) {
      std::fprintf(stderr, "  %lld of %lld rows\n", static_cast<long long>(done),
                   static_cast<long long>(total));
    });
  } catch (...) {
    std::filesystem::remove(partial);
    throw;
  }
  std::filesystem::rename(partial, path);
  std::fprintf(stderr, "  done in %.1f s\n", wallSeconds() - start);
  return path;
}

}  // namespace corvane::bench
