// A property directory of the test's own, named in QUILLOD_PROPERTY_DIR while it lives.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

class PropertyDir {
  public:
    PropertyDir() {
        std::string path = std::filesystem::temp_directory_path() / "quillod-XXXXXX";
        mPath = mkdtemp(path.data());
        setenv("QUILLOD_PROPERTY_DIR", mPath.c_str(), 1);
    }
    ~PropertyDir() { std::filesystem::remove_all(mPath); }
    PropertyDir(const PropertyDir&) = delete;

    std::filesystem::path operator/(const std::string& name) const { return mPath / name; }

  private:
    std::filesystem::path mPath;
};
