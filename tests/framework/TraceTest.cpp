#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "fwk/ModuleSupport.h"
#include "fwk/framework/Exception.h"
#include "fwk/framework/Name.h"
#include "fwk/framework/Trace.h"

namespace {

int evaluations = 0;
double third() {
  ++evaluations;
  return 1.0 / 3;
}

struct Traced {
  Kel::Name name() const { return "obj1"; }
  void handle() {
    IRI_TRACE_BEGIN();
    IRI_TRACE(0, "value " << third());
    IRI_TRACE_END();
  }
  void own() {
    IRI_SIGNATURE("void InterfaceRouteInfo::Own::handle(", "int", ")");
    IRI_TRACE_BEGIN();
  }
};

class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Kel::traceConfigIs("");
    Kel::traceSinkIs(&recorder);
    evaluations = 0;
  }
  void TearDown() override {
    Kel::traceConfigIs("");
    Kel::traceSinkIs(nullptr);
    Kel::coverageStreamIs(nullptr);
  }
  Kel::TraceRecorder recorder;
};

TEST_F(TraceTest, ConfigurationTextSetsLevelsAndRejectsMalformedText) {
  Kel::TraceHandle* a = Kel::traceHandle("TestA");
  EXPECT_EQ(Kel::traceHandle("TestA"), a);
  Kel::traceConfigIs(" TestA/0,8-9 ; TestB");
  EXPECT_EQ(a->levels(), (1u << 0) | (1u << 8) | (1u << 9));
  EXPECT_EQ(Kel::traceHandle("TestB")->levels(), ~0u);
  Kel::traceConfigIs("*/2-3;TestA/5");
  EXPECT_EQ(Kel::traceHandle("TestMadeLater")->levels(), 0b1100u);
  EXPECT_EQ(a->levels(), 1u << 5);
  a->enabledIs(false);
  EXPECT_FALSE(a->levelEnabled(5));
  EXPECT_FALSE(a->active(5));
  a->enabledIs(true);
  EXPECT_TRUE(a->active(5));
  EXPECT_THROW(a->levelIs(32, true), Kel::RangeException);

  const std::vector<std::pair<std::string, std::string>> bad = {
      {"TestA/", "bad trace configuration \"TestA/\": empty level list"},
      {"/1", "bad trace configuration \"/1\": empty facility name"},
      {"TestA/x", "bad trace configuration \"TestA/x\": level \"x\" is not a number"},
      {"TestA/9-8", "bad trace configuration \"TestA/9-8\": range 9-8 is reversed"},
      {"TestA/1-32", "bad trace configuration \"TestA/1-32\": level 32 out of range 0-31"},
      {"TestA/1,", "bad trace configuration \"TestA/1,\": missing level"},
      {"TestA/1;;TestB", "bad trace configuration \"\": empty entry"},
  };
  for (const auto& [text, message] : bad) {
    try {
      Kel::traceConfigIs(text);
      ADD_FAILURE() << text;
    } catch (const Kel::RangeException& e) {
      EXPECT_EQ(e.what(), message);
    }
  }
  EXPECT_EQ(a->levels(), 1u << 5);  // a rejected text changes nothing
}

TEST_F(TraceTest, ModuleTracesAreLazyAndCarryTheirRecord) {
  Traced t;
  t.handle();
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(recorder.records().empty());

  Kel::traceConfigIs("InterfaceRouteInfo/0,8");
  t.handle();
  t.own();
  EXPECT_EQ(evaluations, 1);
  const std::string sig = "void {anonymous}::Traced::handle()";
  EXPECT_EQ(recorder.messages(),
            (std::vector<std::string>{sig + "BEGIN", "value 0.333333333333", sig + "END",
                                      "void InterfaceRouteInfo::Own::handle(int)BEGIN"}));
  const Kel::TraceRecord& r = recorder.records()[1];
  EXPECT_EQ(r.facility, "InterfaceRouteInfo");
  EXPECT_EQ(r.object, "obj1");
  EXPECT_EQ(r.level, 0);
  EXPECT_TRUE(r.levelEnabled);
  EXPECT_EQ(r.file, "InterfaceRouteInfo.tin");
  EXPECT_EQ(r.function, sig);
  EXPECT_EQ(Kel::traceLine(r), "InterfaceRouteInfo/0 obj1: value 0.333333333333");

  // Without an object, and through the default sink on stderr.
  Kel::traceSinkIs(nullptr);
  testing::internal::CaptureStderr();
  IRI_TRACE_STATIC(0, "static " << 2.5);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "InterfaceRouteInfo/0 static 2.5\n");
}

TEST_F(TraceTest, CoverageStreamPerformsDisabledStatementsWithoutReachingTheSink) {
  std::ostringstream coverage;
  Kel::coverageStreamIs(&coverage);
  Kel::traceConfigIs("InterfaceRouteInfo/0");
  Traced t;
  t.handle();
  EXPECT_EQ(evaluations, 1);
  EXPECT_EQ(recorder.messages(), (std::vector<std::string>{"value 0.333333333333"}));
  std::vector<std::string> lines;
  std::istringstream in(coverage.str());
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find(": InterfaceRouteInfo/8 off: "), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find(": InterfaceRouteInfo/0 on: value 0.333333333333"), std::string::npos);

  Kel::coverageStreamIs(nullptr);
  Kel::traceConfigIs("");
  t.handle();
  EXPECT_EQ(evaluations, 1);
}

void failingCheck(int x) { IRI_ASSERT(x == 2); }

TEST(ModuleAssertDeathTest, PrintsFileLineFunctionAndExpressionThenAborts) {
  const int line = __LINE__ - 3;
  const std::string expected =
      "InterfaceRouteInfo.tin:" + std::to_string(line) +
      ": void {anonymous}::failingCheck(int): Assertion `x == 2' failed.\n";
  std::string pattern;  // the exact text as an extended regular expression
  for (char c : expected) {
    if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) pattern += '\\';
    pattern += c;
  }
  EXPECT_DEATH(failingCheck(1), pattern);
  failingCheck(2);
}

}  // namespace
