// Answers of the system that its documents allow for and that the driver copes with, although nothing here gives them.
// The linker leads every call of the routines named here through this file.
#pragma once

#include <ntifs.h>

namespace stand_in
{
// While it lives, the routine gives the answer instead of doing its work. One at a time for each routine.
class Answer
{
public:
    // FltGetFileNameInformation: success without any information.
    static const char NoFileNameInformation[];
    // ZwQuerySymbolicLinkObject: too small a buffer for a target of no length.
    static const char EmptyLinkTarget[];
    // ZwQuerySymbolicLinkObject: success, as no room is enough for the target.
    static const char NoLinkTarget[];

    explicit Answer(const char* which);
    ~Answer();
    Answer(const Answer&) = delete;
    Answer& operator=(const Answer&) = delete;
};
}
