// RouteInputDirSm / Route6InputDirSm: one RouteInputSm per route input of the directory.
//
// Watches the route input directory (a Kel::Dir of route inputs keyed by protocol name) and keeps
// the `routeInputSm` collection keyed by the same names. A notification for a name creates its
// reactor when the directory holds the name and no reactor exists; otherwise, when a reactor
// exists, it is torn down (its backlog reactor first withdraws the protocol's routes). So a second
// notification for a name whose entity and reactor both exist removes the reactor, and only the
// next notification builds it again; this is required behaviour, not an accident.
// The full sweep (handleRouteInputDir() with no name) visits the directory's names only: reactors
// whose name left the directory are not visited by it.
// doPrepareToDie withdraws and removes every reactor whose name is still in the directory; call it
// before dropping this reactor. The IPv6 twin's handlers are named handleRoute6InputDir.
#pragma once

#include "fwk/framework/Attributes.h"
#include "fwk/framework/Dir.h"
#include "fwk/model/InterfaceModel.h"
#include "fwk/route/RouteInputSm.h"
#include "fwk/route/RouteTraits.h"

namespace InterfaceRouteInfo {

template <class Traits>
class RouteInputDirSmT : public Kel::Reactor {
 public:
  using RouteInput = typename Traits::RouteInput;
  using InputSm = RouteInputSmT<Traits>;
  using DirPtr = Kel::Ptr<const Kel::Dir>;
  using DevDirPtr = Kel::Ptr<const Interface::DeviceIntfStatusDir>;
  using ManagerPtr = Kel::Ptr<const Interface::NetNsIntfStatusManager>;

  class KelRouteInputDir : public Kel::Dir::Notifiee {
   public:
    explicit KelRouteInputDir(RouteInputDirSmT* owner) : owner_(owner) {}
    void onEntityPtr(const Kel::Name& name) override { owner_->handleRouteInputDir(name); }
    void onEntityPtrkelImmediate() override { owner_->handleRouteInputDir(); }
    RouteInputDirSmT* owner() const { return owner_; }

   private:
    RouteInputDirSmT* owner_;
  };

#define KEL_ATTRS_RouteInputDirSm(A)                             \
  A(INPUT, routeInputDir, RouteInputDir, DirPtr)                 \
  A(INPUT, kernelIntfStatusDir, KernelIntfStatusDir, DevDirPtr)  \
  A(INPUT, intfStatusManager, IntfStatusManager, ManagerPtr)     \
  A(CHILDREN, routeInputSm, RouteInputSm, Kel::String8, InputSm) \
  A(SCALAR, initialized, Initialized, bool, false)               \
  A(HANDLER, handleInitialized, HandleInitialized)               \
  A(HANDLER, handleRouteInputDir, HandleRouteInputDir)           \
  A(HANDLER, doPrepareToDie, DoPrepareToDie)
  KEL_ENTITY(RouteInputDirSmT, Traits::routeInputDirSmType, KEL_ATTRS_RouteInputDirSm)
#undef KEL_ATTRS_RouteInputDirSm
#define KEL_TWINS_RouteInputDirSm(T)       \
  T(INPUT, routeInputDir, route6InputDir)  \
  T(CHILDREN, routeInputSm, route6InputSm) \
  T(HANDLER, handleRouteInputDir, handleRoute6InputDir)
  KEL_TWIN_NAMES(Traits::isIp6, KEL_TWINS_RouteInputDirSm)
#undef KEL_TWINS_RouteInputDirSm

  RouteInputDirSmT(const DirPtr& routeInputDir, const DevDirPtr& kernelIntfStatusDir,
                   const ManagerPtr& intfStatusManager);

  void handleInitialized();
  // Sweeps the directory's names.
  void handleRouteInputDir();
  // Creates or tears down the reactor of one name (see above).
  void handleRouteInputDir(const Kel::Name& name);
  void doPrepareToDie();

 private:
  KelRouteInputDir kelRouteInputDir_{this};
};

using RouteInputDirSm = RouteInputDirSmT<Ip4RouteTraits>;
using Route6InputDirSm = RouteInputDirSmT<Ip6RouteTraits>;

extern template class RouteInputDirSmT<Ip4RouteTraits>;
extern template class RouteInputDirSmT<Ip6RouteTraits>;

KEL_FACTORY(routeInputDirSmFactory, RouteInputDirSm)
KEL_FACTORY(route6InputDirSmFactory, Route6InputDirSm)

}  // namespace InterfaceRouteInfo
