#include "fwk/model/InterfaceModel.h"

namespace Interface {

std::ostream& operator<<(std::ostream& os, IntfOperStatus s) {
  switch (s) {
    case IntfOperStatus::intfOperUp:
      return os << "intfOperUp";
    case IntfOperStatus::intfOperDown:
      return os << "intfOperDown";
    case IntfOperStatus::intfOperUnknown:
      break;
  }
  return os << "intfOperUnknown";
}

NetNsIntfStatusManager::NetNsIntfStatusManager(const void*, Kel::Ptr<const AllIntfStatusDir> all,
                                               Kel::Ptr<const AllIntfStatusLocalDir> local,
                                               Kel::Ptr<DeviceIntfStatusDir> kernelDir, const void*,
                                               const void*, const Kanet::NamespaceName& netNs)
    : Kel::Entity("intfStatusManager") {
  kelInputsIs(std::move(all), std::move(local), std::move(kernelDir), netNs);
  Kel::Ptr<const ::KernelNetworkInfo::Root> view;
  if (allIntfStatusLocalDir()) view = allIntfStatusLocalDir()->kernelNetworkInfo(netNs);
  if (!view) view = Kel::make<::KernelNetworkInfo::Root>(Kel::Name("kernelNetworkInfo"));
  kernelNetworkInfoRootIs(view);
  kelAllIntfStatusDir_.notifierIs(allIntfStatusDir());
  kelKernelNetworkInfoRoot_.notifierIs(kernelNetworkInfoRoot());
  handleIntfStatus();
}

void NetNsIntfStatusManager::refresh(const Kanet::IntfId& id, bool newDevice) {
  if (!kernelIntfStatusDir()) return;
  Kel::Ptr<const IntfStatus> status;
  if (allIntfStatusDir()) status = allIntfStatusDir()->intfStatus(id);
  if (!status || !kernelInterface(status->deviceName())) {
    kernelIntfStatusDir()->intfStatusAndDeviceNameDel(id);
    return;
  }
  // A device made again under the same name leaves the entry's value as it was: take it out and
  // put it back so that the directory's watchers see the interface change.
  if (newDevice) kernelIntfStatusDir()->intfStatusAndDeviceNameDel(id);
  kernelIntfStatusDir()->intfStatusAndDeviceNameIs(id, {status, status->deviceName()});
}

void NetNsIntfStatusManager::handleIntfStatus(const Kanet::IntfId& id) {
  if (auto old = deviceOf_.find(id); old != deviceOf_.end()) {
    auto named = byDeviceName_.find(old->second);
    if (named != byDeviceName_.end() && named->second == id) byDeviceName_.erase(named);
    deviceOf_.erase(old);
  }
  Kel::Ptr<const IntfStatus> status;
  if (allIntfStatusDir()) status = allIntfStatusDir()->intfStatus(id);
  if (status) {
    byDeviceName_[status->deviceName()] = id;
    deviceOf_[id] = status->deviceName();
  }
  refresh(id, false);
}

void NetNsIntfStatusManager::handleIntfStatus() {
  byDeviceName_.clear();
  deviceOf_.clear();
  if (!allIntfStatusDir()) return;
  for (auto [id, status] : allIntfStatusDir()->intfStatusCollection()) handleIntfStatus(id);
}

void NetNsIntfStatusManager::handleKernelIntf(const Kel::String8& deviceName) {
  auto it = byDeviceName_.find(deviceName);
  if (it != byDeviceName_.end()) refresh(it->second, true);
}

Kel::Ptr<const IntfStatus> NetNsIntfStatusManager::intfStatusByDeviceName(
    const Kel::String8& deviceName) const {
  auto it = byDeviceName_.find(deviceName);
  if (it == byDeviceName_.end()) return nullptr;
  return kernelIntfStatusDir()->intfStatusAndDeviceName(it->second).intfStatus;
}

}  // namespace Interface
