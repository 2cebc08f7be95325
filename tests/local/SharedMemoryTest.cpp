// Memory-mapped regions and System V segments, shared with forked processes.
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>

#include "ExecMemoryPolicy.h"
#include "LocalTestSupport.h"

namespace {

using localtest::ExpectFailure;
using localtest::TempPath;
using nctest::ErrorFlag;

// Removes a segment a failed test would otherwise leave in the system.
class SegmentGuard {
public:
    explicit SegmentGuard(int id) : m_id(id) {}
    ~SegmentGuard() {
        if (m_id != -1) shmctl(m_id, IPC_RMID, nullptr);
    }
    SegmentGuard(const SegmentGuard&) = delete;
    SegmentGuard& operator=(const SegmentGuard&) = delete;

private:
    int m_id;
};

bool SegmentExists(int id) {
    shmid_ds info{};
    return shmctl(id, IPC_STAT, &info) == 0;
}

class SharedMemoryTest : public nctest::NetCoreTest {};

// ----- memory-mapped regions ---------------------------------------------------------------------

TEST_F(SharedMemoryTest, MappedRegionIsWrittenAndReadAtOffsets) {
    EXPECT_FALSE(NetCore_PIPMMap_Create(nullptr, nullptr, 4096));
    ExpectFailure(ERROR_NETCORE_PIPE_MMAP_PARAMENT);

    ASSERT_TRUE(NetCore_PIPMMap_Create("region", nullptr, 4096));
    EXPECT_FALSE(ErrorFlag());
    char first[] = "first", second[] = "second";
    EXPECT_TRUE(NetCore_PIPMMap_Write("region", first, 5, 0));
    EXPECT_TRUE(ErrorFlag()) << "Write leaves the flag set even when it succeeds";
    EXPECT_TRUE(NetCore_PIPMMap_Write("region", second, 6, 4000));

    char buffer[16] = {};
    EXPECT_TRUE(NetCore_PIPMMap_Read("region", buffer, 6, 4000));
    EXPECT_FALSE(ErrorFlag());
    EXPECT_STREQ("second", buffer);
    memset(buffer, 0, sizeof(buffer));
    EXPECT_TRUE(NetCore_PIPMMap_Read("region", buffer, 3, 2));
    EXPECT_STREQ("rst", buffer);

    // the pointer reaches the same bytes, and stays valid until Close
    auto* base = static_cast<char*>(NetCore_PIPMMap_GetPointer("region"));
    ASSERT_NE(nullptr, base);
    EXPECT_EQ(0, memcmp(base, "first", 5));
    EXPECT_EQ(0, memcmp(base + 4000, "second", 6));
    base[100] = 'p';
    EXPECT_TRUE(NetCore_PIPMMap_FreePointer("region"));
    EXPECT_TRUE(NetCore_PIPMMap_OPen("region"));
    EXPECT_TRUE(NetCore_PIPMMap_Read("region", buffer, 1, 100));
    EXPECT_EQ('p', buffer[0]);

    // a second Create under the name keeps the region and its bytes
    EXPECT_TRUE(NetCore_PIPMMap_Create("region", nullptr, 8192));
    EXPECT_EQ(base, NetCore_PIPMMap_GetPointer("region"));

    EXPECT_TRUE(NetCore_PIPMMap_Close("region"));
    EXPECT_FALSE(NetCore_PIPMMap_Read("region", buffer, 1, 0));
    ExpectFailure(ERROR_NETCORE_PIPE_MMAP_READ_NOTFOUND);
    EXPECT_TRUE(NetCore_PIPMMap_Close("region"));
}

TEST_F(SharedMemoryTest, MappedRegionCodesKeepTheirShortForm) {
    char buffer[4] = {};
    EXPECT_FALSE(NetCore_PIPMMap_Write(nullptr, buffer, 1, 0));
    ExpectFailure(ERROR_NETCORE_PIPE_MMAP_WRITE_PARAMENT);
    EXPECT_FALSE(NetCore_PIPMMap_Write("none", buffer, 1, 0));
    ExpectFailure(0x020A1111);
    EXPECT_FALSE(NetCore_PIPMMap_Read("none", nullptr, 1, 0));
    ExpectFailure(0x0020A120);
    EXPECT_FALSE(NetCore_PIPMMap_Read("none", buffer, 1, 0));
    ExpectFailure(0x0020A121);
    EXPECT_FALSE(NetCore_PIPMMap_OPen(nullptr));
    ExpectFailure(0x0020A130);
    EXPECT_EQ(nullptr, NetCore_PIPMMap_GetPointer(nullptr));
    ExpectFailure(0x0020A140);
    EXPECT_EQ(nullptr, NetCore_PIPMMap_GetPointer("none"));
    ExpectFailure(0x0020A141);
    EXPECT_FALSE(NetCore_PIPMMap_FreePointer(nullptr));
    ExpectFailure(0x0020A150);
}

TEST_F(SharedMemoryTest, AccessPastTheRegionIsNotRefusedAndTouchesNothingOutsideTheMapping) {
    const int nPage = static_cast<int>(sysconf(_SC_PAGESIZE));
    ASSERT_TRUE(NetCore_PIPMMap_Create("small", nullptr, 100));
    char data[64];
    memset(data, 'd', sizeof(data));
    EXPECT_TRUE(NetCore_PIPMMap_Write("small", data, 64, 80));          // past the size, inside the page
    EXPECT_TRUE(NetCore_PIPMMap_Write("small", data, 64, nPage - 32));  // straddles the mapping's end
    EXPECT_TRUE(NetCore_PIPMMap_Write("small", data, 64, 1 << 30));     // far beyond
    EXPECT_TRUE(NetCore_PIPMMap_Write("small", data, 64, -32));         // straddles the start
    EXPECT_TRUE(NetCore_PIPMMap_Write("small", data, -5, 0));

    char back[64];
    memset(back, 'x', sizeof(back));
    EXPECT_TRUE(NetCore_PIPMMap_Read("small", back, 64, 80));
    EXPECT_EQ(std::string(64, 'd'), std::string(back, 64));
    EXPECT_TRUE(NetCore_PIPMMap_Read("small", back, 64, nPage - 32));
    EXPECT_EQ(std::string(32, 'd') + std::string(32, '\0'), std::string(back, 64));
    EXPECT_TRUE(NetCore_PIPMMap_Read("small", back, 4, 0));
    EXPECT_EQ("dddd", std::string(back, 4));
    EXPECT_TRUE(NetCore_PIPMMap_Close("small"));
}

TEST_F(SharedMemoryTest, RegionNamedWithAFileCreatesTheFileButNeverWritesIt) {
    TempPath file("mmap");
    ASSERT_TRUE(NetCore_PIPMMap_Create("filed", file.c_str(), 4096));
    EXPECT_EQ(static_cast<mode_t>(S_IFREG), file.Type());
    char data[] = "not in the file";
    EXPECT_TRUE(NetCore_PIPMMap_Write("filed", data, sizeof(data), 0));
    struct stat st {};
    ASSERT_EQ(0, stat(file.c_str(), &st));
    EXPECT_EQ(0, st.st_size);
    EXPECT_TRUE(NetCore_PIPMMap_Close("filed"));  // closes the file too (checked by the fixture)

    TempPath dir("mmapdir");
    std::string inMissingDir = std::string(dir.c_str()) + "/file";
    EXPECT_FALSE(NetCore_PIPMMap_Create("nofile", inMissingDir.c_str(), 4096));
    ExpectFailure(ERROR_NETCORE_PIPE_MMAP_OPENFILE);
    EXPECT_EQ(nullptr, NetCore_PIPMMap_GetPointer("nofile"));
}

// Also where executable memory is refused: the region is then mapped without it and works alike.
TEST_F(SharedMemoryTest, MappedRegionIsSharedWithAForkedChild) {
    for (bool refuseExec : {false, true}) {
        SCOPED_TRACE(refuseExec ? "executable memory refused" : "executable memory allowed");
        std::optional<localtest::RefuseExecutableMappings> policy;
        if (refuseExec) policy.emplace();
        ASSERT_TRUE(NetCore_PIPMMap_Create("shared", nullptr, 4096));
        EXPECT_FALSE(ErrorFlag());
        EXPECT_EQ(refuseExec ? 1 : 0, policy ? policy->Refused() : 0);
        pid_t child = localtest::ForkChild([] {
            char data[] = "written by the child";
            return NetCore_PIPMMap_Write("shared", data, sizeof(data), 128) ? 0 : 1;
        });
        EXPECT_EQ(0, localtest::WaitChild(child));
        char buffer[32] = {};
        EXPECT_TRUE(NetCore_PIPMMap_Read("shared", buffer, sizeof("written by the child"), 128));
        EXPECT_STREQ("written by the child", buffer);
        EXPECT_TRUE(NetCore_PIPMMap_Close("shared"));
    }
}

// ----- System V segments -------------------------------------------------------------------------

TEST_F(SharedMemoryTest, SegmentSizeMustBeWholePages) {
    int page = getpagesize();
    int id = -1;
    EXPECT_FALSE(NetCore_PIPIpc_Create(nullptr, page));
    ExpectFailure(ERROR_NETCORE_PIPE_IPC_PARAMENT);
    EXPECT_FALSE(NetCore_PIPIpc_Create(&id, page + 1));
    ExpectFailure(ERROR_NETCORE_PIPE_IPC_SIZE);
    EXPECT_FALSE(NetCore_PIPIpc_Create(&id, 0));
    ExpectFailure(ERROR_NETCORE_PIPE_IPC_SHMGET);
    EXPECT_EQ(-1, id);

    ASSERT_TRUE(NetCore_PIPIpc_Create(&id, page));
    SegmentGuard guard(id);
    EXPECT_FALSE(ErrorFlag());
    shmid_ds info{};
    ASSERT_EQ(0, shmctl(id, IPC_STAT, &info));
    EXPECT_EQ(static_cast<size_t>(page), info.shm_segsz);
    EXPECT_EQ(0600u, info.shm_perm.mode & 0777u);
    EXPECT_TRUE(NetCore_PIPIpc_Close(id));
    EXPECT_FALSE(SegmentExists(id));
}

TEST_F(SharedMemoryTest, SegmentIsAttachedByAChildDetachedAndRemoved) {
    int id = -1;
    ASSERT_TRUE(NetCore_PIPIpc_Create(&id, 2 * getpagesize()));
    SegmentGuard guard(id);
    auto* base = static_cast<char*>(NetCore_PIPIpc_Get(id));
    ASSERT_NE(reinterpret_cast<void*>(-1), base);
    EXPECT_FALSE(ErrorFlag());
    strcpy(base, "from the parent");

    pid_t child = localtest::ForkChild([id] {
        // a separate attachment in the child, by the identifier it inherited
        auto* own = static_cast<char*>(NetCore_PIPIpc_Get(id));
        if (own == reinterpret_cast<void*>(-1)) return 1;
        if (strcmp(own, "from the parent") != 0) return 2;
        strcpy(own + 4096, "from the child");
        NetCore_PIPIpc_Free(own);
        return 0;
    });
    EXPECT_EQ(0, localtest::WaitChild(child));
    EXPECT_STREQ("from the child", base + 4096);

    EXPECT_TRUE(NetCore_PIPIpc_Free(base));
    EXPECT_TRUE(NetCore_PIPIpc_Free(base)) << "Free is true whatever shmdt says";
    EXPECT_TRUE(NetCore_PIPIpc_Close(id));
    EXPECT_FALSE(SegmentExists(id));
    EXPECT_TRUE(NetCore_PIPIpc_Close(id));
    // attaching a removed segment hands back shmat's failure value, with no code
    EXPECT_EQ(reinterpret_cast<void*>(-1), NetCore_PIPIpc_Get(id));
    EXPECT_FALSE(ErrorFlag());
}

TEST_F(SharedMemoryTest, OpenLooksASegmentUpByKey) {
    // a key of this process's own, unlikely to be taken by another process
    key_t key = static_cast<key_t>(0x4E430000 | (getpid() & 0xFFFF));
    int id = shmget(key, 4096, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_NE(-1, id) << "key in use: " << key;
    SegmentGuard guard(id);
    EXPECT_TRUE(NetCore_PIPIpc_OPen(key));
    EXPECT_FALSE(ErrorFlag());
    ASSERT_EQ(0, shmctl(id, IPC_RMID, nullptr));
    EXPECT_FALSE(NetCore_PIPIpc_OPen(key));
    ExpectFailure(ERROR_NETCORE_PIPE_IPC_OPEN);
}

}  // namespace
