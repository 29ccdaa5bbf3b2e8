// JSON on one line.
#pragma once

#include <concepts>
#include <string>
#include <string_view>

namespace tarnctl
{
// Quoted. The text is UTF-8.
std::string JsonString(std::string_view text);

class JsonObject
{
public:
    JsonObject& Text(std::string_view name, std::string_view value) { return Raw(name, JsonString(value)); }
    JsonObject& Number(std::string_view name, std::unsigned_integral auto value)
    {
        return Raw(name, std::to_string(value));
    }
    JsonObject& Truth(std::string_view name, bool value) { return Raw(name, value ? "true" : "false"); }
    // A value that is JSON already.
    JsonObject& Raw(std::string_view name, std::string_view value);
    std::string Line() const { return "{" + fields_ + "}"; }

private:
    std::string fields_;
};

class JsonArray
{
public:
    // Values that are JSON already.
    void Add(std::string_view value);
    std::string Line() const { return "[" + values_ + "]"; }

private:
    std::string values_;
};
}
