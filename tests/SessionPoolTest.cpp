// The session numbers: which number a session takes and gets back, and how many numbers the
// descriptor limits allow.
#include "SessionPool.h"

#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include <gtest/gtest.h>

namespace {

using Numbers = std::set<unsigned int>;
using End = SessionPool::End;

// Monitoring sessions take from the top, all others from the bottom; a number given back is
// free again, and a fresh fill forgets the numbers in use.
TEST(SessionPoolTest, NumbersComeFromEitherEndAndGoBack) {
  SessionPool pool;
  pool.Fill(5);
  EXPECT_TRUE(pool.IsIdle());
  EXPECT_EQ(pool.Take(End::kBottom), 0u);
  EXPECT_EQ(pool.Take(End::kTop), 4u);
  EXPECT_EQ(pool.Take(End::kBottom), 1u);
  EXPECT_FALSE(pool.IsIdle());
  EXPECT_EQ(pool.GetUsed(), (Numbers{0, 1, 4}));
  EXPECT_EQ(pool.GetFree(), (Numbers{2, 3}));
  pool.Give(0);
  pool.Give(4);
  EXPECT_EQ(pool.Take(End::kBottom), 0u);
  EXPECT_EQ(pool.Take(End::kTop), 4u);
  EXPECT_EQ(pool.Take(End::kTop), 3u);
  EXPECT_EQ(pool.Take(End::kTop), 2u);
  EXPECT_FALSE(pool.HasFree());
  pool.Fill(2);
  EXPECT_TRUE(pool.IsIdle());
  EXPECT_EQ(pool.GetFree(), (Numbers{0, 1}));
  for (const int size : {0, -3}) {
    pool.Fill(size);
    EXPECT_FALSE(pool.HasFree()) << size;
  }
}

// Seven descriptors of the daemon's own and one per listener; two per session within 1024.
TEST(SessionPoolTest, FullPoolFitsTwoDescriptorsPerSessionBesidesTheFixedOnes) {
  struct Case {
    std::size_t listeners;
    int fixed;
    int full;
  };
  for (const Case& c : {Case{0, 7, 508}, Case{1, 8, 508}, Case{2, 9, 507}, Case{3, 10, 507},
                        Case{1015, 1022, 1}, Case{1016, 1023, 0}, Case{2000, 2007, 0}}) {
    EXPECT_EQ(SessionPool::GetFixedDescriptors(c.listeners), c.fixed) << c.listeners;
    EXPECT_EQ(SessionPool::GetFullPoolSize(c.listeners), c.full) << c.listeners;
  }
}

// Run in a child, whose limits may be lowered for good: with soft and hard limit at 100, prints
// what FitDescriptorLimit reports and exits 0 when the pool holds 46 sessions before and after.
void FitUnderLowHardLimit() {
  rlimit low{};
  low.rlim_cur = low.rlim_max = 100;
  if (::setrlimit(RLIMIT_NOFILE, &low) != 0) std::_Exit(2);
  const int pool = SessionPool::GetPoolSize(1);
  std::fputs((SessionPool::FitDescriptorLimit(1) + "\n").c_str(), stderr);
  std::_Exit(pool == 46 && SessionPool::GetPoolSize(1) == 46 ? 0 : 1);
}

// A hard limit below what the full pool needs leaves the smaller pool, and the start-up message
// says so.
TEST(SessionPoolTest, HardLimitTooLowForTheFullPoolLeavesTheSmallerOne) {
  EXPECT_EXIT(FitUnderLowHardLimit(), ::testing::ExitedWithCode(0),
              "^descriptor limit 100 \\(hard limit 100\\) holds only 46 sessions; raise it to "
              "1024 for all 508\n$");
}

}  // namespace
