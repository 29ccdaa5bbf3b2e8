// Which routines can be found by name at run time.
#pragma once

#include "hosted/rtl/wide_string.h"

namespace hosted
{
// The look-up no longer finds the name, as on a system that does not have the routine.
void HideSystemRoutine(WideView name);
void ShowAllSystemRoutines();
}
