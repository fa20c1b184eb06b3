// The private handset (scripts/handset) from inside: names, properties and files.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

inline constexpr char kHandset[] = "192.168.42.129";  // on the USB link
inline constexpr char kModemPort[] = "/dev/ttydiag0";
inline constexpr char kLogSwitch[] = "persist.vendor.factory.diagdebug";
inline constexpr char kPropertyDirectory[] = "/data/property/";
inline constexpr char kMaskDirectory[] = "/vendor/etc/quillod/cfg/";
inline constexpr char kCaptureDirectory[] = "/data/misc/radio/";

// Replaces the property as a whole.
inline void SetProperty(const std::string& name, const std::string& value) {
    const std::string path = kPropertyDirectory + name;
    std::ofstream(path + ".new") << value;
    std::filesystem::rename(path + ".new", path);
}

// Oldest first: the time of making is in their names.
inline std::vector<std::string> CaptureFiles() {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(kCaptureDirectory)) {
        if (entry.path().extension() == ".qmdl") files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}
