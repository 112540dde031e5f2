/* Records of the local-socket connect program (uipc.bpf.c). */
#ifndef LUMO_UIPCEVENT_H
#define LUMO_UIPCEVENT_H

#ifndef __VMLINUX_H__
#include <linux/types.h>
#endif

#define LUMO_SUN_PATH_MAX 108

struct lumo_uipc_event {
  __u32 pid; /* thread group id */
  __u32 uid;
  __u32 type; /* socket type */
  __u32 path_len;
  char path[LUMO_SUN_PATH_MAX]; /* abstract names start with NUL */
};

#endif
