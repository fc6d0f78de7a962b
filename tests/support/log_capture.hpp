// Replaces the logging library: stores every log message, so that a test reads as "do, then expect
// this message at this level from this function".
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_LOG_CAPTURE_HPP
#define VORN_TESTS_LOG_CAPTURE_HPP

#include <string>
#include <vector>

namespace capture {

struct Message {
  unsigned int module;
  int level; // kOriginal or kRaw for a message without a level
  std::string file;
  unsigned int line;
  std::string function;
  std::string text;
};

inline constexpr int kOriginal = -1; // evlog_original
inline constexpr int kRaw = -2;      // evlog_vraw

// Returns the log messages since the last call, in order.
std::vector<Message> take();

// Returns only the texts; those of errors begin with "E ", those of warnings with "W ".
std::vector<std::string> take_lines();

// Returns a result and what was logged before it: "-1; E Parameter is null.".
std::string outcome(int result);

// Does as well, with the function of each message: "-1; E vorn_function: Parameter is null.".
std::string traced(int result);

// Sets the highest level that passes the level check; initially 7, all levels.
void set_level(int level);

} // namespace capture

// Expects exactly one log message, of the library's own module.
#define EXPECT_ONE_MESSAGE(wanted_level, wanted_file, wanted_function, wanted_text)                \
  do {                                                                                             \
    const auto messages = capture::take();                                                         \
    ASSERT_EQ(messages.size(), 1u);                                                                \
    EXPECT_EQ(messages[0].module, 381u);                                                           \
    EXPECT_EQ(messages[0].level, wanted_level);                                                    \
    EXPECT_EQ(messages[0].file, wanted_file);                                                      \
    EXPECT_EQ(messages[0].function, wanted_function);                                              \
    EXPECT_EQ(messages[0].text, wanted_text);                                                      \
  } while (false)

#define EXPECT_NO_MESSAGE() EXPECT_TRUE(capture::take().empty())

#endif
