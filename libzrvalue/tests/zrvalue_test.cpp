#include <zrvalue/zrvalue.h>

#include <gtest/gtest.h>

#include <boost/thread/thread.hpp>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>
#include <string>
#include <vector>

using ZR::ZRError;
using ZR::ZRValue;

namespace {

// The text of the ZRError thrown by `f`, or "" when nothing was thrown.
template <class F>
std::string errorText(F&& f) {
  try {
    f();
  } catch (const ZRError& e) {
    return e.what();
  }
  return "";
}

ZRValue arrayOf(std::initializer_list<ZRValue> elements) {
  ZRValue a;
  a.arrayReserve(0);
  for (const ZRValue& e : elements) a.arrayPush(e);
  return a;
}

TEST(ZRValue, TypeQueries) {
  const char bytes[3] = {1, 2, 3};
  const std::vector<ZRValue> values = {ZRValue(),      ZRValue(true), ZRValue(7),
                                       ZRValue(0.5f),  ZRValue("s"),  ZRValue(bytes, 3),
                                       arrayOf({1, 2})};
  for (int t = ZRValue::TypeInvalid; t <= ZRValue::TypeArray; ++t) {
    const ZRValue& v = values[static_cast<size_t>(t)];
    EXPECT_EQ(v.getType(), t);
    const bool is[] = {!v.isValid(), v.isBool(),   v.isInt(),  v.isFloat(),
                       v.isString(), v.isBinary(), v.isArray()};
    for (int q = ZRValue::TypeInvalid; q <= ZRValue::TypeArray; ++q)
      EXPECT_EQ(is[q], q == t) << v.getTypeName() << " queried as "
                               << ZRValue::typeName(ZRValue::Type(q));
  }
  EXPECT_TRUE(ZRValue(0.25).isFloat());
}

TEST(ZRValue, CheckedConversions) {
  EXPECT_EQ(ZRValue(-12).toInt(), -12);
  EXPECT_TRUE(ZRValue(true).toBool());
  EXPECT_FLOAT_EQ(ZRValue(3).toFloat(), 3.0f);  // an int reads as a float
  EXPECT_EQ(ZRValue("hi").toStringRef(), "hi");
  const int viaOperator = ZRValue(9);
  EXPECT_EQ(viaOperator, 9);

  // Each message names the wanted and the actual type.
  auto expectNames = [](const std::string& text, const char* wanted, const char* actual) {
    EXPECT_NE(text.find(wanted), std::string::npos) << text;
    EXPECT_NE(text.find(actual), std::string::npos) << text;
  };
  expectNames(errorText([] { arrayOf({1}).toInt(); }), "int", "array");
  expectNames(errorText([] { ZRValue(1.5f).toInt(); }), "int", "float");
  expectNames(errorText([] { ZRValue(1).toBool(); }), "bool", "int");
  expectNames(errorText([] { ZRValue("1").toFloat(); }), "float", "string");
  expectNames(errorText([] { ZRValue(true).toStringRef(); }), "string", "bool");
  EXPECT_THROW(ZRValue(static_cast<const char*>(nullptr)), ZRError);
}

TEST(ZRValue, WiderIntegersAreRangeChecked) {
  EXPECT_EQ(ZRValue(std::int64_t{std::numeric_limits<int>::min()}).toInt(),
            std::numeric_limits<int>::min());
  EXPECT_EQ(ZRValue(std::uint32_t{0x7fffffff}).toInt(), 0x7fffffff);
  EXPECT_EQ(ZRValue(static_cast<short>(-3)).toInt(), -3);
  EXPECT_THROW(ZRValue(std::int64_t{std::numeric_limits<int>::min()} - 1), ZRError);
  EXPECT_THROW(ZRValue(std::int64_t{1} << 40), ZRError);
  EXPECT_THROW(ZRValue(std::uint32_t{0x80000000u}), ZRError);
  EXPECT_THROW(ZRValue(std::numeric_limits<std::uint64_t>::max()), ZRError);
}

TEST(ZRValue, ArraysCopyDeeply) {
  const ZRValue outer = arrayOf({arrayOf({1, "two"}), 3.5f});
  ZRValue copy = outer;
  copy[0][1] = "changed";
  copy[0].arrayPush(99);
  copy[1] = 7;
  EXPECT_EQ(outer, arrayOf({arrayOf({1, "two"}), 3.5f}));
  EXPECT_EQ(copy[0][1].toStringRef(), "changed");
}

TEST(ZRValue, ArraySizingAndElementAccess) {
  ZRValue v(5);
  v.arrayReserve(10);  // turns a scalar into an empty array
  EXPECT_TRUE(v.isArray());
  EXPECT_EQ(v.getSize(), 0);
  v.arrayPush(1);
  v.arrayPush("b");
  v.arraySetSize(4);  // grows, keeping what is there
  EXPECT_EQ(v.toString(), "[1, \"b\", <invalid>, <invalid>]");
  v.arraySetSize(1);
  EXPECT_EQ(v, arrayOf({1}));

  const ZRValue& cv = v;
  EXPECT_THROW(cv[1], ZRError);
  EXPECT_THROW(v[-1], ZRError);
  EXPECT_NE(errorText([&] { v[1]; }).find("out of range"), std::string::npos);
  EXPECT_NE(errorText([] { ZRValue(3)[0]; }).find("not an array"), std::string::npos);
}

TEST(ZRValue, BinaryIsSharedNotCopied) {
  const char bytes[4] = {1, 2, 3, 4};
  const ZRValue a(bytes, sizeof bytes);
  ASSERT_EQ(std::memcmp(a.GetBinary(), bytes, sizeof bytes), 0);
  EXPECT_EQ(ZRValue(a).GetBinary(), a.GetBinary());
  EXPECT_EQ(ZRValue(arrayOf({a}))[0].GetBinary(), a.GetBinary());  // through an array copy too

  EXPECT_EQ(ZRValue("x").GetBinary(), nullptr);
  EXPECT_NE(ZRValue(nullptr, 0).GetBinary(), nullptr);  // empty, but still binary
  EXPECT_THROW(ZRValue(nullptr, 3), ZRError);
}

TEST(ZRValue, WrapsExternalStorageWithoutCopy) {
  auto buffer = std::make_shared<std::string>(4096, 'z');
  const char* data = buffer->data();
  ZRValue copy;
  {
    const ZRValue wrapped(data, buffer->size(), buffer);
    buffer.reset();  // the value alone keeps the bytes alive now
    copy = wrapped;
  }
  // A premature release shows here as a use after free under AddressSanitizer.
  ASSERT_EQ(copy.GetBinary(), data);
  EXPECT_EQ(std::string(data, copy.getBinarySize()), std::string(4096, 'z'));
  // The owner lets another value share a slice of the same storage.
  const ZRValue slice(data + 16, 16, copy.getBinaryOwner());
  copy = ZRValue();
  EXPECT_EQ(std::string(static_cast<const char*>(slice.GetBinary()), 16), std::string(16, 'z'));
}

TEST(ZRValue, Equality) {
  EXPECT_EQ(ZRValue(3), 3);
  EXPECT_NE(ZRValue(3), 4);
  EXPECT_NE(ZRValue(3), ZRValue(3.0f));  // different types never compare equal
  EXPECT_EQ(ZRValue("a"), "a");
  EXPECT_EQ(ZRValue("xyz", 3), ZRValue(std::string("xyz").data(), 3));  // same content
  EXPECT_NE(ZRValue("xyz", 3), ZRValue("xyz", 2));
  EXPECT_NE(arrayOf({1, "s"}), arrayOf({1, "t"}));
}

TEST(ZRValue, ToStringIsReadable) {
  EXPECT_EQ(ZRValue(42).toString(), "42");
  EXPECT_EQ(ZRValue(0.5f).toString(), "0.5");
  EXPECT_EQ(ZRValue(2.0f).toString(), "2.0");
  EXPECT_EQ(ZRValue("say \"hi\"").toString(), "\"say \\\"hi\\\"\"");
  EXPECT_EQ(ZRValue().toString(), "<invalid>");
  const std::vector<char> bytes(3200);
  EXPECT_EQ(ZRValue(bytes.data(), bytes.size()).toString(), "<binary 3200 bytes>");
  EXPECT_EQ(arrayOf({1, "a", arrayOf({false})}).toString(), "[1, \"a\", [false]]");
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
  v = v;
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
