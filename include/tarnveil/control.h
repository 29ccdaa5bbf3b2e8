/*
 * The control device of the Tarnveil driver: request codes, record layouts and limits.
 * Shared by the driver and by every agent; plain C, usable from C++.
 *
 * All integers are little-endian. Process ids and setting ids are unsigned 32-bit. Strings are UTF-16 and end at
 * their NUL; one without a NUL ends where the input ends.
 *
 * Open "\\.\Tarnveil" (kernel name "\DosDevices\Tarnveil") and send the requests with DeviceIoControl. Four-byte
 * results and the process id list arrive in the output buffer although the request reports 0 bytes returned;
 * only IOCTL_GET_LOG_DATA reports the bytes that it returned.
 */
#ifndef TARNVEIL_CONTROL_H
#define TARNVEIL_CONTROL_H

/* Device type FILE_DEVICE_UNKNOWN, any access, buffered; functions count from 0x800. */
#define TARNVEIL_CTL_CODE(Function) ((0x22u << 16) | ((0x800u + (Function)) << 2))

/* Input: key bytes (16, 24 or 32) followed by the mask byte for trailing partial blocks. */
#define IOCTL_SET_CRYPTKEY TARNVEIL_CTL_CODE(0x00)
/* Input: path; output: exactly 4 bytes, the setting id. */
#define IOCTL_ADD_PARENT_PROCESS TARNVEIL_CTL_CODE(0x01)
#define IOCTL_ADD_PROCESS TARNVEIL_CTL_CODE(0x02)
/* Input: setting id. */
#define IOCTL_DEL_PROCESS TARNVEIL_CTL_CODE(0x03)
#define IOCTL_START TARNVEIL_CTL_CODE(0x04)
#define IOCTL_STOP TARNVEIL_CTL_CODE(0x05)
/* Input: TARNVEIL_START_LOGGING. */
#define IOCTL_START_LOGGING TARNVEIL_CTL_CODE(0x06)
#define IOCTL_STOP_LOGGING TARNVEIL_CTL_CODE(0x07)
/* Output: whole TARNVEIL_LOG_RECORDs, oldest first, as many as fit. */
#define IOCTL_GET_LOG_DATA TARNVEIL_CTL_CODE(0x08)
/* Input: process id; output: 1 or 0. */
#define IOCTL_IS_UNDER_SANDBOX TARNVEIL_CTL_CODE(0x09)
/* Output: 1 or 0. */
#define IOCTL_IS_EXIST_UNDER_SANDBOX TARNVEIL_CTL_CODE(0x10)
/* Output: a count, then that many process ids. */
#define IOCTL_GET_PID_LIST_UNDER_SANDBOX TARNVEIL_CTL_CODE(0x11)
/* Input: path; output: exactly 4 bytes, the setting id. */
#define IOCTL_ADD_EXC_PROCESS TARNVEIL_CTL_CODE(0x12)
/* Input: exactly 4 bytes. Only 1 switches encryption on; any other value than 0 is reported as on all the same. */
#define IOCTL_SET_ENCRYPTION TARNVEIL_CTL_CODE(0x13)
/* Input: process id, then a path; output: exactly 4 bytes, the setting id. */
#define IOCTL_ADD_FILE_PROTECTION TARNVEIL_CTL_CODE(0x14)
/* Input: setting id. */
#define IOCTL_DEL_FILE_PROTECTION TARNVEIL_CTL_CODE(0x15)
#define IOCTL_OUTPUT_CURRENT_PARAM TARNVEIL_CTL_CODE(0x16)

/* Lengths of IOCTL_SET_CRYPTKEY's input: a key of 16, 24 or 32 bytes and the mask byte. */
#define TARNVEIL_KEY_INPUT_128 17
#define TARNVEIL_KEY_INPUT_192 25
#define TARNVEIL_KEY_INPUT_256 33

/* Level bits of log records; a mask of them selects what is queued. */
#define TARNVEIL_LEVEL_ALLOWED_OPEN 0x02
#define TARNVEIL_LEVEL_REFUSED_KEY 0x04
#define TARNVEIL_LEVEL_DENIED_OPEN 0x08
#define TARNVEIL_LEVEL_TRACE 0x40

#define TARNVEIL_LOG_NAME_CHARACTERS 32
#define TARNVEIL_LOG_MESSAGE_CHARACTERS 512
#define TARNVEIL_LOG_RECORD_BYTES 1096
/* The oldest record is dropped when one more comes. */
#define TARNVEIL_LOG_MAXIMUM_RECORDS 1024

/* A UTF-16 code unit, whatever the compiler's wchar_t is. */
typedef unsigned short TARNVEIL_WCHAR;

#pragma pack(push, 1)

/* Input of IOCTL_START_LOGGING, 12 bytes. */
typedef struct _TARNVEIL_START_LOGGING
{
    unsigned long long EventHandle; /* of the calling process; signalled after each queued record */
    unsigned int Flags;             /* mask of level bits to queue */
} TARNVEIL_START_LOGGING;

/* One record of IOCTL_GET_LOG_DATA. Both texts are terminated and padded with NULs. */
typedef struct _TARNVEIL_LOG_RECORD
{
    unsigned int Level;
    unsigned int ProcessId;
    TARNVEIL_WCHAR ProcessName[TARNVEIL_LOG_NAME_CHARACTERS];
    TARNVEIL_WCHAR Message[TARNVEIL_LOG_MESSAGE_CHARACTERS];
} TARNVEIL_LOG_RECORD;

#pragma pack(pop)

#endif
