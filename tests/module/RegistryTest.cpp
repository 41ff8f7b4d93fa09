// Registration of the module's types: every type once, in order, with its attributes in
// declaration order and unique ids; the names of Root and of the IPv6 twins as the model names
// them (written out here by hand, not derived from the declarations); the introspection flags and
// their range; the reactors' framework attributes and their delivery switch.
#include <iterator>
#include <set>
#include <sstream>

#include "fwk/Registration.h"
#include "fwk/framework/GenericAccess.h"
#include "tests/module/World.h"
#include "tests/support/ErrorText.h"

namespace {

using namespace InterfaceRouteInfo;
using Flags = Kel::KelAttrIntrospectionFlags;

// The blank-separated words of `text`, in order.
std::vector<std::string> words(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

std::vector<std::string> names(const Kel::TypeRecord& t) {
  std::vector<std::string> out;
  for (const auto& a : t.attributes) out.push_back(a.name);
  return out;
}

const Kel::TypeRecord& type(const std::string& name) {
  kelInitInterfaceRouteInfo();
  const Kel::TypeRecord* t = Kel::registry().type("InterfaceRouteInfo::" + name);
  if (!t) throw std::runtime_error("not registered: " + name);
  return *t;
}

template <class T>
void expectDeclarationOrder() {
  const Kel::TypeRecord& rec = *Kel::registry().type(Kel::typeNameOf<T>());
  const auto& table = T::kelAttributes();
  ASSERT_EQ(rec.attributes.size(), table.size()) << rec.name;
  std::set<std::string> seen;
  for (std::size_t i = 0; i < table.size(); ++i) {
    EXPECT_EQ(rec.attributes[i].name, table[i].name) << rec.name;
    EXPECT_EQ(rec.attributes[i].id, i) << rec.name;
    EXPECT_TRUE(seen.insert(rec.attributes[i].name).second) << rec.name << " twice";
  }
}

template <class S>
concept HasIp6DirName = requires(S& s) {
  s.route6InputDirSm();
};

const std::vector<std::string> kReactor = {"isNondestructing", "kelFwkActivity",
                                           "hasNotificationActiveIs", "kelDoZombieReactors"};

// A reactor's attributes: the framework's, then the declared ones.
std::vector<std::string> reactor(const std::string& declared) {
  std::vector<std::string> out = kReactor;
  for (const std::string& w : words(declared)) out.push_back(w);
  return out;
}

TEST(Registry, EveryTypeOnceInOrderWithItsAttributesInDeclarationOrder) {
  kelInitInterfaceRouteInfo();
  kelInitInterfaceRouteInfo();  // a second call registers nothing again
  const Kel::NamespaceRecord* ns = Kel::registry().nameSpace("InterfaceRouteInfo");
  ASSERT_TRUE(ns);
  EXPECT_TRUE(ns->closed);
  const std::vector<std::string> want = words(
      "IpAddrSet IntfBackLogEntry IntfBacklog RouteBacklog Route6Backlog UnresolvedRouteBacklog "
      "UnresolvedRoute6Backlog Root IntfBacklogSm IntfStatusSm IpIntfStatusSm Ip6IntfStatusSm "
      "VrfIpIntfStatusSm VrfIp6IntfStatusSm RouteBacklogSm Route6BacklogSm RouteInputSm "
      "Route6InputSm RouteInputDirSm Route6InputDirSm RoutingConfigSm Routing6ConfigSm LoopbackSm");
  std::vector<std::string> have;
  for (const Kel::TypeRecord* t : ns->types) {
    have.push_back(t->name.substr(std::string("InterfaceRouteInfo::").size()));
    EXPECT_TRUE(t->closed) << t->name;
    EXPECT_EQ(t->kind,
              t->name.ends_with("IpAddrSet") ? Kel::TypeKind::value : Kel::TypeKind::entity)
        << t->name;
    EXPECT_EQ(t->reactor, t->name.ends_with("Sm")) << t->name;
    // Every reactor has the framework's reactor attributes, every backlog zeroReferencesIs.
    for (const auto& n : kReactor) {
      const bool entityRow = n == "isNondestructing" && t->kind == Kel::TypeKind::entity;
      EXPECT_EQ(t->attribute(n) != nullptr, t->reactor || entityRow) << t->name << " " << n;
    }
    EXPECT_EQ(t->attribute("zeroReferencesIs") != nullptr, t->name.ends_with("Backlog")) << t->name;
    if (t->reactor) {
      EXPECT_TRUE(t->attribute("initialized")) << t->name;
      EXPECT_TRUE(t->attribute("handleInitialized")) << t->name;
    }
  }
  EXPECT_EQ(have, want);
#define IRI_CHECK_(Type) expectDeclarationOrder<Type>();
  IRI_TYPES(IRI_CHECK_)
#undef IRI_CHECK_
  // Types of other libraries are referred to, not registered into the module's namespace.
  const Kel::AttributeRecord* input = type("Route6InputSm").attribute("route6Input");
  ASSERT_TRUE(input);
  EXPECT_EQ(input->type->name, "Routing6::RouteInput");
  EXPECT_EQ(input->type->kind, Kel::TypeKind::entity);
  EXPECT_EQ(type("Route6InputSm").attribute("route")->keyType->name, "Routing6::RouteKey");
}

TEST(Registry, RootAndTheIpv6TwinsCarryTheModelsNames) {
  EXPECT_EQ(names(type("Root")),
            words("isNondestructing vrfName netNs allIntfStatusDir allIntfStatusLocalDir ipStatus "
                  "ip6Status routingConfig routing6Config intfStatusManager kernelIntfStatusDir "
                  "intfBacklog intfBacklogSm vrfIpIntfStatusSm vrfIp6IntfStatusSm routingConfigSm "
                  "routing6ConfigSm loopbackSm handleIfaChange initialized handleInitialized"));
  EXPECT_EQ(names(type("Routing6ConfigSm")),
            reactor("routing6Config kernelIntfStatusDir intfStatusManager route6InputDirSm "
                    "initialized handleInitialized handleRouteInputDir"));
  EXPECT_EQ(names(type("Route6InputDirSm")),
            reactor("route6InputDir kernelIntfStatusDir intfStatusManager route6InputSm "
                    "initialized handleInitialized handleRoute6InputDir doPrepareToDie"));
  EXPECT_EQ(names(type("Route6InputSm")),
            reactor("name route6Input kernelIntfStatusDir intfStatusManager gwp route6Backlog "
                    "unresolvedRoute6Backlog route6BacklogSm route initialized handleInitialized "
                    "handleRoute"));
  EXPECT_EQ(
      names(type("Route6BacklogSm")),
      reactor(
          "backlogClock route6Backlog unresolvedRoute6Backlog route6Input gwp kernelIntfStatusDir "
          "intfStatusManager backlogScheduled backlogCount initialized handleInitialized "
          "handleBacklog doAddBacklog doAddRoute doDeleteRoute doPrepareToDie"));
  EXPECT_EQ(names(type("Route6Backlog")),
            words("isNondestructing zeroReferencesIs backlog backlogQuantum backlogDelay"));
  EXPECT_EQ(names(type("UnresolvedRoute6Backlog")),
            words("isNondestructing zeroReferencesIs backlog"));
  EXPECT_EQ(names(type("Ip6IntfStatusSm")),
            reactor("vrfIp6IntfStatus intfBacklog ip6IntfStatus initialized handleInitialized "
                    "handleIp6IntfStatus doPrepareToDie"));
  EXPECT_EQ(names(type("VrfIp6IntfStatusSm")),
            reactor("vrfName ip6Status intfBacklog ip6IntfStatusSm initialized handleInitialized "
                    "handleVrfIp6IntfStatus"));
  // The IPv4 instances of the same templates keep the IPv4 names.
  EXPECT_EQ(names(type("RoutingConfigSm")),
            reactor("routingConfig kernelIntfStatusDir intfStatusManager routeInputDirSm "
                    "initialized handleInitialized handleRouteInputDir"));
  EXPECT_EQ(names(type("RouteInputDirSm"))[kReactor.size()], "routeInputDir");
  EXPECT_EQ(names(type("RouteBacklogSm"))[kReactor.size() + 1], "routeBacklog");
  // The typed interface answers to the twin's names on the twin only.
  static_assert(HasIp6DirName<Routing6ConfigSm>);
  static_assert(!HasIp6DirName<RoutingConfigSm>);
  static_assert(requires(Route6InputDirSm & s) { s.handleRoute6InputDir(Kel::Name("bgp")); });
}

TEST(Registry, FlagsFollowTheKindAndStayWithinSixBits) {
  EXPECT_NO_THROW(Flags(0x3f));
  EXPECT_EQ(errorOf<Kel::RangeException>([] { Flags(0x40); }),
            "KelAttrIntrospectionFlags::value > 0x3f not allowed");
  auto flags = [](const std::string& t, const std::string& a) {
    return type(t).attribute(a)->flags;
  };
  EXPECT_EQ(flags("IntfBacklog", "doAddBacklog"), Flags(Flags::isFunction));
  EXPECT_EQ(flags("IntfBacklog", "backlogDelay"), Flags(Flags::isIndependentDomain));
  EXPECT_EQ(flags("IntfBacklog", "backlog"),
            Flags(Flags::isCollection | Flags::hasInternalIndex | Flags::isInstantiating));
  EXPECT_EQ(flags("RouteBacklog", "backlog"), Flags(Flags::isCollection | Flags::hasInternalIndex));
  EXPECT_EQ(flags("RouteInputSm", "route"),
            Flags(Flags::isCollection | Flags::hasInternalIndex | Flags::isNotifiee));
  EXPECT_EQ(flags("Root", "intfBacklog"), Flags(Flags::isInstantiating));
  EXPECT_EQ(flags("Root", "vrfName"), Flags());  // inputs are not instantiating
  EXPECT_EQ(flags("Root", "routingConfig"), Flags());
  EXPECT_EQ(flags("IntfBacklogSm", "hasNotificationActiveIs"), Flags(Flags::isFunction));
}

using ReactorSwitch = ModuleTest::World;

// Switching a reactor's delivery off silences its member adapters and the notifiees of its
// collections (made before or after), without unregistering them; switching it on restores them.
TEST_F(ReactorSwitch, DeliverySwitchCoversMemberAdaptersAndCollections) {
  start("default");
  device("eth1", 5);
  status("Ethernet1", "eth1");
  ip("default", "Ethernet1", "10.0.0.1/24");
  settle();
  const auto backlogSm = root_->intfBacklogSm();
  const auto addrSm = root_->vrfIpIntfStatusSm()->ipIntfStatusSm();
  ASSERT_EQ(addrSm->ipIntfStatusCount(), 1u);

  backlogSm->hasNotificationActiveIs(false);
  root_->intfBacklog()->doAddBacklog(Kanet::IntfId("Ethernet1"), false);
  EXPECT_FALSE(backlogSm->backlogScheduled());  // its KelIntfBacklog member stayed silent
  backlogSm->hasNotificationActiveIs(true);
  root_->intfBacklog()->backlogDel(Kanet::IntfId("Ethernet1"));
  root_->intfBacklog()->doAddBacklog(Kanet::IntfId("Ethernet1"), false);
  EXPECT_TRUE(backlogSm->backlogScheduled());
  settle();

  addrSm->hasNotificationActiveIs(false);
  ip("default", "Ethernet1", "10.0.0.2/24");  // its member of `ipIntfStatus` stays silent
  ip("default", "Ethernet2", "10.0.1.1/24");  // so does its watch on the VRF's interfaces
  EXPECT_EQ(addrSm->ipIntfStatusCount(), 1u);
  // A notifiee made while the reactor is silent starts silent.
  addrSm->ipIntfStatusIs(
      ipStatus_->vrfIpIntfStatus("default")->ipIntfStatus(Kanet::IntfId("Ethernet2")));
  ip("default", "Ethernet2", "10.0.1.2/24");
  EXPECT_EQ(root_->intfBacklog()->backlogCount(), 0u);
  addrSm->hasNotificationActiveIs(true);
  ip("default", "Ethernet2", "10.0.1.3/24");
  EXPECT_TRUE(root_->intfBacklog()->backlog(Kanet::IntfId("Ethernet2")));
  EXPECT_FALSE(root_->intfBacklog()->backlog(Kanet::IntfId("Ethernet1")));
  settle();
}

}  // namespace
