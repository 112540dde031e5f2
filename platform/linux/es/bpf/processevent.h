/* Records of the process programs (process.bpf.c), shared with user space.
 * Fixed-width fields only: the layout must match on both sides. */
#ifndef LUMO_PROCESSEVENT_H
#define LUMO_PROCESSEVENT_H

#ifndef __VMLINUX_H__
#include <linux/types.h>
#endif

#define LUMO_PROC_EXEC 1
#define LUMO_PROC_FORK 2
#define LUMO_PROC_EXIT 3

#define LUMO_FILENAME_MAX 256
/* Power of two: the verifier wants a mask on the copy length. */
#define LUMO_ARGS_MAX 4096

#define LUMO_ARGS_TRUNCATED 0x1

struct lumo_proc_ident {
  __u32 pid; /* thread group id */
  __u32 ppid;
  __u32 ruid;
  __u32 euid;
  __u32 rgid;
  __u32 egid;
  __u32 auid;
  __u32 asid;
  __u64 start_ns; /* boot-time clock, as /proc/PID/stat counts it */
};

struct lumo_proc_event {
  __u32 kind;
  __u32 flags;
  struct lumo_proc_ident proc;   /* exec: the new image; fork: the child */
  struct lumo_proc_ident parent; /* fork only */
  __u32 exit_code;
  __u32 argc;
  __u32 filename_len;
  __u32 interp_len;
  __u32 args_len;
  char filename[LUMO_FILENAME_MAX]; /* as passed to execve: a script's path */
  char interp[LUMO_FILENAME_MAX];   /* the binary that runs */
  char args[LUMO_ARGS_MAX]; /* NUL-separated, args_len bytes */
};

#endif
