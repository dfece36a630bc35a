#include <csl/fs_cache.hpp>

#include <gtest/gtest.h>

TEST(Smoke, InsertAndFind) {
  csl::fs_cache cache;
  auto e = std::make_shared<csl::fs_entry>("/d/a.pcap");
  e->start_ts = 5UL;
  ASSERT_TRUE(cache.insert(std::move(e)));
  csl::fs_entry out;
  ASSERT_TRUE(cache.by_path(out, "/d/a.pcap"));
  EXPECT_EQ(*out.start_ts, 5UL);
}
