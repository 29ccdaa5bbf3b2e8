// Local time.
#include "hosted/ke/system_model.h"

extern "C" void NTAPI ExSystemTimeToLocalTime(PLARGE_INTEGER SystemTime, PLARGE_INTEGER LocalTime)
{
    LocalTime->QuadPart = SystemTime->QuadPart - hosted::Model().TimeZoneBias;
}
