// Compares one operation of the library with the same operation of its peers, and prints a table:
//
//   int main(int argc, char **argv) {
//     bench::Table table{argc, argv, "Allocator"};
//     table.row("allocate and free 64 bytes",
//               {bench::ours([] { vorn_free(vorn_malloc(64)); }),
//                bench::peer("malloc", [] { free(malloc(64)); })});
//   }
//
// The contenders of a row run in turns of a fraction of a millisecond, in a changing order, so that
// other load on the machine affects all of them equally. The table shows the median turn of each.
// The ratio is the time of the fastest peer divided by ours: above 1, ours is faster. The spread is
// the interquartile range of the ratios of the turns, in per cent of their median. If the
// environment has VORN_BENCH_LINES, the program prints lines that tools/bench reads instead of the
// table.
//
// A program may also measure curves: the time of an operation as a number grows, such as that of
// the records in a tree. It measures its curves instead of its rows if the environment has
// VORN_BENCH_CURVES, and prints lines that tools/plot-growth reads.
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

// Makes the compiler compute value, and discard what it knows about memory.
template <class Value> void keep(const Value &value) { asm volatile("" : : "g"(value) : "memory"); }

struct Operation {
  Operation(const char *text) : name(text) {} // NOLINT: converts the name of a row
  Operation(std::string text, std::size_t processed) : name(std::move(text)), bytes(processed) {}

  std::string name;
  std::size_t bytes = 0; // that one operation processes; if not 0, the table shows the rate
};

struct Contender {
  std::string name;
  std::function<Nanoseconds(std::uint64_t count)> run; // returns the time of count operations
};

// Pins the calling thread to one CPU, another one for each index, if the row has no more threads
// than there are CPUs; otherwise the system places the threads.
void pin(unsigned int index, unsigned int threads);

// Lets the calling thread run on every CPU of the process again.
void unpin();

// The argument what is one of:
//   [] { ... }                                one operation; its result is not optimised away
//   [](std::uint64_t count) { ... }           count operations
//   [](std::uint64_t count) { return time; }  the same; it returns its own time, a std::chrono
//                                             duration. For operations that need threads or
//                                             preparation.
// The thread that measures is pinned to a CPU in the first two cases. In the third it is not, and
// the operation pins the threads that need it.
template <class What> Contender contender(std::string name, What what) {
  const auto run = [what = std::move(what)](std::uint64_t count) mutable -> Nanoseconds {
    if constexpr (!std::invocable<What &, std::uint64_t>) {
      pin(0, 1);
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
      pin(0, 1);
      const auto start = Clock::now();
      what(count);
      return Clock::now() - start;
    } else {
      unpin();
      return what(count);
    }
  };
  return {std::move(name), run};
}

template <class What> Contender ours(What what) { return contender("ours", std::move(what)); }

template <class What> Contender peer(std::string name, What what) {
  return contender(std::move(name), std::move(what));
}

// Returns whether the program is to measure its curves instead of its rows.
bool wants_curves();

class Table {
public:
  // Prints the head of the table. The program's arguments select rows: if there are any, the table
  // measures only rows whose name contains one of them, in upper or lower case.
  Table(int argc, char **argv, const char *title);

  // Measures and prints a row: ours first, then any number of peers (or none).
  void row(const Operation &operation, const std::vector<Contender> &contenders) const;

  bool wanted(const std::string &name) const;

private:
  std::string title_;
  std::vector<std::string> words_;
};

struct Plot {
  std::string file;  // the name of its picture, without a suffix
  std::string title; // the operation, which the program's arguments select as they select rows
  std::string size;  // what grows, in the plural: "records"
  std::string unit;  // what the time is divided by, in the singular: "record"
};

class Curve {
public:
  Curve(const Table &table, Plot plot);

  // Measures and prints the time of each contender at this size, divided by units.
  void point(std::size_t size, std::size_t units, const std::vector<Contender> &contenders) const;

private:
  Plot plot_;
  bool wanted_;
};

} // namespace bench

#endif
