#include "driver/config/product_mode_list.h"

#include "driver/names/running_images.h"
#include "driver/core/global_state.h"
#include "driver/util/debug_print.h"

namespace
{
constexpr char PatternText[] = "[HBPL] Added SettingInfo = %wZ\n";
// Nothing is forced into this list.
constexpr BuiltInListTexts Texts = {"[HBPL] Insert PID = %d ProcName = %wZ\n", nullptr, "[HBPL] Remove PID = %d\n"};

constexpr PCWSTR Programs[] = {L"*\\HbWarden.exe", L"*\\HbWarden64.exe", L"*\\HbCore.exe", L"*\\HbKit.exe",
    L"*\\HbKit64.exe", L"*\\netsh.exe", L"*\\conhost.exe", L"*\\rundll32.exe"};

// By how much the sandbox folder's path is longer than the product's.
constexpr USHORT SandboxTailBytes = 2 * sizeof(WCHAR);
constexpr WCHAR EverythingBelow[] = L"\\*";
constexpr ULONG EverythingBelowBytes = 2 * sizeof(WCHAR);

NTSTATUS SetFolders(const UNICODE_STRING& sandboxPath)
{
    if (sandboxPath.Length < SandboxTailBytes)
    {
        // Too short to lie in a folder of the product, so no path is known as one.
        return STATUS_SUCCESS;
    }
    UNICODE_STRING product = SubString(sandboxPath, 0, static_cast<USHORT>(sandboxPath.Length - SandboxTailBytes));
    CountedString folder;
    if (!folder.Copy(product, product.Length))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PrintWithDriverName("[HBPL] HBFolder %wZ\n", &folder.Get());
    SetBuiltInFolder(&Global.ProductModeList, &folder);

    CountedString subFolder;
    if (!subFolder.Copy(product, product.Length + EverythingBelowBytes))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    subFolder.Append(EverythingBelow);
    PrintWithDriverName("[HBPL] HBSubFolder %wZ\n", &subFolder.Get());
    SetBuiltInSubFolder(&Global.ProductModeList, &subFolder);
    return STATUS_SUCCESS;
}

NTSTATUS TakeInRunningPrograms()
{
    ProcessSnapshot snapshot;
    NTSTATUS status = snapshot.Take();
    if (!NT_SUCCESS(status))
    {
        PrintWithDriverName("[HBPL] QuerySystemInformation error %x\n", status);
        return status;
    }
    return HBPLRegistProcess(snapshot.First());
}
}

NTSTATUS HBPLBuild(const UNICODE_STRING& sandboxPath)
{
    BuiltInList& list = Global.ProductModeList;
    if (list.Built)
    {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = SetFolders(sandboxPath);
    if (NT_SUCCESS(status))
    {
        status = AddBuiltInPatterns(&list, Programs, PatternText);
    }
    if (NT_SUCCESS(status))
    {
        status = TakeInRunningPrograms();
    }
    if (NT_SUCCESS(status))
    {
        list.Built = TRUE;
    }
    return status;
}

bool HBPLIsProductPath(PCUNICODE_STRING path)
{
    return IsInBuiltInFolder(&Global.ProductModeList, path);
}

NTSTATUS HBPLInsert(HANDLE processId, PCUNICODE_STRING imagePath)
{
    return InsertApplication(&Global.ProductModeList, processId, imagePath, Texts);
}

NTSTATUS HBPLRegistProcess(const SYSTEM_PROCESS_INFORMATION* snapshot)
{
    if (snapshot == nullptr)
    {
        PrintWithDriverName("[HBPL] HBPLRegistProcess error - %x\n", STATUS_INVALID_PARAMETER);
        return STATUS_INVALID_PARAMETER;
    }
    ForEachRunningImage(
        snapshot, [](HANDLE processId, PCUNICODE_STRING imagePath) { HBPLInsert(processId, imagePath); });
    return STATUS_SUCCESS;
}

void HBPLRemove(HANDLE processId)
{
    RemoveApplication(&Global.ProductModeList, processId, Texts);
}

NTSTATUS HBPLLookup(HANDLE processId)
{
    return LookupApplication(&Global.ProductModeList, processId);
}

void HBPLClear()
{
    ClearBuiltInList(&Global.ProductModeList);
}
