#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "tools/common/unique_fd.h"

// The modem's end of the line whose other end is the port that the daemon opens.
class ModemEnd {
  public:
    enum class Kind {
        // A pseudo-terminal: a symbolic link to its far side is put at path. A link that is there
        // already is replaced; anything else there is left alone. The line survives between
        // openings: one descriptor of the far side stays open here.
        kPty,
        // An existing serial port at path, whose line leads to the daemon's port somehow.
        kPort,
    };
    // Opens the line, raw. Throws ToolError.
    ModemEnd(Kind kind, const std::string& path);
    // Removes the link unless it points elsewhere by now.
    ~ModemEnd();
    ModemEnd(const ModemEnd&) = delete;
    ModemEnd& operator=(const ModemEnd&) = delete;

    struct Input {
        std::string_view data;  // may be empty; valid until the next Read
        bool flushed = false;   // the far side dropped what it had not read, as the daemon does
                                // when it opens the port; a port does not tell
    };

    // For poll: POLLIN, POLLOUT.
    int fd() const { return mMaster.get(); }

    // Takes what has come; false when nothing has. Throws ToolError.
    bool Read(Input* input);

    // Returns how many bytes the line took, 0 when it is full. Throws ToolError.
    size_t Write(std::string_view data);

  private:
    void MakePty();

    const Kind mKind;
    const std::string mPath;
    std::string mSlaveName;
    UniqueFd mMaster;  // or the port
    UniqueFd mSlave;
    std::array<char, 65536> mBuffer;
};
