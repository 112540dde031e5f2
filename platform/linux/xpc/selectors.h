#pragma once

// The selectors the link carries, spelled once for both ends.
namespace tarvex::itx::xpc::linux_platform::selectors {

// SysextXPCInterface: the extension exports it, the daemon calls it.
inline constexpr const char* kAddMountPoint = "addMountPoint:mountType:";
inline constexpr const char* kRemoveMountPoint = "removeMountPoint:";
inline constexpr const char* kClearMountPoints = "clearMountPoints";
inline constexpr const char* kSetPolicy = "setPolicy:withTimestamp:andCompletionHandler:";
inline constexpr const char* kSetExclusions = "setExclusions:withTimestamp:andCompletionHandler:";
inline constexpr const char* kSetPrinter = "setPrinter:verdict:";

// ProtectionDaemonXPCInterface: the daemon exports it, the extension calls it.
inline constexpr const char* kRegister = "registerWithCompletionHandler:";
inline constexpr const char* kHandleFileEvent = "handleFileEvent:";
inline constexpr const char* kHandlePrinterEvent = "handlePrinterEvent:";
inline constexpr const char* kHandleProcessStartEvent = "handleProcessStartEvent:";
inline constexpr const char* kHandleProcessExitEvent = "handleProcessExitEvent:";

}  // namespace tarvex::itx::xpc::linux_platform::selectors
