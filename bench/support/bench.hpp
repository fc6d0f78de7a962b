// Measures one operation of ours beside the same operation of its peers, and prints the table:
//
//   int main(int argc, char **argv) {
//     bench::Table table{argc, argv, "Allocator"};
//     table.row("allocate and free 64 bytes",
//               {bench::ours([] { vorn_free(vorn_malloc(64)); }),
//                bench::peer("malloc", [] { free(malloc(64)); })});
//   }
//
// All of a row are measured in turns of a fraction of a millisecond, so that whatever else the
// machine does meets all of them alike; what is printed is the median turn of each. The ratio is
// that of the fastest peer's time to ours: above 1, ours is the faster.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BENCH_SUPPORT_BENCH_HPP
#define VORN_BENCH_SUPPORT_BENCH_HPP

#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::duration<double, std::nano>;

// Makes the compiler compute value, and forget what it knows of memory.
template <class Value> void keep(const Value &value) { asm volatile("" : : "g"(value) : "memory"); }

struct Operation {
  Operation(const char *text) : name(text) {} // NOLINT: a row's name alone is an operation
  Operation(std::string text, std::size_t processed) : name(std::move(text)), bytes(processed) {}

  std::string name;
  std::size_t bytes = 0; // that one operation processes: the table gives the rate too
};

struct Contender {
  std::string name;
  std::function<Nanoseconds(std::uint64_t count)> run; // what count operations took
};

// what is one of
//   [] { ... }                                one operation; a result is kept from the optimiser
//   [](std::uint64_t count) { ... }           count operations
//   [](std::uint64_t count) { return time; }  the same, timed by itself: a std::chrono duration.
//                                             For operations that need threads or a set-up.
template <class What> Contender contender(std::string name, What what) {
  const auto run = [what = std::move(what)](std::uint64_t count) mutable -> Nanoseconds {
    if constexpr (!std::invocable<What &, std::uint64_t>) {
      const auto start = Clock::now();
      for (; count > 0; --count) {
        if constexpr (std::is_void_v<std::invoke_result_t<What &>>) {
          what();
        } else {
          keep(what());
        }
      }
      return Clock::now() - start;
    } else if constexpr (std::is_void_v<std::invoke_result_t<What &, std::uint64_t>>) {
      const auto start = Clock::now();
      what(count);
      return Clock::now() - start;
    } else {
      return what(count);
    }
  };
  return {std::move(name), run};
}

template <class What> Contender ours(What what) { return contender("ours", std::move(what)); }

template <class What> Contender peer(std::string name, What what) {
  return contender(std::move(name), std::move(what));
}

class Table {
public:
  // Prints the head. The program's arguments are words: only rows are measured whose operation
  // has one of them in its name.
  Table(int argc, char **argv, const char *title);

  // Measures and prints a row: ours first, then any number of peers, also none.
  void row(const Operation &operation, const std::vector<Contender> &contenders) const;

private:
  bool wanted(const std::string &name) const;

  std::vector<std::string> words_;
};

} // namespace bench

#endif
