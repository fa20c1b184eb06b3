// A directory of the test's own.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

#include "tests/support/bytes.h"

class TempDir {
  public:
    TempDir() {
        std::string path = std::filesystem::temp_directory_path() / "quillod-XXXXXX";
        mPath = mkdtemp(path.data());
    }
    TempDir(const TempDir&) = delete;
    ~TempDir() { std::filesystem::remove_all(mPath); }

    // Has the properties read from here.
    void HoldProperties() const { setenv("QUILLOD_PROPERTY_DIR", mPath.c_str(), 1); }

    const std::string& Path() const { return mPath; }
    std::string operator/(const std::string& name) const { return mPath + "/" + name; }
    void Store(const std::string& name, const std::string& bytes) const {
        ::Store(*this / name, bytes);
    }

  private:
    std::string mPath;
};
