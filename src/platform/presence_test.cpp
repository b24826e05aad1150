#include "platform/presence.h"

#include <gtest/gtest.h>

#include <memory>
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

TEST_F(PresenceTest, HeldOnlyWhileAcquiredAndByOneHolderAtATime) {
  const std::u16string other = name_ + u"-other";
  EXPECT_FALSE(IsPresenceHeld(name()));
  PresenceObject first, third;
  auto second = std::make_unique<PresenceObject>();
  ASSERT_EQ(first.Acquire(name()), kErrorSuccess);
  EXPECT_TRUE(first.held());
  EXPECT_TRUE(IsPresenceHeld(name()));
  EXPECT_EQ(second->Acquire(name()), kErrorAlreadyExists);
  EXPECT_FALSE(second->held());
  second->Release();  // releasing what it never had changes nothing, and asking disturbs no holder
  EXPECT_TRUE(IsPresenceHeld(name()));
  EXPECT_FALSE(IsPresenceHeld(other.c_str()));  // names are independent
  EXPECT_EQ(third.Acquire(other.c_str()), kErrorSuccess);

  first.Release();
  EXPECT_FALSE(first.held());
  EXPECT_FALSE(IsPresenceHeld(name()));
  // The refused one takes it now, and its destructor gives it back.
  EXPECT_EQ(second->Acquire(name()), kErrorSuccess);
  EXPECT_TRUE(IsPresenceHeld(name()));
  second.reset();
  EXPECT_FALSE(IsPresenceHeld(name()));
}

}  // namespace
}  // namespace orlenda::platform
