// Log-mask files from text lists. One item a line, # begins a comment:
//
//   0x117C           a log code: equipment id, 0 to 13, in the upper four bits, item in the others
//   0xB0C0-0xB0CF    all codes from one to the other, of one equipment id
//   width 11 2560    equipment id and its number of mask bits; holds wherever it stands. Without
//                    it: up to the highest code, rounded up to a whole byte
//   events on        event reports
//   messages on      all messages
//   timestamp        the time
//   raw 4B 12 00     any other request, without check sequence, taken as it is
//
// The requests keep the list's order; all codes of an equipment id make one request, where the
// first of them stands.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct CompiledMaskList {
    std::string file;                   // the framed requests
    std::vector<std::string> warnings;  // "NAME:LINE: ..."
};

// Compiles the list text. Throws ToolError "NAME:LINE: ..." with the given name, for a list without
// requests "NAME: ...".
CompiledMaskList CompileMaskList(std::string_view text, const std::string& name);
