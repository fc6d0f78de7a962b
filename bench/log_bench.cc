// Measures the cost of silent logging: a log message below the level, and one that the rate limiter
// drops.
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
  vorn_log_init("log_bench", "/tmp"); // receives the log messages of the start
  vorn_Init();
  const auto logger = spdlog::null_logger_mt("bench");
  logger->set_level(spdlog::level::info);

  const bench::Table table{argc, argv, "Silent logging"};
  table.row("log message below the level",
            {bench::ours([] {
               if (evlog_level_check(381, EVLOG_DEBUG) != 0) return;
               evlog(381, EVLOG_DEBUG, "log_bench.c", __LINE__, __func__, 0, "value %d", 1);
             }),
             bench::peer("spdlog", [&logger] { logger->debug("value {}", 1); })});
  for (int i = 0; i < 3; ++i)
    vorn_free(nullptr); // uses up the burst of the log statement
  table.row("log message that the rate limiter drops", {bench::ours([] { vorn_free(nullptr); })});
  vorn_destory();
  vorn_log_destroy(0);
}
