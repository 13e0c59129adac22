#include <zrerror/zrerror.h>

#include <gtest/gtest.h>
#include <string>

using ZR::ZRError;

TEST(ZRError, FieldsAndOneReadableLine) {
  try {
    throw ZRError("Mixer", "setGain", "gain out of range", "mixer.cpp", 42);
  } catch (const std::exception& caught) {  // thrown by value, caught as a std::exception too
    const auto& e = dynamic_cast<const ZRError&>(caught);
    EXPECT_EQ(e.getModuleName() + "|" + e.getMethodName() + "|" + e.getDescription() + "|" +
                  e.getFileName() + "|" + std::to_string(e.getLineNumber()),
              "Mixer|setGain|gain out of range|mixer.cpp|42");
    EXPECT_STREQ(e.what(), "Mixer::setGain: gain out of range (mixer.cpp:42)");
  }
  EXPECT_EQ(ZRError("M", "m", "d", nullptr, 7).getFileName(), "");
  EXPECT_STREQ(ZRError("Mixer", "setGain", "bad").what(), "Mixer::setGain: bad");
  // An operation already ending in a colon must not get a second one.
  EXPECT_STREQ(ZRError("Cfg", "cannot parse:", "x=1").what(), "Cfg::cannot parse: x=1");
  EXPECT_STREQ(ZRError("Cfg", "cannot parse: ", "x=1").what(), "Cfg::cannot parse: x=1");
  EXPECT_STREQ(ZRError().what(), "unknown error");
  ZRError copy;  // what() must not point into the object it was copied from
  { copy = ZRError("A", "b", "c", std::string("f.cpp"), 1); }
  EXPECT_STREQ(copy.what(), "A::b: c (f.cpp:1)");
}
