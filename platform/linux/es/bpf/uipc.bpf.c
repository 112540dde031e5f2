// SPDX-License-Identifier: GPL-2.0
// Local-socket connects for the Linux facility: one record per connect of
// a process under the cgroup the program is attached to. It never refuses.
#include "vmlinux.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>

#include "uipcevent.h"

char LICENSE[] SEC("license") = "GPL";

extern void *bpf_cast_to_kern_ctx(void *obj) __ksym;

struct {
  __uint(type, BPF_MAP_TYPE_RINGBUF);
  __uint(max_entries, 512 << 10);
} uipc_events SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, __u64);
} uipc_drops SEC(".maps");

// Debian's libbpf predates the connect_unix section: user space sets the
// expected attach type (BPF_CGROUP_UNIX_CONNECT) before loading.
SEC("cgroup/connect4")
int lumo_connect_unix(struct bpf_sock_addr *ctx) {
  struct bpf_sock_addr_kern *sa = bpf_cast_to_kern_ctx(ctx);
  struct lumo_uipc_event *e = bpf_ringbuf_reserve(&uipc_events, sizeof(*e), 0);
  if (!e) {
    __u32 zero = 0;
    __u64 *count = bpf_map_lookup_elem(&uipc_drops, &zero);
    if (count) *count += 1;
    return 1;
  }
  e->pid = bpf_get_current_pid_tgid() >> 32;
  e->uid = (__u32)bpf_get_current_uid_gid();
  e->type = BPF_CORE_READ(sa, sk, sk_type);
  __u32 len = sa->uaddrlen;
  len = len > 2 ? len - 2 : 0; /* less sun_family */
  if (len > LUMO_SUN_PATH_MAX) len = LUMO_SUN_PATH_MAX;
  e->path_len = len;
  struct sockaddr_un *un = (struct sockaddr_un *)sa->uaddr;
  if (bpf_probe_read_kernel(e->path, sizeof(e->path), un->sun_path) != 0) e->path_len = 0;
  // Drained on user space's own beat, woken early only when records pile up.
  bpf_ringbuf_submit(e, bpf_ringbuf_query(&uipc_events, BPF_RB_AVAIL_DATA) > (128 << 10)
                            ? BPF_RB_FORCE_WAKEUP
                            : BPF_RB_NO_WAKEUP);
  return 1;
}
