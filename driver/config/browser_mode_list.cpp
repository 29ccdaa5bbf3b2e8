#include "driver/config/browser_mode_list.h"

#include "driver/config/product_settings.h"
#include "driver/names/running_images.h"
#include "driver/core/global_state.h"
#include "driver/names/dos_name.h"
#include "driver/util/name_matching.h"
#include "driver/util/unlocked.h"

namespace
{
constexpr char PatternText[] = "Added SettingInfo = %wZ\n";
constexpr BuiltInListTexts Texts = {"[BRPL] Insert PID = %d ProcName = %wZ\n",
    "[BRPL] ForcedInsert PID = %d ProcName = %wZ\n", "[BRPL] Remove PID = %d\n"};

constexpr WCHAR DataFolder[] = L"*\\ProgramData\\Orvane Skylet Pro";
constexpr WCHAR DataSubFolder[] = L"*\\ProgramData\\Orvane Skylet Pro\\*";
constexpr WCHAR DefaultProductPattern[] = L"*\\Orvane Hollowbay\\*";
constexpr PCWSTR Programs[] = {L"*\\msedgewebview2.exe", L"*\\spoolsv.exe", L"*\\splwow64.exe"};

NTSTATUS SetFolders()
{
    UNICODE_STRING folderText = CountedView(DataFolder);
    CountedString folder;
    if (!folder.Copy(folderText, folderText.Length))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    SetBuiltInFolder(&Global.BrowserModeList, &folder);

    UNICODE_STRING subFolderText = CountedView(DataSubFolder);
    CountedString subFolder;
    if (!subFolder.Copy(subFolderText, subFolderText.Length))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    SetBuiltInSubFolder(&Global.BrowserModeList, &subFolder);
    return STATUS_SUCCESS;
}

NTSTATUS AddProductPattern()
{
    CountedString path;
    if (!NT_SUCCESS(ReadProductPath(&path)))
    {
        return AddBuiltInPattern(&Global.BrowserModeList, CountedView(DefaultProductPattern), PatternText);
    }
    CountedString pattern;
    if (!pattern.Copy(path.Get(), path.Get().Length + sizeof(WCHAR)))
    {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    pattern.Append(L"*");
    return AddBuiltInPattern(&Global.BrowserModeList, pattern.Get(), PatternText);
}

NTSTATUS BuildForBrowser()
{
    StoreUnlocked(Global.BrowserModeActive, static_cast<BOOLEAN>(TRUE));
    NTSTATUS status = SetFolders();
    if (NT_SUCCESS(status))
    {
        status = AddProductPattern();
    }
    if (NT_SUCCESS(status))
    {
        status = AddBuiltInPatterns(&Global.BrowserModeList, Programs, PatternText);
    }
    return status;
}

NTSTATUS BuildNow()
{
    LONG mode = InstallerModeUnknown;
    if (!NT_SUCCESS(ReadInstallerMode(&mode)))
    {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = STATUS_SUCCESS;
    if (mode == InstallerModeWithoutBrowser)
    {
        StoreUnlocked(Global.BrowserModeActive, static_cast<BOOLEAN>(FALSE));
    }
    else
    {
        status = BuildForBrowser();
    }
    if (NT_SUCCESS(status))
    {
        StoreUnlocked(Global.BrowserModeList.Built, static_cast<UCHAR>(TRUE));
    }
    return status;
}
}

NTSTATUS BRPLBuild()
{
    BuiltInList& list = Global.BrowserModeList;
    // Of two start requests at once one builds, and the other does not wait for it.
    if (LoadUnlocked(list.Built) || !ClaimUnlocked(list.BuildClaimed))
    {
        return STATUS_SUCCESS;
    }
    // It may have been built between the two questions.
    NTSTATUS status = LoadUnlocked(list.Built) ? STATUS_SUCCESS : BuildNow();
    StoreUnlocked(list.BuildClaimed, static_cast<UCHAR>(FALSE));
    return status;
}

bool IsBrowserModeActive()
{
    return LoadUnlocked(Global.BrowserModeActive) != FALSE;
}

bool BRPLIsDataPath(PCUNICODE_STRING path)
{
    return IsInBuiltInFolder(&Global.BrowserModeList, path);
}

NTSTATUS BRPLInsert(HANDLE processId, PCUNICODE_STRING imagePath)
{
    return InsertApplication(&Global.BrowserModeList, processId, imagePath, Texts);
}

NTSTATUS BRPLRegistProcess(const SYSTEM_PROCESS_INFORMATION* snapshot, PCUNICODE_STRING path)
{
    if (snapshot == nullptr || path == nullptr)
    {
        return STATUS_INVALID_PARAMETER;
    }
    CountedString ntPath;
    NTSTATUS status = GetNtNameFromDosName(path, &ntPath);
    if (!NT_SUCCESS(status))
    {
        return status;
    }
    ForEachRunningImage(snapshot,
        [&ntPath](HANDLE processId, PCUNICODE_STRING imagePath)
        {
            if (IsEqualNameNoCase(imagePath, &ntPath.Get()))
            {
                ForceInsertApplication(&Global.BrowserModeList, processId, imagePath, Texts);
            }
        });
    return STATUS_SUCCESS;
}

void BRPLRemove(HANDLE processId)
{
    RemoveApplication(&Global.BrowserModeList, processId, Texts);
}

NTSTATUS BRPLLookup(HANDLE processId)
{
    return LookupApplication(&Global.BrowserModeList, processId);
}

void BRPLClear()
{
    ClearBuiltInList(&Global.BrowserModeList);
}
