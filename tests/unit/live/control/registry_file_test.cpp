// The registry's file: read, written, whole at every moment.
#include "live/control/registry_file.h"

#include "live/control/whole_file.h"
#include "hosted/machine/native_image.h"
#include "tests/support/machine.h"
#include "tests/support/temporary_folder.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <gmock/gmock.h>

#include <atomic>
#include <csignal>

using namespace hosted;
using testing::HasSubstr;

namespace
{
constexpr WideView Service = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\Tarnveil";
const std::string Header = "Windows Registry Editor Version 5.00\r\n";
const std::string ServiceText = "[HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services\\Tarnveil]\r\n";

class RegistryFileTest : public testing::Test
{
protected:
    std::string Path() const { return folder_.Path("live.reg"); }

    // As the driver does it.
    void Write(WideView name, ULONG value)
    {
        const std::shared_ptr<RegistryKey> key = registry_.FindKey(nullptr, Service);
        ASSERT_NE(key, nullptr);
        const auto* bytes = reinterpret_cast<const UCHAR*>(&value);
        EXPECT_TRUE(registry_.WriteValue(*key, name, REG_DWORD, {bytes, sizeof(value)}));
    }
    std::string Trouble(const std::string& path)
    {
        try
        {
            const RegistryFile file(path, {}, registry_);
            return {};
        }
        catch (const std::runtime_error& error)
        {
            return error.what();
        }
    }
    // The value as another run would find it.
    std::optional<ULONG> Stored(WideView name)
    {
        Registry other;
        const RegistryFile file(Path(), {}, other);
        const std::optional<RegistryValue> value = other.GetValue(Service, name);
        return value && value->Bytes.size() == 4 ? std::optional(*reinterpret_cast<const ULONG*>(value->Bytes.data()))
                                                 : std::nullopt;
    }
    mode_t Mode(const std::string& path)
    {
        struct stat info = {};
        EXPECT_EQ(lstat(path.c_str(), &info), 0);
        return info.st_mode;
    }

    TemporaryFolder folder_;
    Registry registry_;
};

TEST_F(RegistryFileTest, ValuesComeFromTheFile)
{
    folder_.Put("live.reg", Header + "\r\n" + ServiceText + "\"SandboxPath\"=\"C:\\\\Sandbox\"\r\n\"a\"=dword:5\r\n");
    const RegistryFile file(Path(), {}, registry_);
    EXPECT_TRUE(file.Existed());
    EXPECT_EQ(registry_.GetValue(Service, L"a")->Bytes, (std::vector<UCHAR>{5, 0, 0, 0}));
    EXPECT_EQ(Narrow(registry_.Values(Service)[1].Name), "SandboxPath");
}

TEST_F(RegistryFileTest, NothingIsWrittenWhileNothingChanges)
{
    const std::string text = Header + "; a comment\r\n" + ServiceText;
    folder_.Put("live.reg", text);
    {
        RegistryFile file(Path(), {}, registry_);
        registry_.SetDword(Service, L"default", 1);
        file.Flush();
    }
    EXPECT_EQ(folder_.Get("live.reg"), text);
    EXPECT_EQ(folder_.Names().size(), 1u);
    {
        const RegistryFile file(folder_.Path("none.reg"), {}, registry_);
        EXPECT_FALSE(file.Existed());
    }
    EXPECT_EQ(folder_.Names().size(), 1u);
}

TEST_F(RegistryFileTest, TextThatIsNotUnderstoodIsNamedByItsLine)
{
    folder_.Put("live.reg", Header + "\r\n" + ServiceText + "\"a\"=dword:1\r\n\"b\"=what\r\n");
    EXPECT_EQ(Trouble(Path()), Path() + ": line 5: the value's form is unknown");
    EXPECT_FALSE(registry_.KeyExists(Service));
    folder_.Put("live.reg", "");
    EXPECT_EQ(Trouble(Path()), Path() + ": line 1: the header is missing");
}

TEST_F(RegistryFileTest, FilesThatCannotBe)
{
    EXPECT_THAT(Trouble(folder_.Path("")), HasSubstr("this is no ordinary file"));
    EXPECT_THAT(Trouble("/dev/null"), HasSubstr("this is no ordinary file"));
    EXPECT_THAT(Trouble(folder_.Path("none/live.reg")), HasSubstr("No such file or directory"));
    folder_.Put("live.reg", "");
    EXPECT_THAT(Trouble(folder_.Path("live.reg/live.reg")), HasSubstr("Not a directory"));
}

TEST_F(RegistryFileTest, AChangeIsWrittenWithAllElse)
{
    folder_.Put("live.reg", Header + "\r\n" + ServiceText + "\"a\"=dword:00000001\r\n\r\n" +
                                "[HKEY_USERS\\Someone\\Software]\r\n\"name\"=\"value\"\r\n");
    {
        RegistryFile file(Path(), {}, registry_);
        // Of the host's own, beside what the file says.
        registry_.SetDword(Service, L"default", 7);
        registry_.SetDword(L"\\Registry\\Machine\\SOFTWARE\\Other", L"x", 8);
        Write(L"b", 2);
        file.Flush();
        EXPECT_EQ(Stored(L"b"), 2u);
        Write(L"b", 3);
    }
    EXPECT_EQ(
        folder_.Get("live.reg"), Header +
                                     "\r\n[HKEY_LOCAL_MACHINE]\r\n"
                                     "\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE]\r\n"
                                     "\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Other]\r\n\"x\"=dword:00000008\r\n"
                                     "\r\n[HKEY_LOCAL_MACHINE\\System]\r\n"
                                     "\r\n[HKEY_LOCAL_MACHINE\\System\\CurrentControlSet]\r\n"
                                     "\r\n[HKEY_LOCAL_MACHINE\\System\\CurrentControlSet\\Services]\r\n\r\n" +
                                     ServiceText +
                                     "\"a\"=dword:00000001\r\n\"b\"=dword:00000003\r\n\"default\"=dword:00000007\r\n"
                                     "\r\n[HKEY_USERS]\r\n"
                                     "\r\n[HKEY_USERS\\Someone]\r\n"
                                     "\r\n[HKEY_USERS\\Someone\\Software]\r\n\"name\"=\"value\"\r\n");
    EXPECT_EQ(folder_.Names().size(), 1u);
    // Another run changes nothing by reading and writing that.
    const std::string text = folder_.Get("live.reg");
    Registry other;
    {
        RegistryFile file(Path(), {}, other);
        const std::shared_ptr<RegistryKey> key = other.FindKey(nullptr, Service);
        other.WriteValue(*key, L"b", REG_DWORD, other.GetValue(Service, L"b")->Bytes);
    }
    EXPECT_EQ(folder_.Get("live.reg"), text);
}

TEST_F(RegistryFileTest, AFileThatWasNotThereIsMadeForTheUserAlone)
{
    registry_.CreateKey(Service);
    {
        RegistryFile file(Path(), {}, registry_);
        Write(L"a", 1);
        file.Flush();
        EXPECT_EQ(Mode(Path()) & ALLPERMS, 0600u);
    }
    EXPECT_EQ(Stored(L"a"), 1u);
}

TEST_F(RegistryFileTest, ModeOwnerAndEncodingStay)
{
    const std::string text = Header + "\r\n" + ServiceText;
    std::string wide = "\xFF\xFE";
    for (const char unit : text)
    {
        wide += unit;
        wide += '\0';
    }
    folder_.Put("live.reg", wide);
    ASSERT_EQ(chmod(Path().c_str(), 0640), 0);
    const uid_t owner = geteuid() == 0 ? 12345 : geteuid();
    ASSERT_EQ(chown(Path().c_str(), owner, static_cast<gid_t>(-1)), 0);
    {
        const RegistryFile file(Path(), {}, registry_);
        Write(L"a", 1);
    }
    EXPECT_EQ(Mode(Path()) & ALLPERMS, 0640u);
    struct stat info = {};
    EXPECT_EQ(stat(Path().c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, owner);
    EXPECT_EQ(folder_.Get("live.reg").substr(0, 8), std::string("\xFF\xFEW\0i\0n\0", 8));
    EXPECT_EQ(Stored(L"a"), 1u);
}

TEST_F(RegistryFileTest, ALinkStaysOne)
{
    folder_.Put("target.reg", Header + ServiceText);
    ASSERT_EQ(symlink("target.reg", Path().c_str()), 0);
    {
        const RegistryFile file(Path(), {}, registry_);
        Write(L"a", 1);
    }
    EXPECT_TRUE(S_ISLNK(Mode(Path())));
    EXPECT_THAT(folder_.Get("target.reg"), HasSubstr("\"a\"=dword:00000001"));
}

TEST_F(RegistryFileTest, WhatACrashLeftBesideTheFileIsReplaced)
{
    folder_.Put("live.reg", Header + ServiceText);
    folder_.Put("live.reg.new", "half of a fi");
    {
        const RegistryFile file(Path(), {}, registry_);
        Write(L"a", 1);
    }
    EXPECT_EQ(Stored(L"a"), 1u);
    EXPECT_EQ(folder_.Names().size(), 1u);
}

// Nothing can be written beyond so many bytes of a file.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        handler_ = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &old_);
        const rlimit limit = {bytes, old_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &old_);
        std::signal(SIGXFSZ, handler_);
    }

private:
    rlimit old_ = {};
    void (*handler_)(int) = nullptr;
};

TEST_F(RegistryFileTest, AWriteThatFailsLeavesTheOldFileAndIsTriedAgain)
{
    const std::string text = Header + ServiceText;
    folder_.Put("live.reg", text);
    std::vector<std::string> troubles;
    {
        RegistryFile file(Path(), [&troubles](const std::string& trouble) { troubles.push_back(trouble); }, registry_);
        {
            const FileSizeLimit limit(50);
            Write(L"a", 1);
            file.Flush();
        }
        EXPECT_EQ(folder_.Get("live.reg"), text);
        EXPECT_EQ(folder_.Names().size(), 1u);
        EXPECT_THAT(troubles, testing::ElementsAre(Path() + ".new: File too large"));
    }
    EXPECT_EQ(troubles.size(), 1u);
    EXPECT_EQ(Stored(L"a"), 1u);
}

TEST_F(RegistryFileTest, WhoLooksSeesAWholeFileAtEveryMoment)
{
    constexpr ULONG Changes = 200;
    folder_.Put("live.reg", Header + ServiceText + "\"a\"=dword:00000000\r\n\"z\"=dword:00000001\r\n");
    std::atomic<bool> done{false};
    std::thread reader(
        [this, &done]
        {
            ULONG last = 0;
            while (!done)
            {
                Registry other;
                std::string error;
                EXPECT_TRUE(other.ImportReg(*ReadWholeFile(Path()), &error)) << error;
                EXPECT_TRUE(other.GetValue(Service, L"z").has_value());
                const ULONG now = *reinterpret_cast<const ULONG*>(other.GetValue(Service, L"a")->Bytes.data());
                EXPECT_GE(now, last);
                last = now;
            }
        });
    {
        RegistryFile file(Path(), {}, registry_);
        std::thread other(
            [this]
            {
                for (ULONG i = 0; i < Changes; ++i)
                {
                    Write(L"other", i);
                }
            });
        for (ULONG i = 1; i <= Changes; ++i)
        {
            Write(L"a", i);
            if (i % 10 == 0)
            {
                file.Flush();
            }
        }
        other.join();
    }
    done = true;
    reader.join();
    EXPECT_EQ(Stored(L"a"), Changes);
    EXPECT_EQ(Stored(L"other"), Changes - 1);
}

TEST(RegistryFileInMachine, ProtectedPathsSurviveARun)
{
    TemporaryFolder folder;
    const std::string path = folder.Path("live.reg");
    folder.Put("live.reg", Header + ServiceText + "\"SandboxPath\"=\"\\\\Device\\\\HarddiskVolume1\\\\Sandbox\"\r\n");
    for (int run = 0; run < 2; ++run)
    {
        Machine machine;
        RegistryFile file(path);
        ASSERT_EQ(machine.LoadDriver(Image::Native), STATUS_SUCCESS);
        const Program agent = machine.StartProcess(L"C:\\Agent\\agent.exe");
        ASSERT_EQ(machine.PutOnDisk(L"C:\\Data\\ledger.db", "sums"), STATUS_SUCCESS);
        if (run == 0)
        {
            EXPECT_EQ(agent.Open(L"C:\\Data\\ledger.db").Status(), STATUS_SUCCESS);
            EXPECT_EQ(agent.AddFileProtection(agent.ProcessId(), L"C:\\Data\\*.db").Status, STATUS_SUCCESS);
            file.Flush();
            EXPECT_THAT(folder.Get("live.reg"), HasSubstr("\"ProtectionFiles\"=hex(7):"));
        }
        else
        {
            EXPECT_EQ(agent.Open(L"C:\\Data\\ledger.db").Status(), STATUS_ACCESS_DENIED);
        }
    }
}
}
