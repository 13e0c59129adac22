// Base64 against the standard's vectors, round trips of every length, and malformed text.

#include <random>

#include <gtest/gtest.h>

#include <zrmcap/zrbase64.h>

namespace {

TEST(Base64, EncodesAndDecodesTheStandardVectorsAndAnyBytes) {
  const std::pair<std::string, std::string> vectors[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"}};
  for (const auto& [plain, coded] : vectors) {
    EXPECT_EQ(ZR::zrBase64Encode(plain.data(), plain.size()), coded);
    std::string back = "junk";
    ASSERT_TRUE(ZR::zrBase64Decode(coded, back)) << coded;
    EXPECT_EQ(back, plain);
  }
  std::mt19937 random(7);
  for (std::size_t n = 0; n < 200; ++n) {
    std::string bytes(n, '\0');
    for (auto& b : bytes) b = static_cast<char>(random());
    const auto coded = ZR::zrBase64Encode(bytes.data(), bytes.size());
    EXPECT_EQ(coded.size() % 4, 0u);
    std::string back;
    ASSERT_TRUE(ZR::zrBase64Decode(coded, back));
    EXPECT_EQ(back, bytes);
  }
  // Every byte value, and text without its padding.
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  std::string back;
  ASSERT_TRUE(ZR::zrBase64Decode(ZR::zrBase64Encode(all.data(), all.size()), back));
  EXPECT_EQ(back, all);
  ASSERT_TRUE(ZR::zrBase64Decode("Zm9vYg", back));
  EXPECT_EQ(back, "foob");
}

TEST(Base64, RejectsMalformedText) {
  std::string out;
  for (const char* bad :
       {"Z", "Zg=", "Zm9v!", "Zg==Zg==", "====", "Zm 9v", "Zm9v\n", "Z===", "Zm9vY"}) {
    EXPECT_FALSE(ZR::zrBase64Decode(bad, out)) << bad;
  }
}

}  // namespace
