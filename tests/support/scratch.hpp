// Declares directories to build a stand-in system in.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_SCRATCH_HPP
#define VORN_TESTS_SCRATCH_HPP

#include <string>

namespace scratch {

// A temporary directory, removed by the destructor.
class Directory {
public:
  Directory();
  Directory(const Directory &) = delete;
  Directory &operator=(const Directory &) = delete;
  ~Directory();

  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

// Both also create missing directories. A program is a script of the shell.
void write_file(const std::string &path, const std::string &content);
void write_program(const std::string &path, const std::string &commands);
std::string read_file(const std::string &path);

// Returns the lowest free descriptor: a leak raises it.
int next_descriptor();

// Mounts an empty file system at directory, visible only to this process. If the machine does not
// have that directory of "/", it appears only to this process. Returns false if the machine does
// not permit a test private mounts.
bool cover_directory(const std::string &directory);
inline constexpr char kNoMounts[] =
    "private mounts take CAP_SYS_ADMIN and a root directory that is a mount point";

} // namespace scratch

#endif
