// SPDX-License-Identifier: GPL-2.0
// Process start, fork and exit for the Linux facility: one ring-buffer
// record per event, argv copied at exec so short-lived processes keep it.
#include "vmlinux.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#include "processevent.h"

char LICENSE[] SEC("license") = "GPL";

struct {
  __uint(type, BPF_MAP_TYPE_RINGBUF);
  __uint(max_entries, 4 << 20);
} events SEC(".maps");

// Records are built here, not on the 512-byte stack.
struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, struct lumo_proc_event);
} scratch SEC(".maps");

// Records the ring buffer had no room for; user space reports them.
struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, __u64);
} drops SEC(".maps");

static __always_inline void fill_ident(struct lumo_proc_ident *id, struct task_struct *task) {
  id->pid = BPF_CORE_READ(task, tgid);
  id->ppid = BPF_CORE_READ(task, real_parent, tgid);
  id->ruid = BPF_CORE_READ(task, real_cred, uid.val);
  id->euid = BPF_CORE_READ(task, real_cred, euid.val);
  id->rgid = BPF_CORE_READ(task, real_cred, gid.val);
  id->egid = BPF_CORE_READ(task, real_cred, egid.val);
  id->auid = (__u32)-1;
  id->asid = (__u32)-1;
  if (bpf_core_field_exists(task->loginuid)) {
    id->auid = BPF_CORE_READ(task, loginuid.val);
    id->asid = BPF_CORE_READ(task, sessionid);
  }
  id->start_ns = BPF_CORE_READ(task, group_leader, start_boottime);
}

static __always_inline struct lumo_proc_event *record(__u32 kind) {
  __u32 zero = 0;
  struct lumo_proc_event *e = bpf_map_lookup_elem(&scratch, &zero);
  if (!e) return 0;
  e->kind = kind;
  e->flags = 0;
  e->exit_code = 0;
  e->argc = 0;
  e->filename_len = 0;
  e->interp_len = 0;
  e->args_len = 0;
  return e;
}

// User space drains the buffer on its own beat; it is woken early only
// when records pile up. A wakeup per record costs more than the record.
#define LUMO_WAKE_AT (512 << 10)

static __always_inline void emit(struct lumo_proc_event *e, __u64 size) {
  __u64 flags = bpf_ringbuf_query(&events, BPF_RB_AVAIL_DATA) > LUMO_WAKE_AT ? BPF_RB_FORCE_WAKEUP
                                                                             : BPF_RB_NO_WAKEUP;
  if (bpf_ringbuf_output(&events, e, size, flags) != 0) {
    __u32 zero = 0;
    __u64 *count = bpf_map_lookup_elem(&drops, &zero);
    if (count) *count += 1;
  }
}

SEC("tp_btf/sched_process_exec")
int BPF_PROG(lumo_exec, struct task_struct *task, pid_t old_pid, struct linux_binprm *bprm) {
  struct lumo_proc_event *e = record(LUMO_PROC_EXEC);
  if (!e) return 0;
  fill_ident(&e->proc, task);
  e->argc = BPF_CORE_READ(bprm, argc);
  long n = bpf_probe_read_kernel_str(e->filename, sizeof(e->filename), BPF_CORE_READ(bprm, filename));
  e->filename_len = n > 0 ? (__u32)n : 0;
  n = bpf_probe_read_kernel_str(e->interp, sizeof(e->interp), BPF_CORE_READ(bprm, interp));
  e->interp_len = n > 0 ? (__u32)n : 0;

  unsigned long start = BPF_CORE_READ(task, mm, arg_start);
  unsigned long end = BPF_CORE_READ(task, mm, arg_end);
  __u64 len = end > start ? end - start : 0;
  if (len > LUMO_ARGS_MAX - 1) {
    len = LUMO_ARGS_MAX - 1;
    e->flags |= LUMO_ARGS_TRUNCATED;
  }
  len &= LUMO_ARGS_MAX - 1;
  if (len > 0 && bpf_probe_read_user(e->args, len, (const void *)start) == 0) e->args_len = len;
  emit(e, __builtin_offsetof(struct lumo_proc_event, args) + (e->args_len & (LUMO_ARGS_MAX - 1)));
  return 0;
}

SEC("tp_btf/sched_process_fork")
int BPF_PROG(lumo_fork, struct task_struct *parent, struct task_struct *child) {
  // New threads are no new process.
  if (BPF_CORE_READ(child, pid) != BPF_CORE_READ(child, tgid)) return 0;
  struct lumo_proc_event *e = record(LUMO_PROC_FORK);
  if (!e) return 0;
  fill_ident(&e->proc, child);
  fill_ident(&e->parent, parent);
  emit(e, __builtin_offsetof(struct lumo_proc_event, filename));
  return 0;
}

SEC("tp_btf/sched_process_exit")
int BPF_PROG(lumo_exit, struct task_struct *task) {
  // Only the last thread of the group ends the process.
  if (BPF_CORE_READ(task, signal, live.counter) != 0) return 0;
  struct lumo_proc_event *e = record(LUMO_PROC_EXIT);
  if (!e) return 0;
  fill_ident(&e->proc, task);
  e->exit_code = BPF_CORE_READ(task, exit_code);
  emit(e, __builtin_offsetof(struct lumo_proc_event, filename));
  return 0;
}
