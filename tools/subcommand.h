// The subcommands of quilltool, one file each: <name>_command.cpp.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>

struct Subcommand {
    CLI::App* app;  // owned by the parent app
    // Runs the parsed subcommand and returns the exit status, 0 or 1; throws ToolError.
    std::function<int()> run;
};

// Each adds one subcommand with its options to parent.
Subcommand AddMaskCommand(CLI::App& parent);
Subcommand AddModemCommand(CLI::App& parent);
Subcommand AddProbeCommand(CLI::App& parent);
