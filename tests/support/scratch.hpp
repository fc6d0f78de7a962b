// Places to build a stand-in system in.
#ifndef VORN_TESTS_SCRATCH_HPP
#define VORN_TESTS_SCRATCH_HPP

#include <string>

namespace scratch {

// A directory of its own that goes when the object does.
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

void write_file(const std::string &path, const std::string &content); // makes missing directories
void write_program(const std::string &path, const std::string &commands); // of the shell
std::string read_file(const std::string &path);

// The lowest free descriptor: a leak raises it.
int next_descriptor();

// From now on this process sees an empty file system at directory, as no other process does. A
// directory of "/" that the machine does not have appears for this process alone. False where the
// machine does not let a test have mounts of its own.
bool cover_directory(const std::string &directory);
inline constexpr char kNoMounts[] =
    "mounts of its own take CAP_SYS_ADMIN and a root directory that is a mount point";

} // namespace scratch

#endif
