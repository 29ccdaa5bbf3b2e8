#include "agent/tarnctl/json.h"

#include <cstdio>

namespace tarnctl
{
std::string JsonString(std::string_view text)
{
    std::string result = "\"";
    for (const char unit : text)
    {
        if (unit == '"' || unit == '\\')
        {
            result += '\\';
            result += unit;
        }
        else if (static_cast<unsigned char>(unit) < 0x20)
        {
            char escape[8];
            std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(unit));
            result += escape;
        }
        else
        {
            result += unit;
        }
    }
    return result + "\"";
}

JsonObject& JsonObject::Raw(std::string_view name, std::string_view value)
{
    if (!fields_.empty())
    {
        fields_ += ',';
    }
    fields_ += JsonString(name);
    fields_ += ':';
    fields_ += value;
    return *this;
}

void JsonArray::Add(std::string_view value)
{
    if (!values_.empty())
    {
        values_ += ',';
    }
    values_ += value;
}
}
