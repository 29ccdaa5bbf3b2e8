// The information classes by which names change as POSIX programs expect, whoever has the files open. Windows has them
// since version 10, and drivers for older systems never see them, so the records are not among the platform's headers.
#pragma once

#include <ntifs.h>

namespace hosted
{
// FileDispositionInformationEx. With PosixSemantics the name goes at once, and opens of the file live on without it.
struct DispositionEx
{
    static constexpr ULONG Delete = 0x01;
    static constexpr ULONG PosixSemantics = 0x02;
    ULONG Flags;
};

// FileRenameInformationEx, laid out as FILE_RENAME_INFORMATION with flags in place of ReplaceIfExists.
struct RenameEx
{
    static constexpr ULONG ReplaceIfExists = 0x01;
    static constexpr ULONG PosixSemantics = 0x02; // also replaces what is open, and moves what is open below
    // This system's own: the two names change places; both exist. Not together with ReplaceIfExists.
    static constexpr ULONG Exchange = 0x80000000;
    ULONG Flags;
    HANDLE RootDirectory;
    ULONG FileNameLength; // bytes
    WCHAR FileName[1];
};
static_assert(FIELD_OFFSET(RenameEx, FileName) == FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName));

// FileLinkInformation has the layout of FILE_RENAME_INFORMATION.
}
