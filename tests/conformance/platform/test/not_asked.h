// The exported routines that no question is about.
#pragma once

#include <span>
#include <string_view>

namespace platform
{
struct NotAsked
{
    std::string_view Routine;
    std::string_view Reason;
};
std::span<const NotAsked> RoutinesNotAsked();
}
