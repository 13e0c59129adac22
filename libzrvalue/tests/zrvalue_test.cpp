#include <zrvalue/zrvalue.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <sstream>
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
}  // namespace

TEST(ZRValue, TypeQueries) {
  ZRValue array;
  array.arrayPush(1);
  const unsigned char bytes[3] = {1, 2, 3};
  struct Case {
    ZRValue v;
    ZRValue::Type type;
    const char* name;
  };
  const std::vector<Case> cases = {
      {ZRValue(), ZRValue::TypeInvalid, "invalid"},  {ZRValue(true), ZRValue::TypeBool, "bool"},
      {ZRValue(7), ZRValue::TypeInt, "int"},         {ZRValue(0.5f), ZRValue::TypeFloat, "float"},
      {ZRValue(0.25), ZRValue::TypeFloat, "float"},  {ZRValue("s"), ZRValue::TypeString, "string"},
      {ZRValue(bytes, 3), ZRValue::TypeBinary, "binary"}, {array, ZRValue::TypeArray, "array"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.v.getType(), c.type);
    EXPECT_STREQ(c.v.getTypeName(), c.name);
    EXPECT_EQ(c.v.isValid(), c.type != ZRValue::TypeInvalid);
    EXPECT_EQ(c.v.isBool(), c.type == ZRValue::TypeBool);
    EXPECT_EQ(c.v.isInt(), c.type == ZRValue::TypeInt);
    EXPECT_EQ(c.v.isFloat(), c.type == ZRValue::TypeFloat);
    EXPECT_EQ(c.v.isString(), c.type == ZRValue::TypeString);
    EXPECT_EQ(c.v.isBinary(), c.type == ZRValue::TypeBinary);
    EXPECT_EQ(c.v.isArray(), c.type == ZRValue::TypeArray);
  }
  EXPECT_EQ(ZRValue("abcd").getSize(), 4);
  EXPECT_EQ(ZRValue(bytes, 3).getSize(), 3);
  EXPECT_EQ(ZRValue(5).getSize(), 0);
}

TEST(ZRValue, CheckedConversions) {
  EXPECT_EQ(ZRValue(-12).toInt(), -12);
  EXPECT_TRUE(ZRValue(true).toBool());
  EXPECT_FLOAT_EQ(ZRValue(1.5f).toFloat(), 1.5f);
  EXPECT_FLOAT_EQ(ZRValue(3).toFloat(), 3.0f);  // an int reads as a float
  EXPECT_EQ(ZRValue("hi").toStringRef(), "hi");
  const int viaOperator = ZRValue(9);
  EXPECT_EQ(viaOperator, 9);
  const std::string s = ZRValue(std::string("text"));
  EXPECT_EQ(s, "text");

  ZRValue array;
  array.arrayPush(1);
  // Each message must name both the wanted and the actual type.
  auto expectNames = [](const std::string& text, const char* wanted, const char* actual) {
    EXPECT_NE(text.find(wanted), std::string::npos) << text;
    EXPECT_NE(text.find(actual), std::string::npos) << text;
  };
  expectNames(errorText([&] { array.toInt(); }), "int", "array");
  expectNames(errorText([] { ZRValue(1.5f).toInt(); }), "int", "float");
  expectNames(errorText([] { ZRValue(1).toBool(); }), "bool", "int");
  expectNames(errorText([] { ZRValue("1").toFloat(); }), "float", "string");
  expectNames(errorText([] { ZRValue(true).toStringRef(); }), "string", "bool");
  expectNames(errorText([] { ZRValue().toInt(); }), "int", "invalid");

  EXPECT_EQ(ZRValue(std::vector<std::string>{"a", "b"}).toStringVector(),
            (std::vector<std::string>{"a", "b"}));
  EXPECT_THROW(array.toStringVector(), ZRError);
  EXPECT_THROW(ZRValue(static_cast<const char*>(nullptr)), ZRError);
}

TEST(ZRValue, WiderIntegersAreRangeChecked) {
  EXPECT_EQ(ZRValue(std::int64_t{-5}).toInt(), -5);
  EXPECT_EQ(ZRValue(std::int64_t{std::numeric_limits<int>::min()}).toInt(),
            std::numeric_limits<int>::min());
  EXPECT_EQ(ZRValue(std::uint32_t{0x7fffffff}).toInt(), 0x7fffffff);
  EXPECT_EQ(ZRValue(std::size_t{12}).toInt(), 12);
  EXPECT_EQ(ZRValue(static_cast<unsigned char>(200)).toInt(), 200);
  EXPECT_EQ(ZRValue(static_cast<short>(-3)).toInt(), -3);

  EXPECT_THROW(ZRValue(std::int64_t{1} << 40), ZRError);
  EXPECT_THROW(ZRValue(std::int64_t{std::numeric_limits<int>::min()} - 1), ZRError);
  EXPECT_THROW(ZRValue(std::numeric_limits<std::int64_t>::min()), ZRError);
  EXPECT_THROW(ZRValue(std::uint32_t{0x80000000u}), ZRError);
  EXPECT_THROW(ZRValue(std::numeric_limits<std::uint64_t>::max()), ZRError);
}

TEST(ZRValue, ArraysCopyDeeply) {
  ZRValue inner;
  inner.arrayPush(1);
  inner.arrayPush("two");
  ZRValue outer;
  outer.arrayPush(inner);
  outer.arrayPush(3.5f);

  ZRValue copy = outer;
  copy[0][1] = "changed";
  copy[0].arrayPush(99);
  copy[1] = 7;
  EXPECT_EQ(outer[0][1].toStringRef(), "two");
  EXPECT_EQ(outer[0].getSize(), 2);
  EXPECT_FLOAT_EQ(outer[1].toFloat(), 3.5f);
  EXPECT_EQ(copy[0][1].toStringRef(), "changed");

  // Pushing copies too: changing the pushed source afterwards leaves the array alone.
  inner[0] = 100;
  EXPECT_EQ(outer[0][0].toInt(), 1);
}

TEST(ZRValue, ArraySizingAndElementAccess) {
  ZRValue v(5);
  v.arrayReserve(10);  // turns a scalar into an empty array
  EXPECT_TRUE(v.isArray());
  EXPECT_EQ(v.getSize(), 0);

  v.arrayPush(1);
  v.arrayPush(ZRValue("b"));
  v.arraySetSize(4);  // grows, keeping what is there
  ASSERT_EQ(v.getSize(), 4);
  EXPECT_EQ(v[0].toInt(), 1);
  EXPECT_EQ(v[1].toStringRef(), "b");
  EXPECT_FALSE(v[3].isValid());
  v.arraySetSize(1);
  EXPECT_EQ(v.arrayElements().size(), 1u);
  EXPECT_EQ(v[0].toInt(), 1);

  const ZRValue& cv = v;
  EXPECT_THROW(cv[1], ZRError);
  EXPECT_THROW(v[-1], ZRError);
  EXPECT_NE(errorText([&] { v[1]; }).find("out of range"), std::string::npos);
  EXPECT_THROW(ZRValue(3)[0], ZRError);
  EXPECT_THROW(ZRValue("abc").arrayElements(), ZRError);
  EXPECT_THROW(v.arraySetSize(-1), ZRError);
}

TEST(ZRValue, BinaryIsSharedNotCopied) {
  const unsigned char bytes[4] = {0xde, 0xad, 0xbe, 0xef};
  const ZRValue a(bytes, sizeof bytes);
  ASSERT_NE(a.GetBinary(), nullptr);
  EXPECT_NE(a.GetBinary(), static_cast<const void*>(bytes));  // the plain constructor copies once
  EXPECT_EQ(std::memcmp(a.GetBinary(), bytes, sizeof bytes), 0);
  EXPECT_EQ(a.getBinarySize(), sizeof bytes);

  const ZRValue copy = a;
  EXPECT_EQ(copy.GetBinary(), a.GetBinary());
  ZRValue inArray;
  inArray.arrayPush(a);
  const ZRValue arrayCopy = inArray;
  EXPECT_EQ(arrayCopy[0].GetBinary(), a.GetBinary());

  EXPECT_EQ(ZRValue(7).GetBinary(), nullptr);
  EXPECT_EQ(ZRValue("x").GetBinary(), nullptr);
  EXPECT_EQ(ZRValue().getBinarySize(), 0u);
  EXPECT_EQ(ZRValue(7).getBinaryOwner(), nullptr);
  const ZRValue empty(nullptr, 0);
  EXPECT_TRUE(empty.isBinary());
  EXPECT_NE(empty.GetBinary(), nullptr);
  EXPECT_THROW(ZRValue(nullptr, 3), ZRError);
}

TEST(ZRValue, WrapsExternalStorageWithoutCopy) {
  auto buffer = std::make_shared<std::vector<std::uint8_t>>(4096);
  for (std::size_t i = 0; i < buffer->size(); ++i) (*buffer)[i] = static_cast<std::uint8_t>(i * 7);
  const void* data = buffer->data();

  ZRValue copy;
  {
    ZRValue wrapped(data, buffer->size(), buffer);
    EXPECT_EQ(wrapped.GetBinary(), data);
    buffer.reset();  // the value alone keeps the bytes alive now
    copy = wrapped;
  }
  // Under AddressSanitizer a premature release would show as a use after free here.
  ASSERT_EQ(copy.GetBinary(), data);
  const auto* bytes = static_cast<const std::uint8_t*>(copy.GetBinary());
  for (std::size_t i = 0; i < copy.getBinarySize(); ++i)
    ASSERT_EQ(bytes[i], static_cast<std::uint8_t>(i * 7)) << i;

  // The owner can seed another value over a slice of the same storage.
  const ZRValue slice(bytes + 16, 16, copy.getBinaryOwner());
  EXPECT_EQ(static_cast<const std::uint8_t*>(slice.GetBinary())[0], static_cast<std::uint8_t>(16 * 7));

  std::weak_ptr<const void> watch = copy.getBinaryOwner();
  copy = ZRValue();
  EXPECT_FALSE(watch.expired());  // the slice still holds it
}

TEST(ZRValue, Equality) {
  EXPECT_EQ(ZRValue(), ZRValue());
  EXPECT_EQ(ZRValue(3), 3);
  EXPECT_NE(ZRValue(3), 4);
  EXPECT_NE(ZRValue(3), ZRValue(3.0f));  // different types never compare equal
  EXPECT_EQ(ZRValue("a"), "a");
  EXPECT_NE(ZRValue("a"), ZRValue());
  EXPECT_EQ(ZRValue(true), true);

  const char x[3] = {1, 2, 3};
  const char y[3] = {1, 2, 3};
  EXPECT_EQ(ZRValue(x, 3), ZRValue(y, 3));  // distinct storage, same content
  EXPECT_NE(ZRValue(x, 3), ZRValue(y, 2));

  ZRValue a;
  a.arrayPush(1);
  a.arrayPush("s");
  ZRValue b = a;
  EXPECT_EQ(a, b);
  b[1] = "t";
  EXPECT_NE(a, b);
}

TEST(ZRValue, ToStringIsReadable) {
  EXPECT_EQ(ZRValue(42).toString(), "42");
  EXPECT_EQ(ZRValue(0.5f).toString(), "0.5");
  EXPECT_EQ(ZRValue(2.0f).toString(), "2.0");
  EXPECT_EQ(ZRValue(true).toString(), "true");
  EXPECT_EQ(ZRValue("say \"hi\"").toString(), "\"say \\\"hi\\\"\"");
  EXPECT_EQ(ZRValue().toString(), "<invalid>");
  const std::vector<char> bytes(3200);
  EXPECT_EQ(ZRValue(bytes.data(), bytes.size()).toString(), "<binary 3200 bytes>");

  ZRValue inner;
  inner.arrayPush(false);
  ZRValue outer;
  outer.arrayPush(1);
  outer.arrayPush("a");
  outer.arrayPush(inner);
  EXPECT_EQ(outer.toString(), "[1, \"a\", [false]]");
  std::ostringstream os;
  os << outer;
  EXPECT_EQ(os.str(), outer.toString());
}
