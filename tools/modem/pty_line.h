#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "tools/common/unique_fd.h"

// A pseudo-terminal whose far side stands at a path of the caller's choice, for the daemon to open
// as the modem's port. The line survives between openings: one descriptor of the far side stays
// open here.
class PtyLine {
  public:
    // Opens the line, raw, and puts a symbolic link to it at path. A link that is there already is
    // replaced; anything else there is left alone. Throws ToolError.
    explicit PtyLine(const std::string& path);
    // Removes the link unless it points elsewhere by now.
    ~PtyLine();
    PtyLine(const PtyLine&) = delete;
    PtyLine& operator=(const PtyLine&) = delete;

    struct Input {
        std::string_view data;  // may be empty; valid until the next Read
        bool flushed = false;   // the far side dropped what it had not read, as the daemon does
                                // when it opens the port
    };

    // For poll: POLLIN, POLLOUT.
    int fd() const { return mMaster.get(); }

    // Takes what has come; false when nothing has. Throws ToolError.
    bool Read(Input* input);

    // Returns how many bytes the line took, 0 when it is full. Throws ToolError.
    size_t Write(std::string_view data);

  private:
    const std::string mPath;
    std::string mSlaveName;
    UniqueFd mMaster;
    UniqueFd mSlave;
    std::array<char, 65536> mBuffer;
};
