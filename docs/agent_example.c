/*
 * A small agent: gives the driver a key, puts one program under the sandbox, protects one file for another process and
 * prints what the driver reports for a while.
 *
 * usage: agent_example PROGRAM PROTECTED_FILE PROCESS_ID
 */
#include <stdio.h>
#include <stdlib.h>
#include <windows.h>

#include <tarnveil/control.h>

/* Answers arrive in the buffer although the driver reports 0 bytes. */
static BOOL Send(HANDLE device, DWORD code, const void* input, DWORD inputBytes, void* output, DWORD outputBytes)
{
    DWORD returned = 0;
    BOOL sent = DeviceIoControl(device, code, (void*)input, inputBytes, output, outputBytes, &returned, NULL);
    if (!sent)
    {
        fprintf(stderr, "request 0x%lX failed with error %lu\n", code, GetLastError());
    }
    return sent;
}

static BOOL SetKey(HANDLE device)
{
    /* 32 key bytes and the mask byte. A real agent keeps its key; this one must never be used. */
    unsigned char input[TARNVEIL_KEY_INPUT_256];
    memset(input, 0x5A, sizeof(input));
    return Send(device, IOCTL_SET_CRYPTKEY, input, sizeof(input), NULL, 0);
}

static BOOL AddProgram(HANDLE device, const wchar_t* path)
{
    unsigned int id = 0;
    DWORD bytes = (DWORD)((wcslen(path) + 1) * sizeof(wchar_t));
    if (!Send(device, IOCTL_ADD_PROCESS, path, bytes, &id, sizeof(id)))
    {
        return FALSE;
    }
    printf("%ls is under the sandbox, setting %u\n", path, id);
    return TRUE;
}

static BOOL ProtectFile(HANDLE device, unsigned int processId, const wchar_t* path)
{
    unsigned int id = 0;
    size_t pathBytes = (wcslen(path) + 1) * sizeof(wchar_t);
    unsigned char* input = malloc(sizeof(processId) + pathBytes);
    if (input == NULL)
    {
        return FALSE;
    }
    memcpy(input, &processId, sizeof(processId));
    memcpy(input + sizeof(processId), path, pathBytes);
    BOOL added =
        Send(device, IOCTL_ADD_FILE_PROTECTION, input, (DWORD)(sizeof(processId) + pathBytes), &id, sizeof(id));
    free(input);
    if (added)
    {
        printf("%ls is for process %u alone, setting %u\n", path, processId, id);
    }
    return added;
}

static void ShowLog(HANDLE device, HANDLE event)
{
    static TARNVEIL_LOG_RECORD records[16];
    while (WaitForSingleObject(event, 10000) == WAIT_OBJECT_0)
    {
        DWORD returned = 0;
        while (DeviceIoControl(device, IOCTL_GET_LOG_DATA, NULL, 0, records, sizeof(records), &returned, NULL))
        {
            for (DWORD i = 0; i < returned / sizeof(records[0]); ++i)
            {
                printf("0x%02X %ls (%u) %ls\n", records[i].Level, (const wchar_t*)records[i].ProcessName,
                    records[i].ProcessId, (const wchar_t*)records[i].Message);
            }
        }
    }
}

int wmain(int count, wchar_t** values)
{
    if (count != 4)
    {
        fprintf(stderr, "usage: agent_example PROGRAM PROTECTED_FILE PROCESS_ID\n");
        return 2;
    }
    HANDLE device = CreateFileW(
        L"\\\\.\\Tarnveil", GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, NULL);
    if (device == INVALID_HANDLE_VALUE)
    {
        fprintf(stderr, "the driver is not there (error %lu)\n", GetLastError());
        return 3;
    }
    HANDLE event = CreateEventW(NULL, FALSE, FALSE, NULL);
    TARNVEIL_START_LOGGING logging = {(ULONG_PTR)event,
        TARNVEIL_LEVEL_ALLOWED_OPEN | TARNVEIL_LEVEL_REFUSED_KEY | TARNVEIL_LEVEL_DENIED_OPEN | TARNVEIL_LEVEL_TRACE};
    BOOL done = event != NULL && Send(device, IOCTL_START_LOGGING, &logging, sizeof(logging), NULL, 0) &&
                SetKey(device) && AddProgram(device, values[1]) &&
                ProtectFile(device, (unsigned int)_wtoi(values[3]), values[2]) &&
                Send(device, IOCTL_START, NULL, 0, NULL, 0);
    if (done)
    {
        ShowLog(device, event);
        Send(device, IOCTL_STOP, NULL, 0, NULL, 0);
        Send(device, IOCTL_STOP_LOGGING, NULL, 0, NULL, 0);
    }
    if (event != NULL)
    {
        CloseHandle(event);
    }
    CloseHandle(device);
    return done ? 0 : 1;
}
