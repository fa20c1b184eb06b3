#pragma once

#include "tools/common/unique_fd.h"

// From here on SIGINT, SIGTERM and SIGHUP only make the returned descriptor readable. Throws
// ToolError.
UniqueFd CatchEndSignals();
