#include <zrerror/zrerror.h>

#include <gtest/gtest.h>

#include <string>

using ZR::ZRError;

TEST(ZRError, FieldsAndAccessors) {
  const ZRError e("Mixer", "setGain", "gain out of range", "mixer.cpp", 42);
  EXPECT_EQ(e.getModuleName(), "Mixer");
  EXPECT_EQ(e.getMethodName(), "setGain");
  EXPECT_EQ(e.getDescription(), "gain out of range");
  EXPECT_EQ(e.getFileName(), "mixer.cpp");
  EXPECT_EQ(e.getLineNumber(), 42);
  EXPECT_EQ(ZRError("M", "m", "d", nullptr, 7).getFileName(), "");
  EXPECT_EQ(ZRError("M", "m", "d", std::string("dev.cpp"), 3).getFileName(), "dev.cpp");
}

TEST(ZRError, WhatIsOneReadableLine) {
  EXPECT_STREQ(ZRError("Mixer", "setGain", "gain out of range", "mixer.cpp", 42).what(),
               "Mixer::setGain: gain out of range (mixer.cpp:42)");
  EXPECT_STREQ(ZRError("Mixer", "setGain", "bad").what(), "Mixer::setGain: bad");
  // An operation already ending in a colon must not get a second one.
  EXPECT_STREQ(ZRError("Cfg", "cannot parse:", "x=1").what(), "Cfg::cannot parse: x=1");
  EXPECT_STREQ(ZRError("Cfg", "cannot parse: ", "x=1").what(), "Cfg::cannot parse: x=1");
  EXPECT_STRNE(ZRError().what(), "");

  // what() must not point into the object it was copied from.
  ZRError copy;
  { copy = ZRError("A", "b", "c", "f.cpp", 1); }
  EXPECT_STREQ(copy.what(), "A::b: c (f.cpp:1)");
}

TEST(ZRError, ThrownByValueCaughtAsStdException) {
  try {
    throw ZRError("Net", "connect", "refused", "net.cpp", 9);
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "Net::connect: refused (net.cpp:9)");
    const auto* zr = dynamic_cast<const ZRError*>(&e);
    ASSERT_NE(zr, nullptr);
    EXPECT_EQ(zr->getLineNumber(), 9);
  }
}
