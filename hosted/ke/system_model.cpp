#include "hosted/ke/system_model.h"

namespace host
{
SystemModel& Model()
{
    static SystemModel model;
    return model;
}
}
