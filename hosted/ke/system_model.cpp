#include "hosted/ke/system_model.h"

namespace hosted
{
namespace
{
bool everyPoolIsGuarded = false;
}

SystemModel& Model()
{
    static SystemModel model;
    return model;
}

void GuardEveryPool()
{
    everyPoolIsGuarded = true;
}

void SetModel(const SystemModel& model)
{
    Model() = model;
    Model().GuardedPool = model.GuardedPool || everyPoolIsGuarded;
}
}
