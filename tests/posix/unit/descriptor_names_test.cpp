// Hunts a reader that hangs at, or follows, what bears a region's name and isn't one.

#include "support/Descriptors.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

TEST(DescriptorNames, MayBeThoseOfAPipeOrALinkAndMapNothing)
{
    const LogCapture quiet(0);
    const std::string file = "/dev/shm/" + own + "3";
    for (const bool hangs : {true, false}) {
        EXPECT_EQ(hangs ? mkfifo(file.c_str(), 0644) : symlink("/etc/passwd", file.c_str()), 0);
        MEM_PagerInfo piece = Adopt(*MEM_MemPager::GetHandle(), Descriptor(0, 1, 0, 1, own + "3"));
        EXPECT_TRUE(piece.IsValid()) << hangs;
        EXPECT_EQ(piece.Map(), -1) << hangs;
        EXPECT_EQ(unlink(file.c_str()), 0);
    }
}
