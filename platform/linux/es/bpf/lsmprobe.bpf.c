// SPDX-License-Identifier: GPL-2.0
// Does this kernel run BPF LSM programs? Loaded and attached once at start,
// then dropped: it decides nothing.
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

char LICENSE[] SEC("license") = "GPL";

SEC("lsm/bprm_check_security")
int BPF_PROG(lumo_lsm_probe, struct linux_binprm *bprm, int ret) { return ret; }
