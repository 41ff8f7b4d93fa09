#include "fwk/daemon/host_conf.h"

#include <cstring>
#include <string>

if_link* corvd_host_link(unsigned long index, const char* name, bool up, flag_t extra) {
  if_conf_open(fwk_task, 0);
  if_link* l = if_conf_addlink(fwk_task, ifl_locate_index(index), index, (up ? IFS_UP : 0) | extra,
                               0, 1500, name, static_cast<int>(std::strlen(name)), nullptr);
  if_conf_close(fwk_task, 1);
  return l;
}

if_addr* corvd_host_addr(unsigned long index, const sockaddr_un* local, int len,
                         const sockaddr_un* peer) {
  if_info req{};
  req.ifi_link = ifl_locate_index(index);
  req.ifi_state = peer ? IFS_POINTOPOINT : 0;
  req.ifi_addr_local = sockdup(local);
  req.ifi_addr_remote = peer ? sockdup(peer) : nullptr;
  req.ifi_netmask = sockdup(sock_mask_by_len(local->sa_family, len));
  if_conf_open(fwk_task, 0);
  if_addr* a = if_conf_addaddr(fwk_task, &req);
  if_conf_close(fwk_task, 1);
  return a;
}

void corvd_host_addr_del(unsigned long index, const sockaddr_un* local) {
  if_info req{};
  req.ifi_link = ifl_locate_index(index);
  req.ifi_addr_local = sockdup(local);
  if_conf_open(fwk_task, 0);
  if_conf_deladdr(fwk_task, &req);
  if_conf_close(fwk_task, 1);
}

void corvd_host_link_del(unsigned long index) {
  if_link* l = ifl_locate_index(index);
  const std::string name = l ? l->ifl_name : "";
  if_conf_open(fwk_task, 0);
  if_conf_dellink(fwk_task, index, name.c_str());
  if_conf_close(fwk_task, 1);
}
