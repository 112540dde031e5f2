// Endpoint Security types for non-Apple builds.
//
// The core is written against the Endpoint Security C API. On Linux there is
// no such library, so this header declares the types the core and our Linux
// facility exchange, with the names, field names and numeric values of the
// public API. The functions themselves are not declared: every call goes
// through endpointsecurity::IEndpointSecurityApi.
#pragma once

#include <bsm/libbsm.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>

typedef struct es_client_s es_client_t;

typedef struct {
  size_t length;
  const char* data;
} es_string_token_t;

typedef struct {
  size_t size;
  const uint8_t* data;
} es_token_t;

typedef enum : uint32_t {
  ES_EVENT_TYPE_AUTH_EXEC = 0,
  ES_EVENT_TYPE_AUTH_OPEN = 1,
  ES_EVENT_TYPE_AUTH_KEXTLOAD = 2,
  ES_EVENT_TYPE_AUTH_MMAP = 3,
  ES_EVENT_TYPE_AUTH_MPROTECT = 4,
  ES_EVENT_TYPE_AUTH_MOUNT = 5,
  ES_EVENT_TYPE_AUTH_RENAME = 6,
  ES_EVENT_TYPE_AUTH_SIGNAL = 7,
  ES_EVENT_TYPE_AUTH_UNLINK = 8,
  ES_EVENT_TYPE_NOTIFY_EXEC = 9,
  ES_EVENT_TYPE_NOTIFY_OPEN = 10,
  ES_EVENT_TYPE_NOTIFY_FORK = 11,
  ES_EVENT_TYPE_NOTIFY_CLOSE = 12,
  ES_EVENT_TYPE_NOTIFY_CREATE = 13,
  ES_EVENT_TYPE_NOTIFY_EXCHANGEDATA = 14,
  ES_EVENT_TYPE_NOTIFY_EXIT = 15,
  ES_EVENT_TYPE_NOTIFY_GET_TASK = 16,
  ES_EVENT_TYPE_NOTIFY_KEXTLOAD = 17,
  ES_EVENT_TYPE_NOTIFY_KEXTUNLOAD = 18,
  ES_EVENT_TYPE_NOTIFY_LINK = 19,
  ES_EVENT_TYPE_NOTIFY_MMAP = 20,
  ES_EVENT_TYPE_NOTIFY_MPROTECT = 21,
  ES_EVENT_TYPE_NOTIFY_MOUNT = 22,
  ES_EVENT_TYPE_NOTIFY_UNMOUNT = 23,
  ES_EVENT_TYPE_NOTIFY_IOKIT_OPEN = 24,
  ES_EVENT_TYPE_NOTIFY_RENAME = 25,
  ES_EVENT_TYPE_NOTIFY_SETATTRLIST = 26,
  ES_EVENT_TYPE_NOTIFY_SETEXTATTR = 27,
  ES_EVENT_TYPE_NOTIFY_SETFLAGS = 28,
  ES_EVENT_TYPE_NOTIFY_SETMODE = 29,
  ES_EVENT_TYPE_NOTIFY_SETOWNER = 30,
  ES_EVENT_TYPE_NOTIFY_SIGNAL = 31,
  ES_EVENT_TYPE_NOTIFY_UNLINK = 32,
  ES_EVENT_TYPE_NOTIFY_WRITE = 33,
  ES_EVENT_TYPE_AUTH_LINK = 42,
  ES_EVENT_TYPE_AUTH_CREATE = 44,
  ES_EVENT_TYPE_NOTIFY_UIPC_BIND = 76,
  ES_EVENT_TYPE_AUTH_UIPC_BIND = 77,
  ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT = 78,
  ES_EVENT_TYPE_AUTH_UIPC_CONNECT = 79,
  ES_EVENT_TYPE_AUTH_EXCHANGEDATA = 80,
  // Upper bound of the values this build knows; a facility never delivers it.
  ES_EVENT_TYPE_LAST = 128,
} es_event_type_t;

typedef enum : uint32_t {
  ES_ACTION_TYPE_AUTH = 0,
  ES_ACTION_TYPE_NOTIFY = 1,
} es_action_type_t;

typedef enum : uint32_t {
  ES_AUTH_RESULT_ALLOW = 0,
  ES_AUTH_RESULT_DENY = 1,
} es_auth_result_t;

typedef enum : uint32_t {
  ES_RESULT_TYPE_AUTH = 0,
  ES_RESULT_TYPE_FLAGS = 1,
} es_result_type_t;

typedef enum : uint32_t {
  ES_RETURN_SUCCESS = 0,
  ES_RETURN_ERROR = 1,
} es_return_t;

typedef enum : uint32_t {
  ES_RESPOND_RESULT_SUCCESS = 0,
  ES_RESPOND_RESULT_ERR_INVALID_ARGUMENT = 1,
  ES_RESPOND_RESULT_ERR_INTERNAL = 2,
  ES_RESPOND_RESULT_NOT_FOUND = 3,
  ES_RESPOND_RESULT_ERR_DUPLICATE_RESPONSE = 4,
  ES_RESPOND_RESULT_ERR_EVENT_TYPE = 5,
} es_respond_result_t;

typedef enum : uint32_t {
  ES_NEW_CLIENT_RESULT_SUCCESS = 0,
  ES_NEW_CLIENT_RESULT_ERR_INVALID_ARGUMENT = 1,
  ES_NEW_CLIENT_RESULT_ERR_INTERNAL = 2,
  ES_NEW_CLIENT_RESULT_ERR_NOT_ENTITLED = 3,
  ES_NEW_CLIENT_RESULT_ERR_NOT_PERMITTED = 4,
  ES_NEW_CLIENT_RESULT_ERR_NOT_PRIVILEGED = 5,
  ES_NEW_CLIENT_RESULT_ERR_TOO_MANY_CLIENTS = 6,
} es_new_client_result_t;

typedef enum : uint32_t {
  ES_CLEAR_CACHE_RESULT_SUCCESS = 0,
  ES_CLEAR_CACHE_RESULT_ERR_INTERNAL = 1,
  ES_CLEAR_CACHE_RESULT_ERR_THROTTLE = 2,
} es_clear_cache_result_t;

typedef enum : uint32_t {
  ES_DESTINATION_TYPE_EXISTING_FILE = 0,
  ES_DESTINATION_TYPE_NEW_PATH = 1,
} es_destination_type_t;

typedef enum : uint32_t {
  ES_MUTE_PATH_TYPE_PREFIX = 0,
  ES_MUTE_PATH_TYPE_LITERAL = 1,
  ES_MUTE_PATH_TYPE_TARGET_PREFIX = 2,
  ES_MUTE_PATH_TYPE_TARGET_LITERAL = 3,
} es_mute_path_type_t;

typedef struct {
  es_string_token_t path;
  bool path_truncated;
  struct stat stat;
} es_file_t;

typedef struct {
  audit_token_t audit_token;
  pid_t ppid;
  pid_t original_ppid;
  pid_t group_id;
  pid_t session_id;
  uint32_t codesigning_flags;
  bool is_platform_binary;
  bool is_es_client;
  uint8_t cdhash[20];
  es_string_token_t signing_id;
  es_string_token_t team_id;
  es_file_t* executable;
  es_file_t* tty;
  struct timeval start_time;
  audit_token_t responsible_audit_token;
  audit_token_t parent_audit_token;
} es_process_t;

typedef struct {
  uint64_t thread_id;
} es_thread_t;

typedef struct {
  es_process_t* target;
  // Facility-private argument storage; read it with execArgCount/execArg.
  es_token_t args;
  es_file_t* script;
  es_file_t* cwd;
  int last_fd;
} es_event_exec_t;

typedef struct {
  int32_t fflag;
  es_file_t* file;
} es_event_open_t;

typedef struct {
  bool modified;
  es_file_t* target;
} es_event_close_t;

typedef struct {
  es_file_t* dir;
  es_string_token_t filename;
  mode_t mode;
} es_event_create_new_path_t;

typedef struct {
  es_destination_type_t destination_type;
  union {
    es_file_t* existing_file;
    es_event_create_new_path_t new_path;
  } destination;
} es_event_create_t;

typedef struct {
  es_file_t* file1;
  es_file_t* file2;
} es_event_exchangedata_t;

typedef struct {
  int stat;
} es_event_exit_t;

typedef struct {
  es_process_t* child;
} es_event_fork_t;

typedef struct {
  es_file_t* source;
  es_file_t* target_dir;
  es_string_token_t target_filename;
} es_event_link_t;

typedef struct {
  es_file_t* source;
  es_destination_type_t destination_type;
  union {
    es_file_t* existing_file;
    struct {
      es_file_t* dir;
      es_string_token_t filename;
    } new_path;
  } destination;
} es_event_rename_t;

typedef struct {
  es_file_t* target;
  es_file_t* parent_dir;
} es_event_unlink_t;

typedef struct {
  es_file_t* target;
} es_event_write_t;

typedef struct {
  es_file_t* file;
  int domain;
  int type;
  int protocol;
} es_event_uipc_connect_t;

typedef union {
  es_event_exec_t exec;
  es_event_open_t open;
  es_event_fork_t fork;
  es_event_close_t close;
  es_event_create_t create;
  es_event_exchangedata_t exchangedata;
  es_event_exit_t exit;
  es_event_link_t link;
  es_event_rename_t rename;
  es_event_unlink_t unlink;
  es_event_write_t write;
  es_event_uipc_connect_t uipc_connect;
} es_events_t;

typedef struct {
  uint8_t reserved[32];
} es_event_id_t;

typedef struct {
  es_result_type_t result_type;
  union {
    es_auth_result_t auth;
    uint32_t flags;
    uint8_t reserved[32];
  } result;
} es_result_t;

typedef struct {
  uint32_t version;
  struct timespec time;
  uint64_t mach_time;
  // Absolute time, in the facility clock's units, by which an AUTH message
  // must be answered.
  uint64_t deadline;
  es_process_t* process;
  uint64_t seq_num;
  es_action_type_t action_type;
  union {
    es_event_id_t auth;
    es_result_t notify;
  } action;
  es_event_type_t event_type;
  es_events_t event;
  es_thread_t* thread;
  uint64_t global_seq_num;
  // Facility-private: the Linux facility's record that owns this message.
  void* reserved_facility;
} es_message_t;
