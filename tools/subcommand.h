// The subcommands of quilltool, <name>/<name>_command.cpp; what they share is in common/.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <string_view>

struct Subcommand {
    CLI::App* app;  // owned by the parent app
    // Runs the parsed subcommand and returns the exit status, 0 or 1; throws ToolError.
    std::function<int()> run;
};

// A check for one option's text by parse, whose result is thrown away here.
template <typename Result>
CLI::Validator CheckedBy(std::string (*parse)(std::string_view, Result*)) {
    return CLI::Validator(
        [parse](const std::string& text) {
            Result result;
            return parse(text, &result);
        },
        "");
}

// Each adds one subcommand with its options to parent.
Subcommand AddCaptureCommand(CLI::App& parent);
Subcommand AddMaskCommand(CLI::App& parent);
Subcommand AddModemCommand(CLI::App& parent);
Subcommand AddProbeCommand(CLI::App& parent);
