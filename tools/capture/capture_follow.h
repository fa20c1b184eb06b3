#pragma once

#include <string>

#include "tools/capture/capture_reader.h"

// Gives reader what is added to the capture files of directory from now on, across new files, from
// the first whole frame on. Returns when endFd is readable, the reader wants no more or nobody
// reads the standard output any more; throws ToolError when the directory is not there or goes
// away.
void FollowCapture(const std::string& directory, int endFd, CaptureReader& reader);
