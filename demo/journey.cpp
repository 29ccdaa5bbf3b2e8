#include "demo/journey.h"

#include "demo/file_walk.h"
#include "demo/protection_walk.h"
#include "demo/report.h"

namespace demo
{
namespace
{
// Returns the registry as the machine left it.
std::string BeforeRestart(const Plan& plan, const Key& key)
{
    Stage stage(plan.Where, {}, key);
    FileWalk walk(stage, plan.Where.Disk, key);
    for (const auto& file : plan.Files)
    {
        walk.Take(file);
    }
    ProtectDocument(stage);
    ReadDump(stage);
    return stage.Leave();
}

void AfterRestart(const Plan& plan, const Key& key, const std::string& registry)
{
    Say("restart", "the machine boots again with the same disk and registry");
    Stage stage(plan.Where, registry, key);
    FindDocumentProtected(stage);
    stage.Leave();
}
}

void Travel(const Plan& plan)
{
    const Key key = RandomKey();
    AfterRestart(plan, key, BeforeRestart(plan, key));
}
}
