// Conversion of the event records into the dictionaries the daemon reads.
// Keys, their order and each number's kind are part of the daemon contract.
#include "log/log.h"
#include "xpc/xpcclient.h"
#include "xpc/utf8.h"

LUMO_LOG_MODULE("MAC_ES_SERVICE_XPC")

using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;

namespace {

constexpr const char* kConvertFile = "+[SysExtXPCClient convertFileEventToDict:]";
constexpr const char* kConvertPrinter = "+[SysExtXPCClient convertPrinterEventToDict:]";
constexpr const char* kConvertProc = "+[SysExtXPCClient convertProcEventToDict:]";

// A string that the platform's string class would refuse (not UTF-8) makes
// the whole dictionary fail, as an unrepresentable object would.
bool utf8OrFail(const char* method, const std::string& text) {
  if (tarvex::itx::xpc::isValidUtf8(text)) return true;
  LOG_ASSERT_TEXT_AT(method, false, "0", "Error creating event dictionary. Reason:%{public}s\n",
                     "*** -[__NSPlaceholderDictionary initWithObjects:forKeys:count:]: "
                     "attempt to insert nil object");
  return false;
}

}  // namespace

std::optional<Dictionary> SysExtXPCClient::convertFileEventToDict(const sysext::FileEvent* event) {
  if (!utf8OrFail(kConvertFile, event->filename1()) ||
      !utf8OrFail(kConvertFile, event->filename2())) {
    return std::nullopt;
  }
  Dictionary dict;
  dict.entries.reserve(8);
  dict.entries.push_back({"filename1", event->filename1()});
  dict.entries.push_back({"filename2", event->filename2()});
  dict.entries.push_back({"fileop", Number::ofInt(event->fileop())});
  dict.entries.push_back({"mounttype", Number::ofInt(event->mounttype())});
  dict.entries.push_back({"filesize", Number::ofUnsignedLongLong(event->filesize())});
  dict.entries.push_back({"pid", Number::ofUnsignedInt(event->pid())});
  dict.entries.push_back({"sid", Number::ofUnsignedInt(event->sid())});
  dict.entries.push_back({"uid", Number::ofUnsignedInt(event->uid())});
  return dict;
}

std::optional<Dictionary> SysExtXPCClient::convertPrinterEventToDict(
    const sysext::PrinterEvent* event) {
  if (!utf8OrFail(kConvertPrinter, event->filename())) return std::nullopt;
  Dictionary dict;
  dict.entries.reserve(2);
  dict.entries.push_back({"filename", event->filename()});
  dict.entries.push_back({"pid", Number::ofUnsignedInt(event->pid())});
  return dict;
}

std::optional<Dictionary> SysExtXPCClient::convertProcEventToDict(const sysext::ProcEvent* event) {
  if (!utf8OrFail(kConvertProc, event->path()) || !utf8OrFail(kConvertProc, event->cmd())) {
    return std::nullopt;
  }
  Dictionary dict;
  dict.entries.reserve(7);
  dict.entries.push_back({"path", event->path()});
  dict.entries.push_back({"cmd", event->cmd()});
  dict.entries.push_back({"pid", Number::ofUnsignedInt(event->pid())});
  dict.entries.push_back({"sid", Number::ofUnsignedInt(event->sid())});
  dict.entries.push_back({"uid", Number::ofUnsignedInt(event->uid())});
  dict.entries.push_back({"ppid", Number::ofUnsignedInt(event->ppid())});
  dict.entries.push_back({"timestamp", Number::ofUnsignedLongLong(event->timestamp())});
  return dict;
}
