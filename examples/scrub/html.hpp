// Builds HTML in which every value is escaped.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_HTML_HPP
#define SCRUB_HTML_HPP

#include <cstdint>
#include <string>
#include <string_view>

namespace scrub {

// Markup that the source holds. The compiler refuses a text that it does not know.
class Literal {
public:
  consteval Literal(const char *text) : text_(text) {}
  std::string_view text() const { return text_; }

private:
  std::string_view text_;
};

class Html {
public:
  Html &operator<<(Literal markup) {
    text_ += markup.text();
    return *this;
  }
  Html &operator<<(const Html &markup) {
    text_ += markup.text_;
    return *this;
  }

  // Adds a text of people or of the system, fit for an element or a quoted attribute. Control
  // characters and invalid UTF-8 show as %XX.
  Html &text(std::string_view text);

  // Adds a path: the word that printable() makes. Both functions show characters that reverse the
  // order of others as %XX, so that "exe.pdf" is no "fdp.exe".
  Html &path(std::string_view path);

  // Adds 1234567 as "1,234,567".
  Html &number(std::uint64_t number);

  // Adds a coordinate of a picture, rounded to a tenth.
  Html &at(double coordinate);

  const std::string &markup() const { return text_; }

private:
  void add_word(std::string_view word);

  std::string text_;
};

} // namespace scrub

#endif
