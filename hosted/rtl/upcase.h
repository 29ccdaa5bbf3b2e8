// The system's upcase table.
#pragma once

#include <ntifs.h>

namespace hosted
{
// Any IRQL, unlike the exported routine.
WCHAR UpcaseCharacter(WCHAR character);
}
