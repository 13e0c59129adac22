// Writes the reader fuzzer's seed corpus into the given folder: small recordings in each codec,
// one cut short, one of many channels.

#include <cstdio>
#include <filesystem>
#include <string>

#include <zrmcap/zrmcap.h>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[1];
  using ZR::ZRMcapCompression;
  const std::pair<const char*, ZRMcapCompression> kinds[] = {{"zstd", ZRMcapCompression::Zstd},
                                                             {"lz4", ZRMcapCompression::Lz4},
                                                             {"none", ZRMcapCompression::None}};
  for (const auto& [name, compression] : kinds) {
    for (const int channels : {1, 5}) {
      ZR::ZRMcapWriter::Options options;
      options.compression = compression;
      options.chunkSize = 200;
      options.library = "zr seeds";
      const std::string file = dir + "/" + name + "-" + std::to_string(channels);
      ZR::ZRMcapWriter w(file, options);
      const auto schema = w.addSchema("s", "jsonschema", R"({"type":"object"})");
      for (int c = 0; c < channels; ++c) {
        w.addChannel(c % 2 ? schema : 0, "M/" + std::to_string(c), "json", {{"zr.kind", "event"}});
      }
      for (int i = 0; i < 24; ++i) {
        const std::string data = "{\"value\":" + std::to_string(i * i) + "}";
        w.write(static_cast<std::uint16_t>(i % channels + 1), 1000u * i, 1000u * i + 1, data.data(),
                data.size());
      }
      w.close();
      if (channels == 1) {
        const auto cut = dir + "/" + name + "-cut";
        std::filesystem::copy_file(file, cut, std::filesystem::copy_options::overwrite_existing);
        std::filesystem::resize_file(cut, std::filesystem::file_size(file) * 2 / 3);
      }
    }
  }
  return 0;
}
