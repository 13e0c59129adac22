#include <zrerror/zrerror.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using ZR::ZRError;

TEST(ZRError, FieldsAndAccessors) {
  const ZRError e("Mixer", "setGain", "gain out of range", "mixer.cpp", 42);
  EXPECT_EQ(e.getModuleName(), "Mixer");
  EXPECT_EQ(e.getMethodName(), "setGain");
  EXPECT_EQ(e.getDescription(), "gain out of range");
  EXPECT_EQ(e.getFileName(), "mixer.cpp");
  EXPECT_EQ(e.getLineNumber(), 42);

  const ZRError noFile("Mixer", "setGain", "bad", nullptr, 7);
  EXPECT_EQ(noFile.getFileName(), "");
  EXPECT_EQ(noFile.getLineNumber(), 7);

  const ZRError fromString("Mixer", "open", "busy", std::string("dev.cpp"), 3);
  EXPECT_EQ(fromString.getFileName(), "dev.cpp");
  EXPECT_EQ(fromString.getLineNumber(), 3);
}

TEST(ZRError, WhatIsOneReadableLine) {
  EXPECT_STREQ(ZRError("Mixer", "setGain", "gain out of range", "mixer.cpp", 42).what(),
               "Mixer::setGain: gain out of range (mixer.cpp:42)");
  // No file: no dangling location suffix.
  EXPECT_STREQ(ZRError("Mixer", "setGain", "bad").what(), "Mixer::setGain: bad");
  // An operation already ending in a colon must not get a second one.
  EXPECT_STREQ(ZRError("Cfg", "cannot parse:", "x=1").what(), "Cfg::cannot parse: x=1");
  EXPECT_STREQ(ZRError("Cfg", "cannot parse: ", "x=1").what(), "Cfg::cannot parse: x=1");
  EXPECT_STREQ(ZRError("", "", "just text").what(), "just text");
  // An empty error still says something.
  EXPECT_STRNE(ZRError().what(), "");

  // The text survives copies: what() must not point into the source object.
  std::string expected;
  ZRError copy;
  {
    ZRError original("A", "b", "c", "f.cpp", 1);
    expected = original.what();
    copy = original;
  }
  EXPECT_EQ(copy.what(), expected);
}

TEST(ZRError, ThrownAndCaughtAsStdException) {
  try {
    throw ZRError("Net", "connect", "refused", "net.cpp", 9);
  } catch (const std::exception& e) {
    EXPECT_EQ(std::string(e.what()), "Net::connect: refused (net.cpp:9)");
    const auto* zr = dynamic_cast<const ZRError*>(&e);
    ASSERT_NE(zr, nullptr);
    EXPECT_EQ(zr->getModuleName(), "Net");
  }

  try {
    throw ZRError("Net", "connect", "refused");
  } catch (const ZRError& e) {
    EXPECT_EQ(e.getMethodName(), "connect");
    EXPECT_STREQ(e.what(), "Net::connect: refused");
  }

  EXPECT_THROW(throw ZRError("a", "b", "c"), std::exception);
}
