// The generic attribute interface: every settable attribute round-trips and refuses what is not a
// finite, non-negative time; nothing else is settable; the parsers' junk error; collections
// walked plainly and by key, and a value type's copy; operations called with text arguments; the
// generic notifiee adapter's per-attribute callbacks.
#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "fwk/Registration.h"
#include "fwk/framework/GenericIfAdapter.h"
#include "tests/support/ErrorText.h"

namespace {

using namespace InterfaceRouteInfo;
using Flags = Kel::KelAttrIntrospectionFlags;

// One object of each type that has a settable attribute.
std::map<std::string, std::function<Kel::GenericIfPtr()>> settableObjects() {
  return {
      {"InterfaceRouteInfo::IntfBacklog",
       [] { return Kel::genericIf(intfBacklogFactory(Kel::Name("b"))); }},
      {"InterfaceRouteInfo::RouteBacklog",
       [] { return Kel::genericIf(routeBacklogFactory(Kel::Name("b"))); }},
      {"InterfaceRouteInfo::Route6Backlog",
       [] { return Kel::genericIf(route6BacklogFactory(Kel::Name("b"))); }},
  };
}

TEST(GenericIf, EverySettableAttributeRoundTripsAndRefusesBadTimes) {
  kelInitInterfaceRouteInfo();
  const auto objects = settableObjects();
  int settable = 0;
  for (const Kel::TypeRecord* t : Kel::registry().nameSpace("InterfaceRouteInfo")->types) {
    for (const Kel::AttributeRecord& a : t->attributes) {
      if (!a.flags.has(Flags::isIndependentDomain)) continue;
      ++settable;
      SCOPED_TRACE(t->name + "::" + a.name);
      ASSERT_TRUE(objects.count(t->name)) << "no object of this type in the test";
      Kel::GenericIfPtr o = objects.at(t->name)();
      const unsigned id = o->attributeId(a.name);
      for (const char* v : {"0.25", "0", "1e-09", "3600"}) {
        o->attributeOp(Kel::AttributeOp::set, id, v);
        EXPECT_EQ(o->attributeString(id), Kel::kelText(std::stod(v)));
      }
      o->attributeOp(Kel::AttributeOp::set, id, " 0.5 ");
      for (const char* bad : {"-0.001", "inf", "-inf", "nan"}) {
        EXPECT_EQ(errorOf([&] { o->attributeOp(Kel::AttributeOp::set, id, bad); }),
                  a.name + ": " + bad + " not allowed (seconds must be finite and not negative)");
      }
      EXPECT_EQ(errorOf([&] { o->attributeOp(Kel::AttributeOp::set, id, "0.5x"); }),
                "junk at column 3 deserializing 0.5x");
      EXPECT_EQ(errorOf([&] { o->attributeOp(Kel::AttributeOp::set, id, "x"); }),
                "expected a number at column 0");
      EXPECT_EQ(o->attributeString(id), "0.5");  // every refusal left the value as it was
    }
    // Nothing else of the type is settable.
    if (!objects.count(t->name)) continue;
    Kel::GenericIfPtr o = objects.at(t->name)();
    for (const Kel::AttributeRecord& a : t->attributes) {
      if (a.flags.has(Flags::isIndependentDomain)) continue;
      EXPECT_NE(errorOf([&] { o->attributeOp(Kel::AttributeOp::set, a.id, "1"); }), "") << a.name;
    }
  }
  EXPECT_EQ(settable, 6);  // backlogQuantum and backlogDelay of the three drained backlogs
}

TEST(GenericIf, ValuesParseWholeTextsOnly) {
  EXPECT_EQ(errorOf([] { Kel::strepToValue<bool>("True x"); }),
            "junk at column 5 deserializing True x");
  EXPECT_EQ(Kel::strepToValue<std::uint32_t>("42"), 42u);
  EXPECT_NE(errorOf([] { Kel::strepToValue<std::uint32_t>("-1"); }), "");
  EXPECT_NE(errorOf([] { Kel::strepToValue<std::uint8_t>("256"); }), "");
  EXPECT_EQ(Kel::strepToValue<std::uint8_t>("255"), 255u);
  EXPECT_EQ(Kel::strepToValue<Routing::RouteKey>("10.0.0.0/8").toString(), "10.0.0.0/8");
  const std::string text =
      "Value('InterfaceRouteInfo::IpAddrSet', ** {'ipAddrWithMask': None, 'ip6AddrWithMask': "
      "None}) x";
  EXPECT_EQ(errorOf([&] { genericIfFromText(IpAddrSet::kTypeName, text); }),
            "junk at column " + std::to_string(text.size() - 1) + " deserializing " + text);
}

TEST(GenericIf, ValueTypeIsWalkedPlainlyAndByKeyAndCopiedByClone) {
  kelInitInterfaceRouteInfo();
  Kel::GenericIfPtr v = genericIfFromText(
      IpAddrSet::kTypeName,
      "Value('InterfaceRouteInfo::IpAddrSet', ** {'ipAddrWithMask': {'10.0.0.1/24': True, "
      "'10.0.1.1/24': False}, 'ip6AddrWithMask': None})");
  EXPECT_EQ(v->type().kind, Kel::TypeKind::value);
  EXPECT_EQ(v->strRep(),
            "Value('InterfaceRouteInfo::IpAddrSet', ** {'ipAddrWithMask': None, "
            "'ip6AddrWithMask': None})");
  const unsigned v4 = v->attributeId("ipAddrWithMask");
  std::vector<std::string> seen;
  for (auto it = v->iterator(v4); !it->isNull(); it->advance()) {
    seen.push_back(it->key() + "=" + it->value());
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"10.0.0.1/24=True", "10.0.1.1/24=False"}));
  Kel::GenericIfPtr copy = v->clone();
  auto at = v->iterator(v4, "10.0.1.1/24");
  ASSERT_FALSE(at->isNull());
  EXPECT_EQ(at->key(), "10.0.1.1/24");
  at->deleteCurrent();
  at->advance();
  EXPECT_TRUE(at->isNull());
  EXPECT_TRUE(v->iterator(v4, "10.0.1.1/24")->isNull());
  EXPECT_TRUE(v->iterator(v4, "10.9.9.9/24")->isNull());
  EXPECT_EQ(v->attributeString(v4), "{'10.0.0.1/24': True}");
  EXPECT_EQ(copy->attributeString(v4), "{'10.0.0.1/24': True, '10.0.1.1/24': False}");
  EXPECT_EQ(errorOf([&] { v->attributeId("ipAddr"); }),
            "InterfaceRouteInfo::IpAddrSet has no attribute 'ipAddr'");

  // A new value from a generic list: one text per attribute, in declaration order.
  Kel::GenericIfPtr made = v->genericIfListConstructor({"None", "{'2001:db8::1/64': True}"});
  EXPECT_EQ(made->attributeString(v4), "{}");
  EXPECT_EQ(made->attributeString(made->attributeId("ip6AddrWithMask")),
            "{'2001:db8::1/64': True}");
  EXPECT_EQ(v->attributeString(v4), "{'10.0.0.1/24': True}");  // the source is untouched
  EXPECT_EQ(errorOf([&] { v->genericIfListConstructor({"None"}); }),
            "InterfaceRouteInfo::IpAddrSet takes 2 attribute values, 1 given");
  EXPECT_NE(errorOf([&] { v->genericIfListConstructor({"None", "{'10.0.0.1/33': True}"}); }), "");
  EXPECT_EQ(errorOf([] {
              Kel::genericIf(intfBacklogFactory(Kel::Name("b")))->genericIfListConstructor({});
            }),
            "InterfaceRouteInfo::IntfBacklog is not a value type");
}

TEST(GenericIf, OperationsTakeTextArgumentsAndChangeNothingOnError) {
  kelInitInterfaceRouteInfo();
  auto backlog = intfBacklogFactory(Kel::Name("default"));
  Kel::GenericIfPtr o = Kel::genericIf(backlog);
  const unsigned add = o->attributeId("doAddBacklog");
  EXPECT_EQ(errorOf([&] {
              o->call(add, {"Ethernet1", "maybe"});
            }),
            "expected 'True' or 'False' at column 0");
  EXPECT_EQ(errorOf([&] { o->call(add, {"Ethernet1"}); }), "takes 2 argument(s), given 1");
  EXPECT_EQ(backlog->backlogCount(), 0u);
  o->call(add, {"Ethernet1", "True"});
  auto entry = o->iterator(o->attributeId("backlog"), "Ethernet1");
  ASSERT_FALSE(entry->isNull());
  Kel::GenericIfPtr e = entry->object();
  EXPECT_EQ(e->attributeString(e->attributeId("flapInterface")), "True");
  EXPECT_EQ(e->attributeString(e->attributeId("needClean")), "True");
  EXPECT_EQ(errorOf([&] { o->attributeString(add); }),
            "InterfaceRouteInfo::IntfBacklog::doAddBacklog is an operation, not a value");
  EXPECT_EQ(errorOf([&] { e->call(e->attributeId("intfId"), {}); }),
            "InterfaceRouteInfo::IntfBackLogEntry::intfId is not an operation that can be called");
  EXPECT_EQ(errorOf([&] { o->hasNotificationActiveIs(false); }),
            "InterfaceRouteInfo::IntfBacklog is not a reactor");
}

TEST(GenericIfAdapter, ChangesReachTheirCallbacksOnceInOrderOfFirstChange) {
  kelInitInterfaceRouteInfo();
  auto backlog = intfBacklogFactory(Kel::Name("default"));
  Kel::GenericIf_Adapter_<IntfBacklog> adapter(backlog);
  std::vector<std::string> calls;
  adapter.onAttributeIs("backlogDelay", [&] { calls.push_back("delay"); });
  adapter.onAttributeIs("backlogQuantum", [&] {
    calls.push_back("quantum");
    throw Kel::RangeException("callback failed");
  });
  adapter.onAttributeIs("backlog", [&] { calls.push_back("backlog"); });
  std::vector<unsigned> failed;
  adapter.onNotificationExceptionIs([&](unsigned id) { failed.push_back(id); });
  EXPECT_EQ(errorOf([&] { adapter.onAttributeIs("delay", [] {}); }),
            "InterfaceRouteInfo::IntfBacklog has no attribute 'delay'");

  backlog->backlogDelayIs(1);
  backlog->backlogQuantumIs(2);
  backlog->backlogDelayIs(3);
  backlog->backlogQuantumIs(2);  // unchanged: no notification
  backlog->doAddBacklog(Kanet::IntfId("Ethernet1"), false);
  const auto& type = Kel::typeRecord<IntfBacklog>();
  const unsigned delay = type.attribute("backlogDelay")->id;
  const unsigned quantum = type.attribute("backlogQuantum")->id;
  const unsigned entries = type.attribute("backlog")->id;
  EXPECT_EQ(adapter.pending(), (std::vector<unsigned>{delay, quantum, entries}));
  adapter.handleNotification();
  EXPECT_EQ(calls, (std::vector<std::string>{"delay", "quantum", "backlog"}));
  EXPECT_EQ(failed, (std::vector<unsigned>{quantum}));
  EXPECT_TRUE(adapter.pending().empty());
}

TEST(GenericIfAdapter, MadeByNameReportsLifeEndsAndMovesOnlyToItsOwnType) {
  kelInitInterfaceRouteInfo();
  auto first = intfBacklogFactory(Kel::Name("first"));
  auto second = intfBacklogFactory(Kel::Name("second"));
  Kel::GenericNotifieePtr n = Kel::genericIf(first)->notifieeNew();
  std::vector<std::string> calls;
  for (const char* a : {"backlogQuantum", "isNondestructing", "zeroReferencesIs"}) {
    n->onAttributeIs(a, [&calls, a] { calls.push_back(a); });
  }
  first->backlogQuantumIs(2);
  first->zeroReferencesIs(true);
  first->zeroReferencesIs(true);  // unchanged: not reported again
  first->isNondestructingIs(true);
  n->handleNotification();
  EXPECT_EQ(calls,
            (std::vector<std::string>{"backlogQuantum", "zeroReferencesIs", "isNondestructing"}));

  // Moved to another backlog: what was pending is dropped, the old one is no longer heard.
  calls.clear();
  first->backlogQuantumIs(3);
  n->notifierIs(Kel::genericIf(second).get());
  EXPECT_TRUE(n->pending().empty());
  first->backlogQuantumIs(4);
  second->isNondestructingIs(true);
  n->handleNotification();
  EXPECT_EQ(calls, (std::vector<std::string>{"isNondestructing"}));
  n->notifierIs(nullptr);
  second->backlogQuantumIs(5);
  EXPECT_TRUE(n->pending().empty());

  EXPECT_EQ(
      errorOf([&] { n->notifierIs(Kel::genericIf(routeBacklogFactory(Kel::Name("r"))).get()); }),
      "InterfaceRouteInfo::IntfBacklog notifiee cannot watch InterfaceRouteInfo::RouteBacklog");
  EXPECT_EQ(
      errorOf([] { Kel::genericIfFromText<IpAddrSet>(IpAddrSet().toString())->notifieeNew(); }),
      "InterfaceRouteInfo::IpAddrSet is a value: nothing to watch");
}

}  // namespace
