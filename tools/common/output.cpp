#include "tools/common/output.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>

namespace {

[[noreturn]] void Fail() {
    throw std::system_error(errno, std::generic_category(), "the output could not be written");
}

}  // namespace

void PrintText(std::string_view text) {
    // A line that only stays in the buffer counts as written, but for the stream's error.
    if (fwrite(text.data(), 1, text.size(), stdout) < text.size() || ferror(stdout) != 0) Fail();
}

void FlushOutput() {
    if (fflush(stdout) != 0 || ferror(stdout) != 0) Fail();
}

void RemarkText(std::string_view text) {
    FlushOutput();
    fputs(fmt::format("quilltool: {}\n", text).c_str(), stderr);
}
