#pragma once

#include <string>
#include <vector>

#include "metrics/counters.h"

namespace tarvex::itx::rtn::linux_platform {

// The Prometheus text format of the readings: each name's HELP and TYPE
// once (a counter when the name ends in _total, else a gauge), then its
// samples, names in the order they first appear.
std::string prometheusText(const std::vector<CounterReading>& readings);

// Replaces `path` with `text` so that a reader sees the old file or the new
// one, never a part: written to a hidden file beside it (the textfile
// collector reads only *.prom), then renamed over it. False with `error`
// set when it could not.
bool replaceFile(const std::string& path, const std::string& text, std::string* error);

}  // namespace tarvex::itx::rtn::linux_platform
