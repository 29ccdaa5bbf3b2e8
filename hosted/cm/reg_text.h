// .reg text as a list of steps.
#pragma once

#include "hosted/cm/registry.h"

namespace hosted
{
struct RegStep
{
    enum class Kind
    {
        CreateKey,
        DeleteKey,
        SetValue,
        DeleteValue
    };
    Kind What;
    WideString Key; // absolute, "\Registry\..."
    WideString Name;
    RegistryValue Value;
};

// False with *error ("line 3: ...") when the text is not understood.
bool ParseRegText(std::string_view text, std::vector<RegStep>* steps, std::string* error);

inline constexpr std::string_view RegHeader = "Windows Registry Editor Version 5.00";

// Absolute key paths and the names of the predefined keys that stand for their beginnings. Both leave a path that
// has no counterpart as it is.
WideString FromPredefinedKey(WideView path);
WideString ToPredefinedKey(WideView path);
}
