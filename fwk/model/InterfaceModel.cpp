#include "fwk/model/InterfaceModel.h"

namespace Interface {

NetNsIntfStatusManager::NetNsIntfStatusManager(const void*, Kel::Ptr<const AllIntfStatusDir> all,
                                               Kel::Ptr<const AllIntfStatusLocalDir> local,
                                               Kel::Ptr<DeviceIntfStatusDir> kernelDir, const void*,
                                               const void*, const Kanet::NamespaceName& netNs)
    : Kel::Entity("intfStatusManager") {
  kelInputsIs(std::move(all), std::move(local), std::move(kernelDir), netNs);
  kernelNetworkInfoRootIs(Kel::Name("kernelNetworkInfo"));
  kelAllIntfStatusDir_.notifierIs(allIntfStatusDir());
  handleIntfStatus();
}

void NetNsIntfStatusManager::handleIntfStatus(const Kanet::IntfId& id) {
  if (!kernelIntfStatusDir()) return;
  Kel::Ptr<const IntfStatus> status;
  if (allIntfStatusDir()) status = allIntfStatusDir()->intfStatus(id);
  const IntfStatusAndDeviceName old = kernelIntfStatusDir()->intfStatusAndDeviceName(id);
  if (!old.empty()) byDeviceName_.erase(old.deviceName);
  if (!status) {
    kernelIntfStatusDir()->intfStatusAndDeviceNameDel(id);
    return;
  }
  byDeviceName_[status->deviceName()] = id;
  kernelIntfStatusDir()->intfStatusAndDeviceNameIs(id, {status, status->deviceName()});
}

void NetNsIntfStatusManager::handleIntfStatus() {
  if (!allIntfStatusDir()) return;
  for (auto [id, status] : allIntfStatusDir()->intfStatusCollection()) handleIntfStatus(id);
}

Kel::Ptr<const IntfStatus> NetNsIntfStatusManager::intfStatusByDeviceName(
    const Kel::String8& deviceName) const {
  auto it = byDeviceName_.find(deviceName);
  if (it == byDeviceName_.end()) return nullptr;
  return kernelIntfStatusDir()->intfStatusAndDeviceName(it->second).intfStatus;
}

}  // namespace Interface
