#include <gtest/gtest.h>

#include <zrcommon/zrbroker.h>
#include <zrcommon/zrmodule.h>
#include <zrcommon/zrproxy.h>

class Calc : public ZR::ZRModule {
 public:
  Calc(boost::shared_ptr<ZR::ZRBroker> broker, const std::string& name) : ZRModule(broker, name) {
    functionName("add", "Calc", "Adds two numbers.", 0);
    addParam("a", "First term.");
    addParam("b", "Second term.");
    setReturn("sum", "The sum.");
    bindMethod(static_cast<int (Calc::*)(const int&, const int&)>(&Calc::add));
    functionName("add", "Calc", "Adds two floats.", 0);
    addParam("a", "First term.");
    addParam("b", "Second term.");
    setReturn("sum", "The sum.");
    objectBuilder().advertiseMethod(methodBuilder(), this, static_cast<float (Calc::*)(const float&, const float&)>(&Calc::add), 0);
  }
  int add(const int& a, const int& b) { return a + b; }
  float add(const float& a, const float& b) { return a + b + 0.25f; }
};

TEST(Smoke, Calc) {
  auto broker = ZR::ZRBroker::createBroker("main");
  auto calc = ZR::ZRModule::createModule<Calc>(broker, "Calc");
  auto p = broker->getProxy("Calc", 0);
  EXPECT_EQ(p->call<int>("add", 2, 3), 5);
  EXPECT_FLOAT_EQ(p->call<float>("add", 2.0f, 3), 5.25f);
  EXPECT_TRUE(p->call<bool>("ping"));
  EXPECT_EQ(p->call<std::string>("version"), "0.1.0");
  try { p->call<int>("add", std::string("x"), 3); FAIL(); } catch (const ZR::ZRError& e) { std::cout << e.what() << "\n"; }
  std::cout << p->call<std::string>("getMethodHelp", "add");
  calc.reset();
  broker->shutdown();
  try { p->call<int>("add", 2, 3); FAIL(); } catch (const ZR::ZRError& e) { std::cout << e.what() << "\n"; }
}
