#include "es/sources/bpflsmprobe.h"

#include <bpf/libbpf.h>

#include <cerrno>
#include <cstring>

#include "lsmprobe.skel.h"

namespace endpointsecurity::linux_es {

bool bpfLsmAvailable(std::string* why) {
  lsmprobe_bpf* skel = lsmprobe_bpf__open_and_load();
  if (skel == nullptr) {
    *why = std::string("does not load: ") + strerror(errno);
    return false;
  }
  bpf_link* link = bpf_program__attach(skel->progs.lumo_lsm_probe);
  const int error = errno;
  if (link != nullptr) bpf_link__destroy(link);
  lsmprobe_bpf__destroy(skel);
  if (link == nullptr) {
    *why = std::string("does not attach: ") + strerror(error);
    return false;
  }
  return true;
}

}  // namespace endpointsecurity::linux_es
