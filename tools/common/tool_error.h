#pragma once

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

// Ends a subcommand: main prints the text on stderr and exits with status 1.
class ToolError : public std::runtime_error {
  public:
    template <typename... T>
    explicit ToolError(fmt::format_string<T...> format, T&&... arguments)
        : runtime_error(fmt::format(format, std::forward<T>(arguments)...)) {}
};

// The same for a system call that failed: errno's text stands behind.
class SystemError : public ToolError {
  public:
    template <typename... T>
    explicit SystemError(fmt::format_string<T...> format, T&&... arguments)
        : ToolError("{}: {}", fmt::format(format, std::forward<T>(arguments)...), strerror(errno)) {
    }
};
