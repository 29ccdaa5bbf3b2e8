// The Windows kernel interfaces as the driver sees them when it is built for the hosted kernel.
#pragma once

extern "C"
{
#include "nt/types.h"

#include "nt/status.h"

#include "nt/ke.h"

#include "nt/rtl.h"

#include "nt/io.h"

#include "nt/fs.h"

#include "nt/ob.h"
}
