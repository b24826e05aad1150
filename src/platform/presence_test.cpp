#include "platform/presence.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>

#include "platform/errors.h"
#include "platform/thread.h"

#ifndef _WIN32
#include <unistd.h>

#include <cstdlib>
#endif

namespace orlenda::platform {
namespace {

class PresenceTest : public ::testing::Test {
 protected:
  void SetUp() override {
#ifndef _WIN32
    char dir[] = "/tmp/orlq-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    run_dir_ = dir;
    // A directory that does not exist yet: Acquire has to create it.
    setenv("ORLENDA_RUN_DIR", (run_dir_ + "/run").c_str(), 1);
#endif
    static std::atomic<int> counter{0};
    char name[64];
    std::snprintf(name, sizeof(name), "orl-presence-%u-%d",
                  static_cast<unsigned>(CurrentProcessId()), ++counter);
    for (const char* c = name; *c != 0; ++c) name_.push_back(static_cast<char16_t>(*c));
  }

  void TearDown() override {
#ifndef _WIN32
    std::string file = run_dir_ + "/run/" + std::string(name_.begin(), name_.end());
    unlink(file.c_str());
    rmdir((run_dir_ + "/run").c_str());
    rmdir(run_dir_.c_str());
    unsetenv("ORLENDA_RUN_DIR");
#endif
  }

  const char16_t* name() const { return name_.c_str(); }

  std::u16string name_;
  std::string run_dir_;
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
#ifndef _WIN32
  other_presence.Release();
  unlink((run_dir_ + "/run/" + std::string(other.begin(), other.end())).c_str());
#endif
}

}  // namespace
}  // namespace orlenda::platform
