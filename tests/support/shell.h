// Commands of the host's shell.
#pragma once

#include <array>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/wait.h>

struct ShellOutcome
{
    int Code = 0;       // exit code; 128 + signal number
    std::string Output; // what went to the standard output
};

// Returns when nothing holds the command's output any more. Throws std::runtime_error where there is no shell.
inline ShellOutcome RunShell(const std::string& command)
{
    FILE* pipe = popen(command.c_str(), "re");
    if (pipe == nullptr)
    {
        throw std::runtime_error("no shell for " + command);
    }
    ShellOutcome outcome;
    std::array<char, 4096> piece;
    while (const size_t bytes = std::fread(piece.data(), 1, piece.size(), pipe))
    {
        outcome.Output.append(piece.data(), bytes);
    }
    const int status = pclose(pipe);
    outcome.Code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
}

// As one word of a command. The path has no quotation mark in it.
inline std::string Quoted(const std::filesystem::path& path)
{
    return "'" + path.string() + "'";
}
