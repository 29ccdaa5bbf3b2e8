#include "hosted/cm/reg_text.h"

namespace hosted
{
namespace
{
struct Alias
{
    WideView Predefined;
    WideView Path;
};

// The long names first: they are the ones that an export writes.
constexpr Alias Aliases[] = {
    {L"HKEY_LOCAL_MACHINE", L"\\Registry\\Machine"},
    {L"HKEY_CURRENT_USER", L"\\Registry\\User\\.Default"},
    {L"HKEY_USERS", L"\\Registry\\User"},
    {L"HKLM", L"\\Registry\\Machine"},
    {L"HKCU", L"\\Registry\\User\\.Default"},
    {L"HKU", L"\\Registry\\User"},
};
}

WideString FromPredefinedKey(WideView path)
{
    for (const Alias& alias : Aliases)
    {
        if (IsAtOrBelow(path, alias.Predefined))
        {
            return WideString(alias.Path).append(path.substr(alias.Predefined.size()));
        }
    }
    return WideString(path);
}

WideString ToPredefinedKey(WideView path)
{
    for (const Alias& alias : Aliases)
    {
        if (IsAtOrBelow(path, alias.Path))
        {
            return WideString(alias.Predefined).append(path.substr(alias.Path.size()));
        }
    }
    return WideString(path);
}
}
