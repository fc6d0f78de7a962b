// Runs the contenders of a benchmark in turns, and prints their times and the spread of the ratio.
// SPDX-License-Identifier: Apache-2.0
#include "support/bench.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <errno.h>
#include <sched.h>

namespace bench {
namespace {

constexpr Nanoseconds kTurn = std::chrono::microseconds{200};
constexpr std::size_t kTurns = 201;

// A row or a point of long operations ends after this time, with fewer turns.
struct Limit {
  std::chrono::milliseconds time;
  std::size_t min_turns;
};
constexpr Limit kRow{std::chrono::milliseconds{1000}, 5};
constexpr Limit kPoint{std::chrono::milliseconds{200}, 3};

// The CPUs of the process before a row pins a thread.
class Cpus {
public:
  Cpus() {
    CPU_ZERO(&all_);
    sched_getaffinity(0, sizeof all_, &all_);
    for (int cpu = CPU_SETSIZE - 1; cpu >= 0; --cpu) {
      if (CPU_ISSET(cpu, &all_)) cpus_.push_back(cpu);
    }
  }

  void pin(unsigned int index, unsigned int threads) {
    if (threads > cpus_.size()) return;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpus_[index % cpus_.size()], &one);
    sched_setaffinity(0, sizeof one, &one);
  }
  void unpin() { sched_setaffinity(0, sizeof all_, &all_); }

private:
  cpu_set_t all_;
  std::vector<int> cpus_; // the last one first: the first one serves more interrupts
};

Cpus &cpus() {
  static Cpus cpus;
  return cpus;
}

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

// Returns the value at that part of values in ascending order: 0.5 gives the median.
double quantile(std::vector<double> values, double part) {
  const auto at =
      values.begin() + static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

double median(const std::vector<double> &values) { return quantile(values, 0.5); }

using Times = std::vector<double>; // nanoseconds of one operation, by turn

// Returns the times of each contender. Every turn begins with another contender, and every second
// turn runs them in the opposite order: none always follows the same other one.
std::vector<Times> measure(const std::vector<Contender> &contenders, const Limit &limit) {
  std::vector<std::uint64_t> lengths;
  for (const Contender &contender : contenders)
    lengths.push_back(turn_length(contender));

  const std::size_t count = contenders.size();
  std::vector<Times> times(count);
  const auto end = Clock::now() + limit.time;
  for (std::size_t turn = 0; turn < kTurns; ++turn) {
    if (turn >= limit.min_turns && Clock::now() > end) break;
    for (std::size_t step = 0; step < count; ++step) {
      const std::size_t at = (turn + (turn % 2 == 0 ? step : count - step)) % count;
      const Nanoseconds took = contenders[at].run(lengths[at]);
      times[at].push_back(took.count() / static_cast<double>(lengths[at]));
    }
  }
  cpus().unpin();
  return times;
}

struct Peer {
  std::string name;
  double time = 0;
  double ratio = 0;
  double spread =
      0; // of the ratio: the interquartile range of its turns, as a part of their median
};

struct Result {
  double ours = 0;
  Peer peer; // the fastest one; without a name if there is none
};

double spread(const Times &ours, const Times &theirs) {
  std::vector<double> ratios;
  for (std::size_t turn = 0; turn < ours.size(); ++turn)
    ratios.push_back(theirs[turn] / ours[turn]);
  return (quantile(ratios, 0.75) - quantile(ratios, 0.25)) / median(ratios);
}

Result summary(const std::vector<Contender> &contenders, const std::vector<Times> &times) {
  Result result{median(times.front()), {}};
  for (std::size_t i = 1; i < times.size(); ++i) {
    const double time = median(times[i]);
    if (i > 1 && time >= result.peer.time) continue;
    result.peer = {contenders[i].name, time, time / result.ours, spread(times.front(), times[i])};
  }
  return result;
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
           const char *peer_name, const char *ratio, const char *spread) {
  std::printf("%-44s %12s %13s %12s  %-22s %6s %7s\n", operation, ours, rate, peer, peer_name,
              ratio, spread);
  std::fflush(stdout);
}

void print(const Operation &operation, const Result &result) {
  const char *name = operation.name.c_str();
  const std::string ours = time_text(result.ours);
  const std::string rate = rate_text(operation.bytes, result.ours);
  const Peer &peer = result.peer;
  if (peer.name.empty()) return print(name, ours.c_str(), rate.c_str(), "-", "", "-", "");
  print(name, ours.c_str(), rate.c_str(), time_text(peer.time).c_str(), peer.name.c_str(),
        number(peer.ratio, "").c_str(), number(peer.spread * 100, " %").c_str());
}

// Prints the result as a line of fields with tabs between them, which tools/bench reads.
void print_line(const std::string &title, const Operation &operation, const Result &result) {
  const Peer &peer = result.peer;
  std::printf("row\t%s\t%s\t%s\t%zu\t%.3f\t%s\t%.3f\t%.4f\t%.4f\n", program_invocation_short_name,
              title.c_str(), operation.name.c_str(), operation.bytes, result.ours,
              peer.name.c_str(), peer.time, peer.ratio, peer.spread);
  std::fflush(stdout);
}

bool wants_lines() { return std::getenv("VORN_BENCH_LINES") != nullptr || wants_curves(); }

} // namespace

bool wants_curves() { return std::getenv("VORN_BENCH_CURVES") != nullptr; }

void pin(unsigned int index, unsigned int threads) { cpus().pin(index, threads); }

void unpin() { cpus().unpin(); }

Table::Table(int argc, char **argv, const char *title)
    : title_(title), words_(argv + 1, argv + argc) {
  cpus();
  if (wants_lines()) return;
  std::printf("\n%s\n", title);
  print("operation", "ours", "", "best peer", "", "ratio", "spread");
}

bool Table::wanted(const std::string &name) const {
  return words_.empty() || std::any_of(words_.begin(), words_.end(), [&](const auto &word) {
           return strcasestr(name.c_str(), word.c_str()) != nullptr;
         });
}

void Table::row(const Operation &operation, const std::vector<Contender> &contenders) const {
  if (!wanted(operation.name)) return;
  const Result result = summary(contenders, measure(contenders, kRow));
  if (wants_lines()) return print_line(title_, operation, result);
  print(operation, result);
}

Curve::Curve(const Table &table, Plot plot)
    : plot_(std::move(plot)), wanted_(table.wanted(plot_.title)) {}

void Curve::point(std::size_t size, std::size_t units,
                  const std::vector<Contender> &contenders) const {
  if (!wanted_) return;
  const std::vector<Times> times = measure(contenders, kPoint);
  for (std::size_t i = 0; i < times.size(); ++i) {
    std::printf("point\t%s\t%s\t%s\t%s\t%zu\t%s\t%.3f\n", plot_.file.c_str(), plot_.title.c_str(),
                plot_.size.c_str(), plot_.unit.c_str(), size, contenders[i].name.c_str(),
                median(times[i]) / static_cast<double>(units));
  }
  std::fflush(stdout);
}

} // namespace bench
