#include "vorn_cpufreq.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/log_capture.hpp"
#include "support/scratch.hpp"

namespace {

const std::string kRoot = "/sys/devices/system/cpu/cpufreq/";

TEST(Cpufreq, FindsThePoliciesThatCanBeRead) {
  if (!scratch::cover_directory("/sys/devices/system/cpu"))
    GTEST_SKIP() << "no right to mount here";
  EXPECT_EQ(vorn_cpufreq_init(), 0);
  EXPECT_EQ(capture::take_texts(),
            std::vector<std::string>{"cpufreq: 0 policies can be controlled."});

  for (const char *policy : {"policy0", "policy4"}) {
    scratch::write_file(kRoot + policy + "/cpuinfo_min_freq", "200000\n");
    scratch::write_file(kRoot + policy + "/cpuinfo_max_freq", "2600000\n");
  }
  scratch::write_file(kRoot + "policy8/cpuinfo_min_freq", "junk");
  scratch::write_file(kRoot + "boost", "1");
  EXPECT_EQ(vorn_cpufreq_init(), 0);
  auto texts = capture::take_texts();
  ASSERT_EQ(texts.size(), 3u);
  EXPECT_EQ(texts.back(), "cpufreq: 2 policies can be controlled.");
  std::sort(texts.begin(), texts.end() - 1);
  EXPECT_EQ(texts[0], "cpufreq policy0: 200000 to 2600000 kHz.");
}

} // namespace
