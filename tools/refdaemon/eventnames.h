#pragma once

#include "refdaemon/jsonline.h"
#include "xpc/xpcvalue.h"

namespace lumo::refdaemon {

// Appends an event's entries as JsonLine::entries does, with the schema's
// name beside each enum number: "fileop":{"int":6},"fileop_name":"kFileRename"
// (FileOpType and MountType of sysext.proto). A number the schema doesn't
// name gets none.
void appendEventEntries(JsonLine& line, const tarvex::itx::xpc::Dictionary& event);

}  // namespace lumo::refdaemon
