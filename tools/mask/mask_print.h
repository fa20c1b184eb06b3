// Log-mask files for people to read.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct MaskFileText {
    std::string text;  // lines
    // What is wrong with the file: "offset 37: ...", the offset being that of the frame's first
    // byte.
    std::vector<std::string> findings;
};

// One line a frame, and one an enabled log code or range of codes, as a list has them.
MaskFileText PrintMaskFile(std::string_view file);

// A list that compiles to the same file; frames with a finding that no list can make become
// comments.
MaskFileText ListMaskFile(std::string_view file);
