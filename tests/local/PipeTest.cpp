// Anonymous pipes, FIFOs and the mailslot registry, with a forked process on the other end where
// the channel reaches one.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "../../src/local/NetCore_PIPMailSlot.h"
#include "LocalTestSupport.h"

namespace {

using localtest::ExpectFailure;
using localtest::TempPath;
using nctest::ErrorFlag;

class PipeTest : public nctest::NetCoreTest {};

// ----- anonymous pipes ---------------------------------------------------------------------------

TEST_F(PipeTest, AnonymousArgumentsAndUnknownNames) {
    char buffer[8];
    int len = sizeof(buffer);
    EXPECT_FALSE(NetCore_PIPAnonymous_Create(nullptr, nullptr));
    ExpectFailure(ERROR_NETCORE_PIPE_ANONYMOUS_PARAMENT);
    EXPECT_FALSE(NetCore_PIPAnonymous_Read(nullptr, buffer, &len));
    ExpectFailure(ERROR_NETCORE_PIPE_ANONYMOUS_READ_PARAMENT);
    EXPECT_FALSE(NetCore_PIPAnonymous_Read("p", buffer, nullptr));
    ExpectFailure(ERROR_NETCORE_PIPE_ANONYMOUS_READ_PARAMENT);
    EXPECT_FALSE(NetCore_PIPAnonymous_Write("p", nullptr, 1));
    ExpectFailure(ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_PARAMENT);
    EXPECT_FALSE(NetCore_PIPAnonymous_Read("unknown", buffer, &len));
    ExpectFailure(ERROR_NETCORE_PIPE_ANONYMOUS_READ_NOTFOUND);
    EXPECT_FALSE(NetCore_PIPAnonymous_Write("unknown", "x", 1));
    ExpectFailure(ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_NOTFOUND);
    EXPECT_TRUE(NetCore_PIPAnonymous_Close("unknown"));
    EXPECT_FALSE(ErrorFlag());
}

TEST_F(PipeTest, AnonymousWriteThenReadAndCloseReleasesBothEnds) {
    int fds = nctest::CountOpenFds();
    unsigned long reserved = 7;
    ASSERT_TRUE(NetCore_PIPAnonymous_Create("a", &reserved));
    EXPECT_EQ(fds + 2, nctest::CountOpenFds());
    // a second Create under the same name keeps the first pipe and leaks nothing
    ASSERT_TRUE(NetCore_PIPAnonymous_Create("a", nullptr));
    EXPECT_EQ(fds + 2, nctest::CountOpenFds());

    ASSERT_TRUE(NetCore_PIPAnonymous_Write("a", "hello", 5));
    EXPECT_FALSE(ErrorFlag());
    char buffer[64] = {};
    int len = sizeof(buffer);
    ASSERT_TRUE(NetCore_PIPAnonymous_Read("a", buffer, &len));
    EXPECT_EQ(5, len);
    EXPECT_STREQ("hello", buffer);

    // a negative length is refused the way read() and write() refuse a bad argument
    int sysError = 0;
    len = -1;
    EXPECT_FALSE(NetCore_PIPAnonymous_Read("a", buffer, &len));
    ExpectFailure(ERROR_NETCORE_PIPE_ANONYMOUS_READ_FAILED);
    EXPECT_FALSE(NetCore_PIPAnonymous_Write("a", buffer, -1));
    NetCore_GetLastError(&sysError);
    ExpectFailure(ERROR_NETCORE_PIPE_ANONYMOUS_WRITE_FAILED);
    EXPECT_EQ(EINVAL, sysError);

    EXPECT_TRUE(NetCore_PIPAnonymous_Close("a"));
    EXPECT_EQ(fds, nctest::CountOpenFds());
    len = sizeof(buffer);
    EXPECT_FALSE(NetCore_PIPAnonymous_Read("a", buffer, &len));
    ExpectFailure(ERROR_NETCORE_PIPE_ANONYMOUS_READ_NOTFOUND);
}

TEST_F(PipeTest, AnonymousReadBlocksUntilAChildWrites) {
    ASSERT_TRUE(NetCore_PIPAnonymous_Create("child", nullptr));
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    pid_t child = localtest::ForkChild([&] {
        // the child writes through its copy of the name once the parent is reading
        char go;
        if (read(ready[0], &go, 1) != 1) return 1;
        return NetCore_PIPAnonymous_Write("child", "from child", 10) ? 0 : 2;
    });
    close(ready[0]);
    ASSERT_EQ(1, write(ready[1], "g", 1));
    close(ready[1]);
    char buffer[32] = {};
    int len = sizeof(buffer);
    EXPECT_TRUE(NetCore_PIPAnonymous_Read("child", buffer, &len));
    EXPECT_EQ(10, len);
    EXPECT_STREQ("from child", buffer);
    EXPECT_EQ(0, localtest::WaitChild(child));
    EXPECT_TRUE(NetCore_PIPAnonymous_Close("child"));
}

// ----- named pipes (FIFOs) -----------------------------------------------------------------------

TEST_F(PipeTest, NamedArgumentsAndUnknownPaths) {
    char buffer[8];
    int len = sizeof(buffer);
    EXPECT_FALSE(NetCore_PIPNamed_Create(nullptr));
    ExpectFailure(ERROR_NETCORE_PIPE_NAMED_PARAMENT);
    EXPECT_FALSE(NetCore_PIPNamed_OPen(nullptr));
    ExpectFailure(ERROR_NETCORE_PIPE_NAMED_OPEN_PARAMENT);
    TempPath missing("fifo");
    EXPECT_FALSE(NetCore_PIPNamed_OPen(missing.c_str()));
    ExpectFailure(ERROR_NETCORE_PIPE_NAMED_OPEN_FAILED);
    EXPECT_FALSE(NetCore_PIPNamed_WaitConnect(nullptr));
    ExpectFailure(ERROR_NETCORE_PIPE_NAMED_WAIT_PARAMENT);
    EXPECT_TRUE(NetCore_PIPNamed_WaitConnect("anything"));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_FALSE(NetCore_PIPNamed_Read(nullptr, buffer, &len));
    ExpectFailure(ERROR_NETCORE_PIPE_NAMED_READ_PARAMENT);
    EXPECT_FALSE(NetCore_PIPNamed_Write("x", nullptr, 1));
    ExpectFailure(ERROR_NETCORE_PIPE_NAMED_WRITE_PARAMENT);
    EXPECT_FALSE(NetCore_PIPNamed_Read("x", buffer, &len));
    ExpectFailure(ERROR_NETCORE_PIPE_NAMED_READ_NOTFOUND);
    EXPECT_FALSE(NetCore_PIPNamed_Write("x", "y", 1));
    ExpectFailure(ERROR_NETCORE_PIPE_NAMED_WRITE_NOTFOUND);
}

TEST_F(PipeTest, NamedCreateMakesAFifoAndFailsOnAnExistingPathUntilClosed) {
    TempPath path("fifo");
    ASSERT_TRUE(NetCore_PIPNamed_Create(path.c_str()));
    EXPECT_TRUE(ErrorFlag()) << "Create leaves the flag set even when it succeeds";
    EXPECT_EQ(static_cast<mode_t>(S_IFIFO), path.Type());

    EXPECT_EQ(0ULL, NetCore_GetLastError(nullptr)) << "no code is written by the successful Create";
    EXPECT_FALSE(NetCore_PIPNamed_Create(path.c_str()));
    ExpectFailure(ERROR_NETCORE_PIPE_NAMED_MKFIFO);

    // nothing in it yet: the non-blocking read fails at once
    char buffer[32] = {};
    int len = sizeof(buffer);
    int sysError = 0;
    EXPECT_FALSE(NetCore_PIPNamed_Read(path.c_str(), buffer, &len));
    NetCore_GetLastError(&sysError);
    ExpectFailure(ERROR_NETCORE_PIPE_NAMED_READ_FAILED);
    EXPECT_EQ(EAGAIN, sysError);

    EXPECT_TRUE(NetCore_PIPNamed_Write(path.c_str(), "fifo data", 9));
    EXPECT_FALSE(ErrorFlag());
    ASSERT_TRUE(NetCore_PIPNamed_Read(path.c_str(), buffer, &len));
    EXPECT_EQ(9, len);
    EXPECT_STREQ("fifo data", buffer);

    // Close by any name closes the one stored FIFO and, as its creator, unlinks it
    EXPECT_TRUE(NetCore_PIPNamed_Close("some other name"));
    EXPECT_FALSE(path.Exists());
    EXPECT_FALSE(NetCore_PIPNamed_Write(path.c_str(), "x", 1));
    ExpectFailure(ERROR_NETCORE_PIPE_NAMED_WRITE_NOTFOUND);
    ASSERT_TRUE(NetCore_PIPNamed_Create(path.c_str()));
    EXPECT_TRUE(NetCore_PIPNamed_Close(nullptr));
}

TEST_F(PipeTest, NamedCloseTakesTheFirstStoredFifoWhateverThePath) {
    TempPath first("fifo"), second("fifo");
    ASSERT_TRUE(NetCore_PIPNamed_Create(first.c_str()));
    ASSERT_TRUE(NetCore_PIPNamed_Create(second.c_str()));
    EXPECT_TRUE(NetCore_PIPNamed_Close(first.c_str()));
    // exactly one of the two is gone, whichever the table holds first
    EXPECT_EQ(1, first.Exists() + second.Exists());
    EXPECT_TRUE(NetCore_PIPNamed_Close("no such fifo"));
    EXPECT_FALSE(first.Exists());
    EXPECT_FALSE(second.Exists());
    EXPECT_TRUE(NetCore_PIPNamed_Close(first.c_str()));  // empty table: nothing to do
}

TEST_F(PipeTest, NamedFifoCarriesDataFromAnotherProcess) {
    TempPath path("fifo");
    // A FIFO's data goes when its last opener closes it: the child keeps its end open until the
    // parent, which may open the FIFO only after the child has written, has read (or gone).
    int gate[2];
    ASSERT_EQ(0, pipe(gate));
    nctest::Fd gateRead(gate[0]), gateWrite(gate[1]);
    pid_t child = localtest::ForkChild([&] {
        gateWrite.Reset();
        // the child opens the parent's FIFO by path and writes into it
        if (!localtest::ChildWait([&] { return path.Type() == S_IFIFO; })) return 1;
        if (!NetCore_PIPNamed_OPen(path.c_str())) return 2;
        if (!NetCore_PIPNamed_Write(path.c_str(), "over the fifo", 13)) return 3;
        char done;
        if (read(gateRead.Get(), &done, 1) < 0) return 5;
        // the opener's Close leaves the path alone
        NetCore_PIPNamed_Close(path.c_str());
        return path.Type() == S_IFIFO ? 0 : 4;
    });
    gateRead.Reset();
    ASSERT_TRUE(NetCore_PIPNamed_Create(path.c_str()));
    char buffer[32] = {};
    int len = 0;
    EXPECT_TRUE(nctest::WaitFor([&] {
        len = sizeof(buffer);
        return NetCore_PIPNamed_Read(path.c_str(), buffer, &len);
    }));
    gateWrite.Reset();
    EXPECT_EQ(13, len);
    EXPECT_STREQ("over the fifo", buffer);
    EXPECT_EQ(0, localtest::WaitChild(child));
    EXPECT_TRUE(NetCore_PIPNamed_Close(path.c_str()));
    EXPECT_FALSE(path.Exists());
}

// ----- mailslots ---------------------------------------------------------------------------------

TEST_F(PipeTest, MailSlotKeepsNamesAndMovesNoData) {
    CNetCore_PIPMailSlot mailSlot;
    char buffer[8] = {'u', 'n', 't', 'o', 'u', 'c', 'h', 0};
    int len = 5;
    EXPECT_FALSE(mailSlot.NetCore_PIPMailSlot_Create(nullptr));
    ExpectFailure(ERROR_NETCORE_PIPE_MAILSLOT_PARAMENT);
    EXPECT_FALSE(mailSlot.NetCore_PIPMailSlot_OPen(nullptr));
    ExpectFailure(ERROR_NETCORE_PIPE_MAILSLOT_OPEN_PARAMENT);
    EXPECT_FALSE(mailSlot.NetCore_PIPMailSlot_Read("slot", nullptr, &len));
    ExpectFailure(ERROR_NETCORE_PIPE_MAILSLOT_READ_PARAMENT);
    EXPECT_FALSE(mailSlot.NetCore_PIPMailSlot_Read("slot", buffer, &len));
    ExpectFailure(ERROR_NETCORE_PIPE_MAILSLOT_READ_NOTFOUND);
    EXPECT_FALSE(mailSlot.NetCore_PIPMailSlot_Write(nullptr, "x", 1));
    ExpectFailure(ERROR_NETCORE_PIPE_MAILSLOT_WRITE_PARAMENT);
    EXPECT_FALSE(mailSlot.NetCore_PIPMailSlot_Write("slot", "x", 1));
    ExpectFailure(ERROR_NETCORE_PIPE_MAILSLOT_WRITE_NOTFOUND);

    ASSERT_TRUE(mailSlot.NetCore_PIPMailSlot_Create("slot"));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_TRUE(mailSlot.NetCore_PIPMailSlot_Write("slot", "payload", 7));
    EXPECT_TRUE(mailSlot.NetCore_PIPMailSlot_Read("slot", buffer, &len));
    EXPECT_TRUE(ErrorFlag()) << "Read leaves the flag set even when it succeeds";
    EXPECT_EQ(5, len);
    EXPECT_STREQ("untouch", buffer);

    // OPen registers a name of its own
    ASSERT_TRUE(mailSlot.NetCore_PIPMailSlot_OPen("other"));
    EXPECT_TRUE(mailSlot.NetCore_PIPMailSlot_Write("other", "x", 1));

    int maxSize = 11, nextSize = 12, count = 13;
    EXPECT_FALSE(mailSlot.NetCore_PIPMailSlot_SetAttr(nullptr, 1, 2));
    ExpectFailure(ERROR_NETCORE_PIPE_MAILSLOT_SETATTR_PARAMENT);
    EXPECT_FALSE(mailSlot.NetCore_PIPMailSlot_GetAttr(nullptr, &maxSize, &nextSize, &count));
    ExpectFailure(ERROR_NETCORE_PIPE_MAILSLOT_GETATTR_PARAMENT);
    EXPECT_TRUE(mailSlot.NetCore_PIPMailSlot_SetAttr("slot", 1, 2));
    EXPECT_TRUE(mailSlot.NetCore_PIPMailSlot_GetAttr("slot", &maxSize, &nextSize, &count));
    EXPECT_EQ(11, maxSize);
    EXPECT_EQ(12, nextSize);
    EXPECT_EQ(13, count);

    EXPECT_TRUE(mailSlot.NetCore_PIPMailSlot_Close("slot"));
    EXPECT_TRUE(mailSlot.NetCore_PIPMailSlot_Close("never there"));
    EXPECT_FALSE(mailSlot.NetCore_PIPMailSlot_Write("slot", "x", 1));
    ExpectFailure(ERROR_NETCORE_PIPE_MAILSLOT_WRITE_NOTFOUND);
}

}  // namespace
