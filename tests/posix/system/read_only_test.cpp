// Hunts a reader of a foreign piece that can write to it, by a store or by new rights for its view.

#include "posix/support/Children.h"
#include "support/SharedPieces.h"

#include <sys/mman.h>

namespace
{
/// By a second process, and by a third one of another user.
TEST(SharedPieces, CanBeReadButNotWritten)
{
    Maker maker;
    for (const bool by_another_user : {false, true})
        EXPECT_EQ(-SIGSEGV, InChild([&] {
            if (by_another_user)
                CHILD_CHECK(GiveUpRights());
            Pieces pieces(maker.descriptors);
            CHILD_CHECK(pieces.HoldAnew());
            CHILD_CHECK(pieces.Map());
            void* const page = pieces.all[3].GetMemInfoPtr()->Owner()->Ptr();
            CHILD_CHECK(mprotect(page, 4096, PROT_READ | PROT_WRITE) != 0);
            signal(SIGSEGV, SIG_DFL); // no sanitizer's
            *pieces.At(3) = 0;
            return 0;
        }));
}
} // namespace
