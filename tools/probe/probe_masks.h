// The log masks as quilltool probe sets and asks them.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "tools/probe/prober.h"

// Sets the masks of the equipment ids of codes to these codes, as wide as the modem says that they
// are. Throws ToolError when the modem refuses one.
void SetLogCodes(Prober& prober, const std::set<uint32_t>& codes);

// The enabled codes of all equipment ids as the lines of a list; empty when there are none.
std::string EnabledCodeLines(Prober& prober);
