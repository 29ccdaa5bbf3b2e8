// The ordered table of the run-time library, and routines found by name.
#include "tests/conformance/platform/questions/questions.h"

namespace questions
{
namespace
{
RTL_GENERIC_COMPARE_RESULTS NTAPI Compare(PRTL_GENERIC_TABLE, PVOID first, PVOID second)
{
    const auto one = *static_cast<const ULONG*>(first);
    const auto other = *static_cast<const ULONG*>(second);
    return one < other ? GenericLessThan : one > other ? GenericGreaterThan : GenericEqual;
}

PVOID NTAPI Allocate(PRTL_GENERIC_TABLE, ULONG)
{
    return nullptr;
}

void NTAPI Free(PRTL_GENERIC_TABLE, PVOID) {}

void AskRoutine(Answers& answers, const char* label, Name name)
{
    answers.Line("MmGetSystemRoutineAddress ", label, ": ", Address{MmGetSystemRoutineAddress(&name)});
}
}

void AskGenericTable(Answers& answers)
{
    RTL_GENERIC_TABLE table;
    Fill(&table, sizeof(table));
    ULONG context = 0;
    RtlInitializeGenericTable(&table, Compare, Allocate, Free, &context);
    answers.Line("RtlInitializeGenericTable: root ", Address{table.TableRoot}, " list ",
        table.InsertOrderList.Flink == &table.InsertOrderList && table.InsertOrderList.Blink == &table.InsertOrderList,
        " ordered ", table.OrderedPointer == &table.InsertOrderList, " which ", table.WhichOrderedElement, " elements ",
        table.NumberGenericTableElements);
    answers.Line("RtlInitializeGenericTable routines: ", table.CompareRoutine == &Compare, " ",
        table.AllocateRoutine == &Allocate, " ", table.FreeRoutine == &Free, " ", table.TableContext == &context);
    answers.Line("RtlNumberGenericTableElements of an empty table: ", RtlNumberGenericTableElements(&table));
    for (ULONG index : {0u, 1u, 0xFFFFFFFFu})
    {
        answers.Line("RtlGetElementGenericTable of an empty table, ", Hex{index}, ": ",
            Address{RtlGetElementGenericTable(&table, index)});
    }
    ULONG record = 7;
    answers.Line(
        "RtlLookupElementGenericTable in an empty table: ", Address{RtlLookupElementGenericTable(&table, &record)});
}

void AskSystemRoutines(Answers& answers)
{
    AskRoutine(answers, "ZwQueryInformationProcess", Name(L"ZwQueryInformationProcess"));
    AskRoutine(answers, "ZwQuerySystemInformation", Name(L"ZwQuerySystemInformation"));
    AskRoutine(answers, "NtQuerySystemInformation", Name(L"NtQuerySystemInformation"));
    AskRoutine(answers, "ZwClose", Name(L"ZwClose"));
    AskRoutine(answers, "towupper", Name(L"towupper"));
    AskRoutine(answers, "of other case", Name(L"zwqueryinformationprocess"));
    AskRoutine(answers, "missing", Name(L"ZwQueryInformationProcessMissing"));
    AskRoutine(answers, "the beginning of a name", Name(L"ZwQueryInformationProces"));
    AskRoutine(answers, "without a name", Name(L""));
    AskRoutine(answers, "of the filter manager", Name(L"FltRegisterFilter"));
    Name longer(L"ZwQuerySystemInformationMore");
    longer.Length = sizeof(L"ZwQuerySystemInformation") - sizeof(WCHAR);
    AskRoutine(answers, "counted shorter", longer);
}
}
