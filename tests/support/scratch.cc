#include "support/scratch.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>

namespace scratch {

namespace {

bool enter_mount_namespace() {
  static const bool entered =
      unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  return entered;
}

} // namespace

Directory::Directory() {
  char path[] = "/tmp/vorn-test-XXXXXX";
  if (mkdtemp(path) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = path;
}

Directory::~Directory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void write_file(const std::string &path, const std::string &content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

bool cover_directory(const std::string &directory) {
  return enter_mount_namespace() && mount("none", directory.c_str(), "tmpfs", 0, nullptr) == 0;
}

} // namespace scratch
