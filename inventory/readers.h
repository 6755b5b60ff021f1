#pragma once

// The readers behind `query`: each yields the rows of one management class
// from this machine's own sources, under that class's property names.

#include "rows.h"

namespace qv::inventory {

Rows operatingSystemRows();  // kernel release, architecture, boot time, locale
Rows computerSystemRows();   // time zone, DMI vendor and model, memory
Rows processorRows();        // one row per processor package
Rows videoControllerRows();  // one row per DRM card

}  // namespace qv::inventory
