// chatdb-gen: writes a Messages-schema database of made-up conversations.
#include <iostream>
#include <string>
#include <vector>

#include "tools/chatdb-gen/cli.h"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  return corvane::chatdbgen::runCommandLine(args, std::cout, std::cerr);
}
