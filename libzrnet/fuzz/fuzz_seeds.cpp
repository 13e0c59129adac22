// Writes the fuzzer's seed corpus into the given folder: one file per golden message, and messages
// at the decoder's bounds (declared sizes against the bytes left, fan-outs, packed binaries,
// other versions).

#include <cstdio>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "../tests/golden.h"
#include "frames.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
    return 2;
  }
  std::vector<std::pair<std::string, std::string>> seeds;
  int n = 0;
  for (const auto& g : ZR::net::goldenMessages())
    seeds.emplace_back("golden-" + std::to_string(n++), g.hex);
  const std::string call =
      "5a52020200|85a2696407a373657101a66d6f64756c65a14da66d6574686f64a16d"
      "a663616c6c6572a163|";
  const std::string fanOut =
      "5a52020600|85a673747265616da0a373657101a66d6f64756c65a0a66d6574686f"
      "64a16da663616c6c6572a0|";
  seeds.emplace_back("bound-array", call + "91dd0000000401020304");
  seeds.emplace_back("bound-array-short", call + "91dd00000005010203");
  seeds.emplace_back("bound-nested", call + "91dd0000000add00000005dd000000000102030405");
  seeds.emplace_back("bound-deep", call + ZR::net::repeat("91", 32) + "c0");
  seeds.emplace_back("bound-fan-out", fanOut + "9592a141a142909090" + "90");
  seeds.emplace_back("bound-fan-out-over", fanOut + "dc0021dc0020" + ZR::net::repeat("a141", 32) +
                                               ZR::net::repeat("90", 32));
  seeds.emplace_back("bound-packed",
                     call + "92c70c01000000000000000000000003c70c01000000000000000800000001|" +
                         "010203000000000009");
  seeds.emplace_back("bound-version",
                     "5a52010200|85a2696407a373657101a66d6f64756c65a14da66d65"
                     "74686f64a16da663616c6c6572a163|90");
  for (const auto& [name, hex] : seeds) {
    std::ofstream out(std::string(argv[1]) + "/" + name, std::ios::binary);
    out << ZR::net::fuzzInputFromFrames(ZR::net::fromHex(hex));
    if (!out) {
      std::fprintf(stderr, "cannot write into %s\n", argv[1]);
      return 1;
    }
  }
  return 0;
}
