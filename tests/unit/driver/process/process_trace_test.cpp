// What the debugger is told of processes, as whole texts in their order.
#include "driver/process/process_notify.h"
#include "tests/unit/driver/process/agent_fixture.h"

using namespace agent_test;

namespace
{
class ProcessTraceTest : public AgentTest
{
protected:
    std::vector<std::string> Traced(auto&& action)
    {
        Global.VerboseTrace = TRUE;
        const auto prints = PrintsOf(action);
        Global.VerboseTrace = FALSE;
        return prints;
    }
    // A pointer as %p prints it.
    static constexpr char NoIdleProcess[] = "PsLookupProcessByProcessId Failed: 0xC000000DL, ProcessId = 0\n";

    static std::string Pointer(const Program& program)
    {
        return Text("%016llX", static_cast<unsigned long long>(reinterpret_cast<ULONG_PTR>(program.Object())));
    }
    static std::string Device(const char* path) { return std::string("\\Device\\HarddiskVolume1") + path; }
    // What a scan says of the idle process, which cannot be looked up, and of the system process, which has no image.
    static std::vector<std::string> Visited(const char* scan)
    {
        return {Text("Tarnveil - %s: 0 - (null)\n", scan), NoIdleProcess,
            "Tarnveil - GetProcessImageNameFromProcessId Failed: 0xC000000DL\n",
            Text("Tarnveil - %s: 4 - System\n", scan), "Tarnveil - KernelGetLongPathName failed c000000d\n"};
    }
    void ExpectTexts(
        const std::vector<std::string>& texts, std::vector<std::string> begin, const std::vector<std::string>& rest)
    {
        begin.insert(begin.end(), rest.begin(), rest.end());
        EXPECT_EQ(texts, begin);
    }
};

TEST_F(ProcessTraceTest, AScanForParentsTellsWhatItVisitsInsertsAndFindsBelow)
{
    const Program parent = machine_.StartProcess(L"C:\\p.exe");
    const Program child = parent.Start(L"C:\\c.exe");
    const ULONG agent = agent_.ProcessId();
    const auto texts = Traced([&] { EXPECT_EQ(agent_.AddParentProcess(L"C:\\p.exe"), Added(Id(0))); });
    std::vector<std::string> begin = {"Tarnveil.sys: ", Text("[IDMan] IssueId = %u\n", Id(0))};
    for (const std::string& text : Visited("RegistMonitoredParentProcess"))
    {
        begin.push_back(text);
    }
    ExpectTexts(texts, begin,
        {Text("Tarnveil - RegistMonitoredParentProcess: %u - agent.exe\n", agent),
            Text("Tarnveil - RegistMonitoredParentProcess: %u - p.exe\n", parent.ProcessId()),
            Text("Tarnveil - insert parent %s %u C:\\p.exe\n", Pointer(parent).c_str(), parent.ProcessId()),
            Text("Tarnveil - RegistMonitoredParentProcess: %u - c.exe\n", child.ProcessId()),
            "Tarnveil - RegistMonitoredChildrenProcess: 0 - (null)\n",
            "Tarnveil - RegistMonitoredChildrenProcess: 4 - System\n",
            Text("Tarnveil - RegistMonitoredChildrenProcess: %u - agent.exe\n", agent),
            Text("Tarnveil - RegistMonitoredChildrenProcess: %u - p.exe\n", parent.ProcessId()),
            Text("Tarnveil - p.exe (%u) has already been added.\n", parent.ProcessId()),
            Text("Tarnveil - RegistMonitoredChildrenProcess: %u - c.exe\n", child.ProcessId()),
            Text("Tarnveil - c.exe (%u) is child process\n", child.ProcessId()),
            Text("Tarnveil - IOCTL_ADD_PARENT_PROCESS: 'C:\\p.exe', id(%d)\n", Id(0))});
}

TEST_F(ProcessTraceTest, AScanForProcessesTellsWhatItVisitsAndInserts)
{
    const Program editor = machine_.StartProcess(L"C:\\e.exe");
    const ULONG agent = agent_.ProcessId();
    const auto first = Traced([&] { EXPECT_EQ(agent_.AddProcess(L"C:\\e.exe"), Added(Id(0))); });
    std::vector<std::string> begin = {"Tarnveil.sys: ", Text("[IDMan] IssueId = %u\n", Id(0))};
    for (const std::string& text : Visited("RegistMonitoredProcess"))
    {
        begin.push_back(text);
    }
    ExpectTexts(first, begin,
        {Text("Tarnveil - RegistMonitoredProcess: %u - agent.exe\n", agent),
            Text("Tarnveil - RegistMonitoredProcess: %u - e.exe\n", editor.ProcessId()),
            Text("Tarnveil - insert process %s %u C:\\e.exe\n", Pointer(editor).c_str(), editor.ProcessId()),
            NoIdleProcess, "Tarnveil.sys: ",
            Text("[BRPL] ForcedInsert PID = %u ProcName = %s\n", editor.ProcessId(), Device("\\e.exe").c_str()),
            Text("Tarnveil - IOCTL_ADD_PROCESS: 'C:\\e.exe', id(%d)\n", Id(0))});

    const auto second = Traced([&] { EXPECT_EQ(agent_.AddProcess(L"C:\\E.exe"), Added(Id(0))); });
    ExpectTexts(second, Visited("RegistMonitoredProcess"),
        {Text("Tarnveil - RegistMonitoredProcess: %u - agent.exe\n", agent),
            Text("Tarnveil - RegistMonitoredProcess: %u - e.exe\n", editor.ProcessId()),
            Text("Tarnveil - %s (%u) has already been added.\n", Device("\\e.exe").c_str(), editor.ProcessId()),
            NoIdleProcess, Text("Tarnveil - IOCTL_ADD_PROCESS: 'C:\\E.exe', id(%d)\n", Id(0))});
}

TEST_F(ProcessTraceTest, ACreationTellsTheListsThatHoldTheImage)
{
    agent_.AddParentProcess(L"C:\\p.exe");
    agent_.AddProcess(L"C:\\p.exe");
    agent_.AddExclusion(L"C:\\e.exe");
    Program parent = agent_;
    Program child = agent_;
    EXPECT_THAT(Traced([&] { parent = machine_.StartProcess(L"C:\\p.exe"); }),
        ElementsAre(
            "Tarnveil - ParentProcessNameList:Exist: C:\\p.exe\n", "Tarnveil - ProcessNameList:Exist: C:\\p.exe\n"));
    EXPECT_THAT(Traced([&] { child = parent.Start(L"C:\\c.exe"); }),
        ElementsAre("Tarnveil - MonitoredParentProcessList:Exist: C:\\c.exe\n"));
    EXPECT_THAT(
        Traced([&] { child.Start(L"C:\\g.exe"); }), ElementsAre("Tarnveil - MonitoredProcessList:Exist: C:\\g.exe\n"));
    EXPECT_THAT(Traced([&] { parent.Start(L"C:\\e.exe"); }),
        ElementsAre("Tarnveil - ExclusionProcessNameList:Exist: C:\\e.exe\n"));
    EXPECT_THAT(Traced([&] { machine_.StartProcess(L"C:\\s.exe"); }), IsEmpty());
}

TEST_F(ProcessTraceTest, ASettingThatCannotBecomeAnNtPathIsTakenBackAloud)
{
    const ULONG id = Id(0);
    const auto texts = [id](const char* scan, const char* request)
    {
        return std::vector<std::string>{"Tarnveil.sys: ", Text("[IDMan] %s = %u\n", "IssueId", id),
            "GetNtNameFromDosName failed: Invalid Parameter a.exe\n", Text("Tarnveil - %s error - c000000d\n", scan),
            "Tarnveil.sys: ", Text("[IDMan] ReleaseId = %u\n", id),
            Text("Tarnveil - %s: 'a.exe', id(%d)\n", request, id)};
    };
    EXPECT_EQ(PrintsOf([&] { EXPECT_EQ(agent_.AddParentProcess(L"a.exe").Status, STATUS_INVALID_PARAMETER); }),
        texts("RegistMonitoredParentProcess", "IOCTL_ADD_PARENT_PROCESS"));
    EXPECT_EQ(IssueId(), id);
    EXPECT_EQ(ReleaseId(id), STATUS_SUCCESS);
    auto second = texts("RegistMonitoredProcess", "IOCTL_ADD_PROCESS");
    second[1] = Text("[IDMan] ReuseId = %u\n", id);
    EXPECT_EQ(PrintsOf([&] { EXPECT_EQ(agent_.AddProcess(L"a.exe").Status, STATUS_INVALID_PARAMETER); }), second);
}

TEST_F(ProcessTraceTest, NothingIsTracedUnasked)
{
    agent_.AddParentProcess(L"C:\\p.exe");
    agent_.AddExclusion(L"C:\\e.exe");
    EXPECT_THAT(PrintsOf(
                    [&]
                    {
                        const Program parent = machine_.StartProcess(L"C:\\p.exe");
                        const Program child = parent.Start(L"C:\\c.exe");
                        child.Start(L"C:\\g.exe").Exit();
                        parent.Start(L"C:\\e.exe");
                        parent.Exit();
                    }),
        IsEmpty());
}

// The notification as the system makes it for a process whose image is known by name only.
class NamedCreation
{
public:
    explicit NamedCreation(WideView name) : name_(Counted(name))
    {
        info_.Size = sizeof(info_);
        info_.ImageFileName = &name_;
    }
    void Notify(const Program& program)
    {
        OnProcessNotify(AsProcess(program.Object()), reinterpret_cast<HANDLE>(7000), &info_);
    }

private:
    UNICODE_STRING name_;
    PS_CREATE_NOTIFY_INFO info_{};
};

TEST_F(ProcessTraceTest, WithoutMemoryForTheImagePathAProcessStaysUntracked)
{
    agent_.AddProcess(L"\\??\\UNC\\server\\a.exe");
    agent_.AddExclusion(L"\\??\\UNC\\server\\a.exe");
    Listen();
    NamedCreation creation(L"\\??\\UNC\\server\\a.exe");
    const char* const failures[] = {
        "Tarnveil - GetFileNameFromCreateInfo failed c000009a\n", "Tarnveil - KernelGetLongPathName failed c000009a\n"};
    for (uint64_t i = 0; i < 2; ++i)
    {
        FailRoutine("ExAllocatePoolWithTag", i + 1);
        EXPECT_THAT(PrintsOf([&] { creation.Notify(agent_); }), ElementsAre("Memory allocation error\n", failures[i]));
        EXPECT_EQ(InjectedFailures(), 1u);
        ResetFailures();
    }
    EXPECT_THAT(Messages(), IsEmpty());
    EXPECT_EQ(agent_.IsUnderSandbox(7000).Value, 0u);
    EXPECT_THAT(PrintsOf([&] { creation.Notify(agent_); }), IsEmpty());
    EXPECT_EQ(Messages().size(), 1u) << "the exclusion is found once there is memory";
}

TEST_F(ProcessTraceTest, AnImageWithAnEmptyNameStaysUntracked)
{
    Listen();
    NamedCreation creation(L"");
    EXPECT_THAT(
        PrintsOf([&] { creation.Notify(agent_); }), ElementsAre("Tarnveil - KernelGetLongPathName failed c000000d\n"));
    EXPECT_THAT(Messages(), IsEmpty());
}
}
