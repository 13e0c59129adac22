#include <zrvalue/zrvalue.h>

#include <gtest/gtest.h>
#include <zrtest.h>
#include <boost/thread/thread.hpp>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using ZR::ZRError;
using ZR::ZRValue;

namespace {

ZRValue arrayOf(std::initializer_list<ZRValue> elements) {
  ZRValue a;
  a.arrayReserve(0);
  for (const ZRValue& e : elements) a.arrayPush(e);
  return a;
}

TEST(ZRValue, TypesAndCheckedConversions) {
  const char bytes[3] = {1, 2, 3};
  const std::vector<ZRValue> values = {ZRValue(),      ZRValue(true), ZRValue(7),
                                       ZRValue(0.5),   ZRValue("s"),  ZRValue(bytes, 3),
                                       arrayOf({1, 2})};
  for (int t = ZRValue::TypeInvalid; t <= ZRValue::TypeArray; ++t) {
    const ZRValue& v = values[static_cast<size_t>(t)];
    const bool is[] = {!v.isValid(), v.isBool(),   v.isInt(),  v.isFloat(),
                       v.isString(), v.isBinary(), v.isArray()};
    for (int q = ZRValue::TypeInvalid; q <= ZRValue::TypeArray; ++q)
      EXPECT_EQ(is[q], q == t) << v.getTypeName() << " as " << ZRValue::typeName(ZRValue::Type(q));
  }
  const int viaOperator = ZRValue(9);  // an int reads as a float; nothing else converts
  EXPECT_EQ(ZRValue(3).toFloat() + static_cast<float>(viaOperator), 12.0f);
  // Each message names the actual and the wanted type.
  const std::vector<std::pair<std::function<void()>, const char*>> misfits = {
      {[] { arrayOf({1}).toInt(); }, "type array to int"},
      {[] { ZRValue(1.5f).toInt(); }, "type float to int"},
      {[] { ZRValue(1).toBool(); }, "type int to bool"},
      {[] { ZRValue("1").toFloat(); }, "type string to float"},
      {[] { ZRValue(true).toStringRef(); }, "type bool to string"},
      {[] { arrayOf({1})[1]; }, "out of range"},
      {[] { arrayOf({1})[-1]; }, "out of range"},
      {[] { ZRValue(3)[0]; }, "not an array"},
  };
  for (const auto& [f, part] : misfits)
    EXPECT_NE(zrtest::errorOf(f).getDescription().find(part), std::string::npos) << part;
  EXPECT_THROW(ZRValue(static_cast<const char*>(nullptr)), ZRError);
  // Wider integers are range-checked into 32 bits.
  constexpr std::int64_t kMin = std::numeric_limits<int>::min();
  EXPECT_EQ(ZRValue(kMin).toInt() + ZRValue(std::uint32_t{0x7fffffff}).toInt(), -1);
  EXPECT_THROW(ZRValue(kMin - 1), ZRError);
  EXPECT_THROW(ZRValue(std::uint32_t{0x80000000u}), ZRError);
}

TEST(ZRValue, ArraysCopyDeeplyCompareAndPrint) {
  const ZRValue outer = arrayOf({arrayOf({1, "two"}), 3.5f});
  ZRValue copy = outer;
  copy[0][1] = "changed";
  copy[0].arrayPush(99);
  EXPECT_EQ(outer, arrayOf({arrayOf({1, "two"}), 3.5f}));
  EXPECT_EQ(copy.toString(), "[[1, \"changed\", 99], 3.5]");
  EXPECT_NE(ZRValue(3), ZRValue(3.0f));  // different types never compare equal
  EXPECT_NE(arrayOf({1, "s"}), arrayOf({1, "s", 2}));
  EXPECT_EQ(ZRValue(2.0f).toString() + ZRValue("say \"hi\"").toString(), "2.0\"say \\\"hi\\\"\"");
  ZRValue v(5);
  v.arrayReserve(10);  // turns a scalar into an empty array
  EXPECT_EQ(v.getSize(), 0);
  v.arrayPush(1);
  v.arraySetSize(3);  // grows, keeping what is there
  EXPECT_EQ(v.toString(), "[1, <invalid>, <invalid>]");

  // A list of arguments takes what it is given without copying it, and copies the rest once.
  std::string text(100, 'x');
  const char* bytes = text.data();
  ZRValue nested = arrayOf({arrayOf({1, 2}), 3});
  const ZRValue* first = &nested.arrayElements()[0];
  const std::vector<ZRValue> args = ZR::zrValues(std::move(text), std::move(nested), outer, 7);
  ASSERT_EQ(args.size(), 4u);
  EXPECT_EQ(args[0].toStringRef().data(), bytes);
  EXPECT_EQ(&args[1].arrayElements()[0], first);
  EXPECT_EQ(args[2], outer);
  EXPECT_EQ(args[3], ZRValue(7));
}

TEST(ZRValue, BinaryIsSharedNotCopied) {
  const char bytes[4] = {1, 2, 3, 4};
  const ZRValue a(bytes, sizeof bytes);
  ASSERT_EQ(std::memcmp(a.GetBinary(), bytes, sizeof bytes), 0);
  EXPECT_EQ(ZRValue(arrayOf({a}))[0].GetBinary(), a.GetBinary());  // through an array copy too
  EXPECT_EQ(a.toString(), "<binary 4 bytes>");
  EXPECT_EQ(ZRValue("xyz", 3), ZRValue(std::string("xyz").data(), 3));  // same content
  EXPECT_NE(ZRValue("xyz", 3), ZRValue("xyz", 2));
  EXPECT_EQ(ZRValue("x").GetBinary(), nullptr);
  EXPECT_NE(ZRValue(nullptr, 0).GetBinary(), nullptr);  // empty, but still binary
  EXPECT_THROW(ZRValue(nullptr, 3), ZRError);
  // Bytes someone else owns: the values alone keep them alive (ASan shows an early release).
  auto buffer = std::make_shared<std::string>(4096, 'z');
  const char* data = buffer->data();
  ZRValue copy;
  {
    const ZRValue wrapped(data, buffer->size(), buffer);
    buffer.reset();
    copy = wrapped;
  }
  ASSERT_EQ(copy.GetBinary(), data);
  const ZRValue slice(data + 16, 16, copy.getBinaryOwner());  // a slice shares the owner
  copy = ZRValue();
  EXPECT_EQ(std::string(static_cast<const char*>(slice.GetBinary()), 16), std::string(16, 'z'));
}

TEST(ZRValue, OwnElementsAndHostileDepthAreSafe) {
  // Assigned from one of its own elements, copied or moved, at any depth: the element must be
  // taken before the array holding it goes (AddressSanitizer shows a use after free otherwise).
  ZRValue v = arrayOf({arrayOf({arrayOf({7, "x"}), 2}), 3});
  v[0] = v[0][0];
  EXPECT_EQ(v, arrayOf({arrayOf({7, "x"}), 3}));
  v = v[0];
  EXPECT_EQ(v, arrayOf({7, "x"}));
  v = std::move(v[1]);
  EXPECT_EQ(v, "x");
  // Arrays of arrays 100 000 deep, as a hostile message could carry: printing, copying,
  // comparing and destroying must not run out of stack. On a thread with a 1 MiB stack, so that
  // recursion shows in every build, not only where frames are large.
  boost::thread::attributes small;
  small.set_stack_size(1 << 20);
  boost::thread deepWork(small, [] {
    constexpr int kDepth = 100000;
    ZRValue deep;
    for (int i = 0; i < kDepth; ++i) {
      ZRValue outer;
      outer.arrayPush(std::move(deep));
      deep = std::move(outer);
    }
    EXPECT_EQ(deep.toString(), std::string(kDepth, '[') + "<invalid>" + std::string(kDepth, ']'));
    ZRValue copy = deep;
    EXPECT_EQ(copy, deep);
    ZRValue* innermost = &copy;
    while (innermost->isArray()) innermost = &(*innermost)[0];
    *innermost = 1;
    EXPECT_NE(copy, deep);
    copy = deep[0];
    EXPECT_EQ(copy.toString().size(), 2 * (kDepth - 1) + 9u);
  });
  deepWork.join();
}

}  // namespace
