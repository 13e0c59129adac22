// Writes the fuzzer's seed corpus, one file per golden message, into the given folder.

#include <cstdio>
#include <fstream>

#include "../tests/golden.h"
#include "frames.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
    return 2;
  }
  int n = 0;
  for (const auto& g : ZR::net::goldenMessages()) {
    std::ofstream out(std::string(argv[1]) + "/golden-" + std::to_string(n++), std::ios::binary);
    out << ZR::net::fuzzInputFromFrames(ZR::net::fromHex(g.hex));
    if (!out) {
      std::fprintf(stderr, "cannot write into %s\n", argv[1]);
      return 1;
    }
  }
  return 0;
}
