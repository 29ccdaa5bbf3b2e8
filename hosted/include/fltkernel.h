// The Filter Manager's interfaces are declared once, for both builds: they rest only on the kernel's own types.
#pragma once

#include "../../windows/include/fltkernel.h"
