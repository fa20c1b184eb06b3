// What quilltool says: results on the standard output, remarks on the standard error.
#pragma once

#include <fmt/format.h>

#include <string_view>

// Throw std::system_error, std::errc::broken_pipe when nobody reads on.
void PrintText(std::string_view text);
void FlushOutput();

// One line "quilltool: ..." behind what was printed; throws as that does.
void RemarkText(std::string_view text);

template <typename... T>
void Print(fmt::format_string<T...> format, T&&... arguments) {
    PrintText(fmt::format(format, std::forward<T>(arguments)...));
}

template <typename... T>
void Remark(fmt::format_string<T...> format, T&&... arguments) {
    RemarkText(fmt::format(format, std::forward<T>(arguments)...));
}
