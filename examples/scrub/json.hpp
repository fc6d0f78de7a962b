// Builds JSON text on one line.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_JSON_HPP
#define SCRUB_JSON_HPP

#include <cstdint>
#include <string_view>

#include "memory.hpp"

namespace scrub {

// The caller makes sure that a key precedes each value of an object, and that each begin has its
// end. Commas come by themselves.
class Json {
public:
  Json &begin_object() { return open('{'); }
  Json &end_object() { return close('}'); }
  Json &begin_array() { return open('['); }
  Json &end_array() { return close(']'); }

  Json &key(std::string_view name);

  // Adds a string. Control characters and those that change the direction of text are escaped, so
  // that the text is safe on a terminal. Each byte that is not UTF-8 becomes U+FFFD.
  Json &text(std::string_view text);
  Json &number(std::uint64_t number);
  Json &real(double number); // finite; with three decimals
  Json &flag(bool flag);
  Json &null() { return raw("null"); }

  // Adds a value that is JSON already.
  Json &raw(std::string_view json);

  // Adds the key with the text of a path. Bytes that are not UTF-8 are also kept: the key with
  // "_bytes" at its end has the whole path in base64.
  Json &path(std::string_view name, std::string_view path);

  const String &str() const { return text_; }

private:
  Json &open(char bracket);
  Json &close(char bracket);
  void separate();
  void quote(std::string_view text);

  String text_;
  bool comma_ = false; // before the next key or value
};

} // namespace scrub

#endif
