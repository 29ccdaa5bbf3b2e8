#include "hosted/ke/bug_check.h"
#include "hosted/ke/failure_injection.h"
#include "hosted/ke/irql.h"
#include "hosted/rtl/upcase.h"
#include "hosted/rtl/wide_string.h"

namespace
{
// The longest string whose terminator still counts in MaximumLength.
constexpr size_t LongestBytes = 0xFFFE - sizeof(WCHAR);
constexpr ULONG HashMultiplier = 65599;
}

extern "C" void NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    size_t bytes = 0;
    if (SourceString != nullptr)
    {
        bytes = hosted::WideTraits::length(SourceString) * sizeof(WCHAR);
        bytes = bytes < LongestBytes ? bytes : LongestBytes;
    }
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = static_cast<USHORT>(SourceString != nullptr ? bytes + sizeof(WCHAR) : 0);
    DestinationString->Buffer = const_cast<PWSTR>(SourceString);
}

extern "C" NTSTATUS NTAPI RtlHashUnicodeString(
    PCUNICODE_STRING String, BOOLEAN CaseInSensitive, ULONG HashAlgorithm, PULONG HashValue)
{
    if (hosted::InjectFailure("RtlHashUnicodeString"))
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (String == nullptr || HashValue == nullptr ||
        (HashAlgorithm != HASH_STRING_ALGORITHM_DEFAULT && HashAlgorithm != HASH_STRING_ALGORITHM_X65599))
    {
        return STATUS_INVALID_PARAMETER;
    }
    if (CaseInSensitive)
    {
        hosted::RequireIrql(APC_LEVEL, "RtlHashUnicodeString");
    }
    ULONG hash = 0;
    for (WCHAR character : hosted::View(*String))
    {
        WCHAR folded = CaseInSensitive ? hosted::UpcaseCharacter(character) : character;
        hash = hash * HashMultiplier + static_cast<USHORT>(folded);
    }
    *HashValue = hash;
    return STATUS_SUCCESS;
}
