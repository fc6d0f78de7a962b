// A record that nobody wants, and one that the rate limiter drops: what logging costs where it
// stays silent.
// SPDX-License-Identifier: Apache-2.0
#define FMT_HEADER_ONLY
#define SPDLOG_FMT_EXTERNAL
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include "evlog.h"
#include "support/bench.hpp"
#include "vorn_init.h"
#include "vorn_log.h"
#include "vorn_mem.h"

int main(int argc, char **argv) {
  vorn_log_init("log_bench", "/tmp"); // the start's records
  vorn_Init();
  const auto logger = spdlog::null_logger_mt("bench");
  logger->set_level(spdlog::level::info);

  const bench::Table table{argc, argv, "Silent logging"};
  table.row("record below the level",
            {bench::ours([] {
               if (evlog_level_check(381, EVLOG_DEBUG) != 0) return;
               evlog(381, EVLOG_DEBUG, "log_bench.c", __LINE__, __func__, 0, "value %d", 1);
             }),
             bench::peer("spdlog", [&logger] { logger->debug("value {}", 1); })});
  for (int i = 0; i < 3; ++i)
    vorn_free(nullptr); // the burst of the site that is measured
  table.row("record that the rate limiter drops", {bench::ours([] { vorn_free(nullptr); })});
  vorn_destory();
  vorn_log_destroy(0);
}
