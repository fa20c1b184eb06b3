// Capture files on disk.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/common/unique_fd.h"

// Whether a file of this name holds a capture.
bool IsCaptureFile(const std::string& name);

std::string CapturePath(const std::string& directory, const std::string& name);

struct CaptureDirectory {
    std::vector<std::string> files;    // paths
    std::vector<std::string> missing;  // names that the record file lists but nobody finds
};

// The capture files of a directory: those that its record file lists, in that order, then the
// others by name. The record file's own directory does not count: captures get moved. Throws
// ToolError.
CaptureDirectory ListCaptureDirectory(const std::string& directory);

// Throws ToolError.
UniqueFd OpenCaptureFile(const std::string& path);

// Gives take all bytes from the descriptor's position to the file's present end, in large pieces,
// until it returns false; then returns false too. Throws ToolError, naming path.
bool ReadCaptureFile(int fd, const std::string& path,
                     const std::function<bool(std::string_view)>& take);
