#pragma once

#include <string>
#include <string_view>

#include "tools/common/diag_client.h"

// The line "width ID BITS" of a list for each equipment id of 0 to 13 that the answer to a request
// for the ranges of log items gives items to. Throws ToolError when it gives none of the answer's
// kind.
std::string WidthLines(std::string_view answer);

// Asks the modem for the ranges and returns WidthLines of its answer, which must come within
// timeout. Throws ToolError.
std::string AskWidths(DiagClient& client, DiagClient::Clock::duration timeout);
