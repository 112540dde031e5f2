// Audit tokens for non-Apple builds.
//
// A token carries a process's identity the way the audit subsystem packs it:
// val[0] audit uid, [1] effective uid, [2] effective gid, [3] real uid,
// [4] real gid, [5] pid, [6] audit session id, [7] pid version (on Linux the
// process start time in clock ticks, so a recycled pid gives another token).
#pragma once

#include <sys/types.h>

typedef struct {
  unsigned int val[8];
} audit_token_t;

static inline uid_t audit_token_to_auid(audit_token_t token) { return (uid_t)token.val[0]; }
static inline uid_t audit_token_to_euid(audit_token_t token) { return (uid_t)token.val[1]; }
static inline gid_t audit_token_to_egid(audit_token_t token) { return (gid_t)token.val[2]; }
static inline uid_t audit_token_to_ruid(audit_token_t token) { return (uid_t)token.val[3]; }
static inline gid_t audit_token_to_rgid(audit_token_t token) { return (gid_t)token.val[4]; }
static inline pid_t audit_token_to_pid(audit_token_t token) { return (pid_t)token.val[5]; }
static inline int audit_token_to_asid(audit_token_t token) { return (int)token.val[6]; }
static inline int audit_token_to_pidversion(audit_token_t token) { return (int)token.val[7]; }
