// Runs the contenders of a benchmark in turns and prints the table of their times.
// SPDX-License-Identifier: Apache-2.0
#include "support/bench.hpp"

#include <algorithm>
#include <cstdio>

namespace bench {
namespace {

constexpr Nanoseconds kTurn = std::chrono::microseconds{200};
constexpr int kTurns = 101;

// Returns the number of operations in a turn: as many as take kTurn, at least one. Also warms up.
std::uint64_t turn_length(const Contender &contender) {
  std::uint64_t count = 1;
  for (;;) {
    const Nanoseconds took = contender.run(count);
    if (took >= kTurn / 2) {
      const double fitting = static_cast<double>(count) * (kTurn / took);
      return std::max<std::uint64_t>(1, static_cast<std::uint64_t>(fitting));
    }
    count *= 2;
  }
}

double median(std::vector<double> &times) {
  const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
  std::nth_element(times.begin(), middle, times.end());
  return *middle;
}

// Returns the median time of an operation of each contender in nanoseconds. The first contender of
// a turn is the last one of the next turn.
std::vector<double> measure(const std::vector<Contender> &contenders) {
  std::vector<std::uint64_t> lengths;
  for (const Contender &contender : contenders)
    lengths.push_back(turn_length(contender));

  std::vector<std::vector<double>> times(contenders.size());
  for (std::size_t turn = 0; turn < kTurns; ++turn) {
    for (std::size_t step = 0; step < contenders.size(); ++step) {
      const std::size_t at = (turn + step) % contenders.size();
      const Nanoseconds took = contenders[at].run(lengths[at]);
      times[at].push_back(took.count() / static_cast<double>(lengths[at]));
    }
  }

  std::vector<double> medians;
  for (auto &of_one : times)
    medians.push_back(median(of_one));
  return medians;
}

std::string number(double value, const char *unit) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.2f%s", value, unit);
  return text;
}

std::string time_text(double nanoseconds) {
  if (nanoseconds < 1e4) return number(nanoseconds, " ns");
  if (nanoseconds < 1e7) return number(nanoseconds / 1e3, " us");
  return number(nanoseconds / 1e6, " ms");
}

std::string rate_text(std::size_t bytes, double nanoseconds) {
  if (bytes == 0) return "";
  return number(static_cast<double>(bytes) / nanoseconds, " GB/s");
}

void print(const char *operation, const char *ours, const char *rate, const char *peer,
           const char *peer_name, const char *ratio) {
  std::printf("%-44s %12s %13s %12s  %-14s %6s\n", operation, ours, rate, peer, peer_name, ratio);
  std::fflush(stdout);
}

} // namespace

Table::Table(int argc, char **argv, const char *title) : words_(argv + 1, argv + argc) {
  std::printf("\n%s\n", title);
  print("operation", "ours", "", "best peer", "", "ratio");
}

bool Table::wanted(const std::string &name) const {
  return words_.empty() || std::any_of(words_.begin(), words_.end(), [&](const auto &word) {
           return name.find(word) != std::string::npos;
         });
}

void Table::row(const Operation &operation, const std::vector<Contender> &contenders) const {
  if (!wanted(operation.name)) return;
  const std::vector<double> times = measure(contenders);
  const double ours = times.front();
  const std::string time = time_text(ours);
  const std::string rate = rate_text(operation.bytes, ours);
  const auto best = std::min_element(times.begin() + 1, times.end());
  if (best == times.end()) {
    print(operation.name.c_str(), time.c_str(), rate.c_str(), "-", "", "-");
    return;
  }
  const Contender &peer = contenders[static_cast<std::size_t>(best - times.begin())];
  print(operation.name.c_str(), time.c_str(), rate.c_str(), time_text(*best).c_str(),
        peer.name.c_str(), number(*best / ours, "").c_str());
}

} // namespace bench
