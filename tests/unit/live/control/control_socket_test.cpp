// The control socket as a name in the host's file system.
#include "tests/unit/live/control/control_fixture.h"

#include "live/control/socket_path.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

namespace control_test
{
namespace
{
struct stat InfoOf(const std::string& path)
{
    struct stat info = {};
    EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
    return info;
}

// One variable of the environment for the length of a test.
class Variable
{
public:
    Variable(const char* name, const char* value) : name_(name)
    {
        const char* old = std::getenv(name);
        old_ = old == nullptr ? std::nullopt : std::optional<std::string>(old);
        Set(value);
    }
    ~Variable() { Set(old_ ? old_->c_str() : nullptr); }

private:
    void Set(const char* value) { value == nullptr ? unsetenv(name_) : setenv(name_, value, 1); }

    const char* name_;
    std::optional<std::string> old_;
};

class ControlSocketTest : public testing::Test
{
protected:
    std::string Trouble(const std::string& path)
    {
        try
        {
            const ControlServer server(OptionsAt(path));
            return {};
        }
        catch (const std::runtime_error& error)
        {
            return error.what();
        }
    }
    ControlServerOptions OptionsAt(const std::string& path)
    {
        ControlServerOptions options;
        options.Path = path;
        options.ProcessOf = [](pid_t) -> Process* { return nullptr; };
        return options;
    }

    Machine machine_;
    TemporaryFolder folder_;
};

TEST_F(ControlSocketTest, OnlyTheUserMayConnect)
{
    const std::string path = folder_.Path("sub/control");
    const ControlServer server(OptionsAt(path));
    EXPECT_EQ(InfoOf(folder_.Path("sub")).st_mode & ALLPERMS, 0700u);
    EXPECT_EQ(InfoOf(path).st_mode & ALLPERMS, 0600u);
    EXPECT_TRUE(S_ISSOCK(InfoOf(path).st_mode));
}

TEST_F(ControlSocketTest, TheNameGoesWithTheServer)
{
    const std::string path = folder_.Path("control");
    ControlServer server(OptionsAt(path));
    server.Stop();
    EXPECT_THAT(folder_.Names(), testing::IsEmpty());
}

TEST_F(ControlSocketTest, ANameThatIsNotTheServersStays)
{
    const std::string path = folder_.Path("control");
    ControlServer server(OptionsAt(path));
    ASSERT_EQ(unlink(path.c_str()), 0);
    folder_.Put("control", "another's");
    server.Stop();
    EXPECT_EQ(folder_.Get("control"), "another's");
}

TEST_F(ControlSocketTest, WhatAKilledServerLeftIsReplaced)
{
    const std::string path = folder_.Path("control");
    {
        const Descriptor dead(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = AddressOf(path);
        ASSERT_EQ(bind(dead.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    }
    ASSERT_TRUE(S_ISSOCK(InfoOf(path).st_mode));
    const ControlServer server(OptionsAt(path));
    EXPECT_TRUE(RawClient(path).IsConnected());
}

TEST_F(ControlSocketTest, SomethingElseOfThatNameIsLeftAlone)
{
    folder_.Put("control", "precious");
    EXPECT_THAT(Trouble(folder_.Path("control")), HasSubstr("something else of that name"));
    EXPECT_EQ(folder_.Get("control"), "precious");
}

TEST_F(ControlSocketTest, PathsThatCannotBe)
{
    EXPECT_THAT(Trouble(folder_.Path(std::string(120, 'x'))), HasSubstr("1 to 107 bytes"));
    EXPECT_THAT(Trouble(""), HasSubstr("1 to 107 bytes"));
    EXPECT_THAT(Trouble(folder_.Path("none/such/control")), HasSubstr("No such file"));
    folder_.Put("file", "");
    EXPECT_THAT(Trouble(folder_.Path("file/control")), HasSubstr("Not a directory"));
}

TEST_F(ControlSocketTest, TheUsualPlace)
{
    const Variable noPath(control_socket::PathVariable, nullptr);
    {
        const Variable runtime("XDG_RUNTIME_DIR", "/run/user/7");
        EXPECT_EQ(control_socket::FindSocketPath({}).Path, "/run/user/7/tarnhost/control");
        EXPECT_TRUE(control_socket::FindSocketPath({}).PrivateFolder);
        EXPECT_EQ(control_socket::FindSocketPath("there").Path, "there");
        EXPECT_FALSE(control_socket::FindSocketPath("there").PrivateFolder);
        const Variable path(control_socket::PathVariable, "/elsewhere");
        EXPECT_EQ(control_socket::FindSocketPath({}).Path, "/elsewhere");
        EXPECT_FALSE(control_socket::FindSocketPath({}).PrivateFolder);
        EXPECT_EQ(control_socket::FindSocketPath("there").Path, "there");
    }
    for (const char* none : {static_cast<const char*>(nullptr), "", "relative"})
    {
        const Variable runtime("XDG_RUNTIME_DIR", none);
        EXPECT_EQ(control_socket::FindSocketPath({}).Path, "/tmp/tarnhost-" + std::to_string(geteuid()) + "/control");
    }
}

TEST_F(ControlSocketTest, TheUsualFolderMustBeTheUsersOwn)
{
    const Variable noPath(control_socket::PathVariable, nullptr);
    const Variable runtime("XDG_RUNTIME_DIR", folder_.Path("").c_str());
    const std::string path = control_socket::FindSocketPath({}).Path;
    const std::string folder = control_socket::FolderOf(path);
    EXPECT_EQ(Trouble(path), "");
    ASSERT_EQ(chmod(folder.c_str(), 0750), 0);
    EXPECT_THAT(Trouble(path), HasSubstr("is open to other users"));
    ASSERT_EQ(chmod(folder.c_str(), 0700), 0);
    EXPECT_EQ(Trouble(path), "");
    // A link may lead anywhere.
    ASSERT_EQ(rmdir(folder.c_str()), 0);
    ASSERT_EQ(symlink("/tmp", folder.c_str()), 0);
    EXPECT_THAT(Trouble(path), HasSubstr("is no folder"));
    if (geteuid() == 0)
    {
        ASSERT_EQ(unlink(folder.c_str()), 0);
        ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
        ASSERT_EQ(chown(folder.c_str(), 12345, 12345), 0);
        EXPECT_THAT(Trouble(path), HasSubstr("belongs to another user"));
    }
}

TEST_F(ControlSocketTest, FoldersOfPaths)
{
    EXPECT_EQ(control_socket::FolderOf("/a/b/c"), "/a/b");
    EXPECT_EQ(control_socket::FolderOf("/a"), "/");
    EXPECT_EQ(control_socket::FolderOf("a"), ".");
}
}
}
