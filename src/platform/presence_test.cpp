#include "platform/presence.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/errors.h"
#include "support/scratch_names.h"

namespace orlenda::platform {
namespace {

class PresenceTest : public testing::ScratchNameTest {
 protected:
  // A run folder that does not exist yet: Acquire has to create it.
  PresenceTest() { run_below_ = "/run"; }
};

TEST_F(PresenceTest, HeldOnlyWhileAcquired) {
  EXPECT_FALSE(IsPresenceHeld(name()));
  PresenceObject presence;
  EXPECT_FALSE(presence.held());
  ASSERT_EQ(presence.Acquire(name()), kErrorSuccess);
  EXPECT_TRUE(presence.held());
  EXPECT_TRUE(IsPresenceHeld(name()));
  EXPECT_TRUE(IsPresenceHeld(name())) << "asking must not disturb the holder";

  presence.Release();
  EXPECT_FALSE(presence.held());
  EXPECT_FALSE(IsPresenceHeld(name()));

  // Taken again after release, and given back by the destructor.
  {
    PresenceObject again;
    ASSERT_EQ(again.Acquire(name()), kErrorSuccess);
    EXPECT_TRUE(IsPresenceHeld(name()));
  }
  EXPECT_FALSE(IsPresenceHeld(name()));
}

TEST_F(PresenceTest, SecondHolderInSameProcessIsRefused) {
  PresenceObject first;
  ASSERT_EQ(first.Acquire(name()), kErrorSuccess);
  PresenceObject second;
  EXPECT_EQ(second.Acquire(name()), kErrorAlreadyExists);
  EXPECT_FALSE(second.held());
  EXPECT_TRUE(IsPresenceHeld(name()));
  second.Release();  // releasing what it never had changes nothing
  EXPECT_TRUE(IsPresenceHeld(name()));

  first.Release();
  EXPECT_EQ(second.Acquire(name()), kErrorSuccess);
  EXPECT_TRUE(second.held());
}

TEST_F(PresenceTest, NamesAreIndependent) {
  std::u16string other = name_ + u"-other";
  PresenceObject presence;
  ASSERT_EQ(presence.Acquire(name()), kErrorSuccess);
  EXPECT_FALSE(IsPresenceHeld(other.c_str()));
  PresenceObject other_presence;
  EXPECT_EQ(other_presence.Acquire(other.c_str()), kErrorSuccess);
}

}  // namespace
}  // namespace orlenda::platform
