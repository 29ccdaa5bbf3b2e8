// The commands. Each routine adds its own to the command line; what they are to do ends up in the session's Action.
#pragma once

#include "agent/tarnctl/session.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace tarnctl
{
// start, stop, encryption, key
void AddStateCommands(CLI::App& program, Session& session);
// process, parent, exclude, protect
void AddSettingCommands(CLI::App& program, Session& session);
// under-sandbox, pids, status
void AddQueryCommands(CLI::App& program, Session& session);
void AddLogCommands(CLI::App& program, Session& session);
void AddDumpCommand(CLI::App& program, Session& session);
// recover, conceal
void AddFileCommands(CLI::App& program, Session& session);

// A command that only holds others. The examples, with which its help ends, are one command line each without the
// program's name.
CLI::App* AddGroup(CLI::App& parent, const std::string& name, const std::string& description,
    std::initializer_list<std::string_view> examples);
CLI::App* AddCommand(CLI::App& parent, const std::string& name, const std::string& description,
    std::initializer_list<std::string_view> examples);
void AddJsonFlag(CLI::App& command, Session& session);

// An argument or an option that takes a number (ParseNumber) up to `most`.
CLI::Option* AddNumber(CLI::App& command, const std::string& name, std::uint64_t most,
    std::function<void(std::uint64_t)> take, const std::string& description);
}
