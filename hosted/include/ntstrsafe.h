// Safe formatting is the driver's own code in both builds; only the formatter below it has another name here.
#pragma once

#include <ntifs.h>

#define NTSTRSAFE_VSNWPRINTF KernelVsnwprintf

#include "../../windows/include/ntstrsafe.h"
