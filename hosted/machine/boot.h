// Brings what is global to the hosted kernel into the state of a machine just switched on.
#pragma once

#include "hosted/ke/system_model.h"

namespace hosted
{
// Bug check when another machine is up.
void ResetKernel(const SystemModel& model);
// Hooks, plans and processes go; another machine may boot.
void ReleaseKernel();
}
