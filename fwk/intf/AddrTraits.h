// What differs between the IPv4 and the IPv6 address reactors (VrfIpIntfStatusSm/IpIntfStatusSm
// and VrfIp6IntfStatusSm/Ip6IntfStatusSm, one template each, AddrSm.h): the model types and the
// way to reach their collections, the adapters that turn the model's notifications into the
// reactors' handlers, the type and handler names the traces print, and behaviour:
//   emptyVrfCheck   IPv4 ignores a VRF notification with an empty name (traced); IPv6 has no check
//   entryExitTraces IPv6 handlers of the per-VRF reactor trace BEGIN/END; IPv4 ones trace their
//                   signature alone (with " intfId " and the id where they take one)
//   instantiating / destroying   the level-0 messages when the per-VRF reactor is made or removed
//                   (IPv4 names the VRF, IPv6 does not)
#pragma once

#include "fwk/model/IpStatusModel.h"

namespace InterfaceRouteInfo {

struct Ip4AddrTraits {
  using Status = Ip::Status;
  using VrfStatus = Ip::VrfIpIntfStatus;
  using IntfStatus = Ip::IpIntfStatus;
  static constexpr bool isIp6 = false;

  static constexpr const char* vrfSmType = "InterfaceRouteInfo::VrfIpIntfStatusSm";
  static constexpr const char* smType = "InterfaceRouteInfo::IpIntfStatusSm";
  static constexpr const char* handleVrf = "handleVrfIpIntfStatus";
  static constexpr const char* handleIntf = "handleIpIntfStatus";
  static constexpr const char* adapter = "KelIpIntfStatus";
  static constexpr const char* handleAddress = "handleIpAddress";

  static constexpr bool emptyVrfCheck = true;
  static constexpr bool entryExitTraces = false;
  static constexpr const char* instantiating = "Instantiating IpIntfStatusSm for vrf ";
  static constexpr const char* destroying = "Destroying ipIntfStatusSm of vrf";
  static constexpr bool namesVrf = true;

  static const auto& vrfs(const Status& s) { return s.vrfIpIntfStatusCollection(); }
  static Kel::Ptr<const VrfStatus> vrf(const Status& s, const Ip::VrfName& name) {
    return s.vrfIpIntfStatus(name);
  }
  static const auto& intfs(const VrfStatus& v) { return v.ipIntfStatusCollection(); }

  // Ip::Status -> the per-VRF reactor.
  template <class Sm>
  class StatusAdapter : public Status::Notifiee {
   public:
    explicit StatusAdapter(Sm* owner) : owner_(owner) {}
    void onVrfIpIntfStatus(const Ip::VrfName& vrf) override { owner_->handleVrfIpIntfStatus(vrf); }
    void onVrfIpIntfStatuskelImmediate() override { owner_->handleVrfIpIntfStatus(); }
    Sm* owner() const { return owner_; }

   private:
    Sm* owner_;
  };
  // Ip::VrfIpIntfStatus -> the address reactor.
  template <class Sm>
  class VrfStatusAdapter : public VrfStatus::Notifiee {
   public:
    explicit VrfStatusAdapter(Sm* owner) : owner_(owner) {}
    void onIpIntfStatus(const Kanet::IntfId& id) override { owner_->kelIntfStatusChanged(id); }
    void onIpIntfStatuskelImmediate() override { owner_->kelIntfStatusResync(); }
    Sm* owner() const { return owner_; }

   private:
    Sm* owner_;
  };
  // Ip::IpIntfStatus -> KelIpIntfStatus::handleIpAddress.
  template <class Adapter>
  class IntfStatusAdapter : public IntfStatus::Notifiee {
   public:
    void onActiveAddrWithMask() override { self().handleIpAddress(); }
    void onActiveSecondaryWithMask(const Kanet::IpAddrWithMask&) override {
      self().handleIpAddress();
    }
    void onActiveSecondaryWithMaskkelImmediate() override { self().handleIpAddress(); }

   private:
    Adapter& self() { return static_cast<Adapter&>(*this); }
  };
};

struct Ip6AddrTraits {
  using Status = Ip6::Status;
  using VrfStatus = Ip6::VrfIp6IntfStatus;
  using IntfStatus = Ip6::IntfStatus;
  static constexpr bool isIp6 = true;

  static constexpr const char* vrfSmType = "InterfaceRouteInfo::VrfIp6IntfStatusSm";
  static constexpr const char* smType = "InterfaceRouteInfo::Ip6IntfStatusSm";
  static constexpr const char* handleVrf = "handleVrfIp6IntfStatus";
  static constexpr const char* handleIntf = "handleIp6IntfStatus";
  static constexpr const char* adapter = "KelIp6IntfStatus";
  static constexpr const char* handleAddress = "handleIp6Address";

  static constexpr bool emptyVrfCheck = false;
  static constexpr bool entryExitTraces = true;
  static constexpr const char* instantiating = "Initializing ipIntfStatusSm";
  static constexpr const char* destroying = "Destroying ipIntfStatusSm";
  static constexpr bool namesVrf = false;

  static const auto& vrfs(const Status& s) { return s.vrfIp6IntfStatusCollection(); }
  static Kel::Ptr<const VrfStatus> vrf(const Status& s, const Ip::VrfName& name) {
    return s.vrfIp6IntfStatus(name);
  }
  static const auto& intfs(const VrfStatus& v) { return v.ip6IntfStatusCollection(); }

  template <class Sm>
  class StatusAdapter : public Status::Notifiee {
   public:
    explicit StatusAdapter(Sm* owner) : owner_(owner) {}
    void onVrfIp6IntfStatus(const Ip::VrfName& vrf) override { owner_->handleVrfIpIntfStatus(vrf); }
    void onVrfIp6IntfStatuskelImmediate() override { owner_->handleVrfIpIntfStatus(); }
    Sm* owner() const { return owner_; }

   private:
    Sm* owner_;
  };
  template <class Sm>
  class VrfStatusAdapter : public VrfStatus::Notifiee {
   public:
    explicit VrfStatusAdapter(Sm* owner) : owner_(owner) {}
    void onIp6IntfStatus(const Kanet::IntfId& id) override { owner_->kelIntfStatusChanged(id); }
    void onIp6IntfStatuskelImmediate() override { owner_->kelIntfStatusResync(); }
    Sm* owner() const { return owner_; }

   private:
    Sm* owner_;
  };
  template <class Adapter>
  class IntfStatusAdapter : public IntfStatus::Notifiee {
   public:
    void onAddr(const Kanet::Ip6AddrWithMask&) override { self().handleIpAddress(); }
    void onAddrkelImmediate() override { self().handleIpAddress(); }

   private:
    Adapter& self() { return static_cast<Adapter&>(*this); }
  };
};

}  // namespace InterfaceRouteInfo
