// Stands in for the logging library: keeps every record, so that a test reads as "do, then expect
// this record at this level from this function".
#ifndef VORN_TESTS_LOG_CAPTURE_HPP
#define VORN_TESTS_LOG_CAPTURE_HPP

#include <string>
#include <vector>

namespace capture {

struct Record {
  unsigned int module;
  int level; // kOriginal or kRaw for what came without one
  std::string file;
  unsigned int line;
  std::string function;
  std::string text;
};

inline constexpr int kOriginal = -1; // evlog_original
inline constexpr int kRaw = -2;      // evlog_vraw

// What was logged since the last call, in order.
std::vector<Record> take();

// The texts alone; those of errors begin with "E ", those of warnings with "W ".
std::vector<std::string> take_lines();

// A result and what was logged on the way: "-1; E Parameter is null.".
std::string outcome(int result);

// Records at this level and below are wanted; 7, the start value, wants all.
void set_level(int level);

} // namespace capture

// The next records are exactly one, of the library's own module.
#define EXPECT_ONE_RECORD(wanted_level, wanted_file, wanted_function, wanted_text)                 \
  do {                                                                                             \
    const auto records = capture::take();                                                          \
    ASSERT_EQ(records.size(), 1u);                                                                 \
    EXPECT_EQ(records[0].module, 381u);                                                            \
    EXPECT_EQ(records[0].level, wanted_level);                                                     \
    EXPECT_EQ(records[0].file, wanted_file);                                                       \
    EXPECT_EQ(records[0].function, wanted_function);                                               \
    EXPECT_EQ(records[0].text, wanted_text);                                                       \
  } while (false)

#define EXPECT_NO_RECORD() EXPECT_TRUE(capture::take().empty())

#endif
