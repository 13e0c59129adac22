#include <gtest/gtest.h>
TEST(VoiceActivity, Placeholder) {}
