// Level bits of log records.
#pragma once

#include <tarnveil/control.h>

inline constexpr unsigned LevelAllowedOpen = TARNVEIL_LEVEL_ALLOWED_OPEN;
inline constexpr unsigned LevelRefusedKey = TARNVEIL_LEVEL_REFUSED_KEY;
inline constexpr unsigned LevelDeniedOpen = TARNVEIL_LEVEL_DENIED_OPEN;
inline constexpr unsigned LevelTrace = TARNVEIL_LEVEL_TRACE;
