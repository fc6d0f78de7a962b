// Writes the program's messages to standard error, and keeps the library's away from there while
// the log has them.
//
// Each message appears once. While the log is open the library may also copy warnings and errors to
// descriptor 2, so hide_library_messages() puts /dev/null there, and the program writes its
// messages to a copy of the descriptor that it made before.
//
// What else writes to descriptor 2 is lost during that time: a report of the C library about
// corrupt memory, for example, whose abort the library's fault report in the log shows all the
// same. Reports of a sanitizer go to the copy, because the sanitizers let a program say where.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_CONSOLE_HPP
#define SCRUB_CONSOLE_HPP

namespace scrub {

class Console {
public:
  // Copies descriptor 2. If it is closed or cannot be copied, messages go to descriptor 2, and
  // nothing is hidden.
  Console();
  Console(const Console &) = delete;
  Console &operator=(const Console &) = delete;

  // Called once, when the log is open. Lasts to the end of the process: the library writes to
  // descriptor 2 until then.
  void hide_library_messages();

  // Writes a line: "vorn-scrub: " and the text. Any thread.
  void say(const char *format, ...) __attribute__((format(printf, 2, 3)));

private:
  int copy_;
  bool hidden_ = false;
};

} // namespace scrub

#endif
