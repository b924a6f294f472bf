// The mount table as zorvd reads it, and which network or FUSE mounts it
// reports as run from unseen. Pure functions over text: no root, no mounts.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "Mounts.h"

namespace {

using zorvd::MountEntry;

std::vector<MountEntry> Parse(const std::string& text) {
    std::istringstream table(text);
    return zorvd::ParseMountInfo(table);
}

TEST(ZorvdMounts, MountInfoLinesGiveTheirPointAndType) {
    const std::vector<MountEntry> mounts = Parse(
        "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
        // No optional fields at all.
        "23 22 0:5 / /proc rw,nosuid - proc proc rw\n"
        // Several optional fields, and a point with a space, a tab and a backslash.
        "40 22 0:40 / /media/usb\\040stick\\011x\\134y rw shared:7 master:2 - vfat /dev/sdb1 rw\n"
        // Not a mount line: skipped, the rest still read.
        "garbage\n"
        "41 22 0:41 / /home rw - nfs4 server:/home rw\n");
    ASSERT_EQ(mounts.size(), 4u);
    EXPECT_EQ(mounts[0].point, "/");
    EXPECT_EQ(mounts[0].type, "ext4");
    EXPECT_EQ(mounts[1].type, "proc");
    EXPECT_EQ(mounts[2].point, "/media/usb stick\tx\\y");
    EXPECT_EQ(mounts[2].type, "vfat");
    EXPECT_EQ(mounts[3].type, "nfs4");
}

TEST(ZorvdMounts, NetworkAndFuseMountsInTheWatchedTreeThatNoWatchPathNamesAreReported) {
    const std::vector<MountEntry> mounts = {{"/", "ext4"},           {"/home", "nfs4"},
                                            {"/srv/share", "cifs"},  {"/home/alice/remote", "fuse.sshfs"},
                                            {"/proc", "proc"},       {"/mnt/data", "xfs"}};
    const struct {
        std::vector<std::string> watch, ignore;
        std::vector<std::string> reported;
    } cases[] = {
        // Every local filesystem watched: every network or FUSE one is a way around.
        {{}, {}, {"/home", "/srv/share", "/home/alice/remote"}},
        // A watch path on it, or below its mount point, has it marked.
        {{"/home"}, {}, {"/home/alice/remote"}},
        {{"/home/alice"}, {}, {"/home/alice/remote"}},
        // Outside a narrower watched tree: the operator's choice, not a gap.
        {{"/srv"}, {}, {"/srv/share"}},
        {{"/mnt/data"}, {}, {}},
        // Left out on purpose.
        {{}, {"/home"}, {"/srv/share"}},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        std::vector<std::string> reported;
        for (const MountEntry& mount : zorvd::UnwatchedRemoteMounts(mounts, cases[i].watch, cases[i].ignore))
            reported.push_back(mount.point);
        EXPECT_EQ(reported, cases[i].reported) << "case " << i;
    }
}

}  // namespace
