// The words from which log records are built: the source of the event, the operation, the outcome.
#pragma once

#include <ntifs.h>

inline constexpr WCHAR SourceDeviceControl[] = L"IRP = DEV_CTRL";
inline constexpr WCHAR SourceCreate[] = L"IRP = CREATE";
inline constexpr WCHAR SourceProcessCreated[] = L"PROC = CREATED";
inline constexpr WCHAR SourceProcessExits[] = L"PROC = EXITS";

inline constexpr WCHAR OperationStartLogging[] = L"IOCTL = START_LOG";
inline constexpr WCHAR OperationEncrypt[] = L"IOCTL = ENCRYPT";
inline constexpr WCHAR OperationSetCryptKey[] = L"IOCTL = SET_CRYPTKEY";
inline constexpr WCHAR OperationAddParent[] = L"IOCTL = ADD_PARENT";
inline constexpr WCHAR OperationAddProcess[] = L"IOCTL = ADD_PROCESS";
inline constexpr WCHAR OperationAddExclusion[] = L"IOCTL = ADD_EXC_PROC";
inline constexpr WCHAR OperationDeleteProcess[] = L"IOCTL = DEL_PROCESS";
inline constexpr WCHAR OperationAddProtection[] = L"IOCTL = ADD_PROTECT";
inline constexpr WCHAR OperationDeleteProtection[] = L"IOCTL = DEL_PROTECT";
inline constexpr WCHAR OperationOutputParameters[] = L"IOCTL = OUTPUT_PARAM";
inline constexpr WCHAR OperationStop[] = L"IOCTL = STOP";
inline constexpr WCHAR OperationPre[] = L"Ope = PRE";

inline constexpr WCHAR OutcomeExcluded[] = L"status = EXCLUDED";
inline constexpr WCHAR OutcomeAddedParent[] = L"status = ADDED_PARENT";
inline constexpr WCHAR OutcomeAddedProcess[] = L"status = ADDED_PROCESS";
inline constexpr WCHAR OutcomeAddedChild[] = L"status = ADDED_CHILD";
inline constexpr WCHAR OutcomeSettingExists[] = L"status = SETTING_EXISTS";
inline constexpr WCHAR OutcomeAddedSetting[] = L"status = ADDED_SETTING";
inline constexpr WCHAR OutcomeDeletedSetting[] = L"status = DELETED_SETTING";
inline constexpr WCHAR OutcomeDeletedParent[] = L"status = DELETED_PARENT";
inline constexpr WCHAR OutcomeDeletedProcess[] = L"status = DELETED_PROCESS";
inline constexpr WCHAR OutcomeDeletedChild[] = L"status = DELETED_CHILD";
inline constexpr WCHAR OutcomeOverrideKey[] = L"status = OVERRIDE_KEY";
