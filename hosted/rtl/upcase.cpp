#include "hosted/rtl/upcase.h"

#include "hosted/ke/irql.h"
#include "hosted/rtl/upcase_ranges.h"

#include <array>

namespace hosted
{
namespace
{
using Table = std::array<WCHAR, 0x10000>;

Table BuildTable()
{
    Table table;
    for (size_t i = 0; i < table.size(); ++i)
    {
        table[i] = static_cast<WCHAR>(i);
    }
    for (const UpcaseRange& range : UpcaseRanges)
    {
        for (unsigned character = range.First; character <= range.Last; character += range.Step)
        {
            table[character] = static_cast<WCHAR>(static_cast<int>(character) + range.Offset);
        }
    }
    return table;
}
}

WCHAR UpcaseCharacter(WCHAR character)
{
    static const Table table = BuildTable();
    return table[static_cast<USHORT>(character)];
}
}

// The table lies in pageable memory.
extern "C" WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter)
{
    hosted::RequireIrql(APC_LEVEL, "RtlUpcaseUnicodeChar");
    return hosted::UpcaseCharacter(SourceCharacter);
}

// The C run-time library folds by its own locale, which in the kernel is "C".
extern "C" unsigned short __cdecl KernelToUpper(unsigned short Character)
{
    return Character >= u'a' && Character <= u'z' ? static_cast<unsigned short>(Character - (u'a' - u'A')) : Character;
}
