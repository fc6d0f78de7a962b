// test-links: scrub_objects
// Tests the walk of vorn-scrub through trees that are deep, change meanwhile, hold mounts, or are
// left out in part.
// SPDX-License-Identifier: Apache-2.0
#include "walk.hpp"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "manifest.hpp"
#include "support/scratch.hpp"

namespace {

namespace fs = std::filesystem;
using scrub::Found;
using scrub::Scope;
using scrub::ScopeFilter;
using scrub::Tree;
using scrub::TreeRecord;
using scrub::Walk;
using Paths = std::vector<std::string>;

// The directory of that inode number cannot be read after its first names.
ino_t unreadable = 0;

} // namespace

// Replaces the system's.
extern "C" ssize_t getdents64(int fd, void *buffer, size_t size) noexcept {
  struct stat status {};
  const bool fails = unreadable != 0 && fstat(fd, &status) == 0 && status.st_ino == unreadable &&
                     lseek(fd, 0, SEEK_CUR) != 0;
  if (!fails) return syscall(SYS_getdents64, fd, buffer, size);
  errno = EIO;
  return -1;
}

namespace {

class ScrubWalk : public testing::Test {
protected:
  // Returns the paths, with the error of those that cannot be read. Calls act after the first.
  Paths walk(
      const Scope &scope = {}, const std::function<void()> &act = [] {}) {
    const Tree tree(root_);
    const scrub::OwnPaths paths{root_, ".vorn-scrub", root_};
    const scrub::OwnFiles own(paths);
    Walk walk(tree, own, scope, recorded_);
    Paths result;
    Found found;
    while (walk.next(found)) {
      const std::string path(found.path);
      result.push_back(found.error == 0 ? path : path + ": " + strerrorname_np(found.error));
      if (found.error == 0) kept_.push_back(found);
      if (kept_.size() > 8) kept_.erase(kept_.begin());
      if (result.size() == 1) act();
    }
    counts_ = walk.counts();
    return result;
  }

  void write(const std::string &path) { scratch::write_file(root_ + "/" + path, path); }

  // Creates d/d/d and so on, with the file z in each. Returns the path of the deepest.
  std::string write_chain(std::size_t levels, const std::string &name) const {
    scrub::Fd directory(open(root_.c_str(), O_PATH | O_CLOEXEC));
    std::string path;
    for (std::size_t i = 0; i < levels; ++i) {
      mkdirat(directory.get(), name.c_str(), 0777);
      directory = scrub::Fd(openat(directory.get(), name.c_str(), O_PATH | O_CLOEXEC));
      scrub::Fd(openat(directory.get(), "z", O_CREAT | O_WRONLY, 0666));
      path += name + "/";
    }
    return path;
  }

  scratch::Directory scratch_;
  std::string root_ = scratch_ / "root";
  TreeRecord recorded_;
  std::vector<Found> kept_;
  Walk::Counts counts_;
};

TEST_F(ScrubWalk, YieldsFilesInTheOrderOfAManifest) {
  Paths files{"a", "b/z", "b.c", "b c/x", "b/c/d/e", "B", "\xff\n", "zz/1", "b\x01/2"};
  for (const std::string &file : files)
    write(file);
  write(".vorn-scrub");
  write(".vorn-scrub.log.3");
  fs::create_directory(root_ + "/empty");
  fs::create_directory_symlink("..", root_ + "/b/loop");
  ASSERT_EQ(mkfifo((root_ + "/b/fifo").c_str(), 0666), 0);

  const int descriptor = scratch::next_descriptor();
  std::ranges::sort(files, scrub::path_before);
  EXPECT_EQ(walk(), files);
  EXPECT_EQ(counts_.links, 1U);
  EXPECT_EQ(counts_.specials, 1U);
  for (const Found &found : kept_) { // the walk has left all their directories
    const scrub::Fd file(openat(found.directory->get(), found.name.c_str(), O_RDONLY));
    char content[32];
    ASSERT_TRUE(file) << found.path;
    const auto size = static_cast<std::size_t>(read(file.get(), content, sizeof content));
    EXPECT_EQ(std::string(content, size), std::string(found.path));
  }
  kept_.clear();
  EXPECT_EQ(scratch::next_descriptor(), descriptor);
}

TEST(ScrubNameList, GivesEachNameInOrderWhateverItsLimit) {
  Paths names;
  for (int i = 0; i < 1000; ++i)
    names.push_back("n" + std::to_string(i * 7919));
  std::ranges::shuffle(names, std::mt19937(1));
  Paths sorted = names;
  std::ranges::sort(sorted);

  for (const std::size_t limit : {1U, 100U, 4000U, 1U << 20}) {
    scrub::NameList list(limit);
    Paths given;
    do {
      list.begin();
      for (const std::string &name : names)
        list.add(name, DT_REG);
      list.end();
      while (!list.empty())
        given.emplace_back(list.take().name);
    } while (list.has_more());
    EXPECT_EQ(given, sorted) << limit;
  }
}

TEST_F(ScrubWalk, NeedsFewDescriptorsForADeepTree) {
  constexpr std::size_t kLevels = 300;
  fs::create_directory(root_);
  const std::string path = write_chain(kLevels, std::string(20, 'd'));
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit low{Walk::kOpenLevels + 32, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &low);
  const Paths found = walk();
  EXPECT_EQ(found.size(), kLevels);
  EXPECT_EQ(found.front(), path + "z"); // more than PATH_MAX
  EXPECT_EQ(found.back(), std::string(20, 'd') + "/z");

  const Tree tree(root_);
  struct stat status {};
  EXPECT_TRUE(tree.open(path + "z", O_RDONLY));
  EXPECT_TRUE(tree.status(path + "z", status) && S_ISREG(status.st_mode));
  EXPECT_FALSE(tree.open(path + "y", O_RDONLY));
  EXPECT_EQ(errno, ENOENT);
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(ScrubWalk, OpensNoLinkInAPath) {
  write("a/b/f");
  fs::create_directory_symlink("a", root_ + "/link");
  fs::create_symlink("f", root_ + "/a/b/g");
  const Tree tree(root_);
  struct stat status {};
  EXPECT_FALSE(tree.open("link/b/f", O_RDONLY));
  EXPECT_FALSE(tree.open("a/b/g", O_RDONLY));
  EXPECT_TRUE(tree.status("a/b/g", status) && S_ISLNK(status.st_mode));
  EXPECT_FALSE(tree.status(std::string(300, 'x') + "/f", status));
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(ScrubWalk, StaysInTheTreeIfADirectoryIsMoved) {
  const std::string name = scratch_ / "root/d";
  for (const bool parent_too : {false, true}) {
    SCOPED_TRACE(parent_too);
    fs::remove_all(root_);
    fs::create_directory(root_);
    write_chain(50, "d");
    const std::string elsewhere = scratch_ / (parent_too ? "one" : "other");
    scratch::write_file(elsewhere + "/foreign", "");
    const Paths found = walk({}, [&] {
      fs::rename(name + "/d", elsewhere + "/d");
      if (parent_too) fs::rename(name, elsewhere + "/parent");
    });
    ASSERT_EQ(found.size(), 50U);
    EXPECT_EQ(found[48], "d/d/z"); // reached by way of its child
    EXPECT_EQ(found[49], parent_too ? "d: ESTALE" : "d/z");
  }
}

TEST_F(ScrubWalk, ReportsWhatItCannotEnterOrReadToItsEnd) {
  write("a/f");
  for (const char *directory : {"b", "c", "d"})
    write(directory + std::string("/f"));
  struct stat status {};
  ASSERT_EQ(stat((root_ + "/d").c_str(), &status), 0);
  unreadable = status.st_ino;
  const Paths found = walk({}, [&] {
    fs::remove_all(root_ + "/b");
    fs::create_directory_symlink("a", root_ + "/b");
    fs::remove_all(root_ + "/c");
  });
  EXPECT_EQ(found, (Paths{"a/f", "b: ENOTDIR", "c: ENOENT", "d/f", "d: EIO"}));
  // Not even opened.
  EXPECT_EQ(walk({{}, {"a"}}), Paths{"a/f"});
  unreadable = 0;
  EXPECT_THROW(Tree(root_ + "/a/f"), std::system_error);
}

TEST(ScrubScope, MatchesPatternsAndPaths) {
  const Scope scope{{"*.o", "cache/", "/top", "doc/*.txt", "**/x/y", "/", ""}, {}};
  TreeRecord recorded;
  recorded.excludes = {"kept-out"};
  const ScopeFilter filter(scope, recorded);
  for (const char *path : {"a.o", "a/.o", "a/b.o/c", "cache/f", "a/cache/b/f", "top", "top/f",
                           "doc/a.txt", "doc/.txt", "x/y", "a/b/x/y/z", "d/kept-out/f"})
    EXPECT_FALSE(filter.covers(path)) << path;
  for (const char *path : {"a.oo", "cache", "a/top", "doc/b/a.txt", "a/doc/a.txt", "xx/y", "kept"})
    EXPECT_TRUE(filter.covers(path)) << path;

  const ScopeFilter some({{}, {"a/b", "c"}}, {});
  for (const char *path : {"a/b", "a/b/c", "c", "c/d"})
    EXPECT_TRUE(some.covers(path)) << path;
  for (const char *path : {"a", "a/bc", "a/a", "cc", "d/c"})
    EXPECT_FALSE(some.covers(path)) << path;
  EXPECT_TRUE(some.leads_to_wanted("a"));
  for (const char *path : {"a/bb", "b", "a/b", "cc"})
    EXPECT_FALSE(some.leads_to_wanted(path)) << path;
}

TEST(ScrubScope, BringsPathsIntoNormalForm) {
  for (const char *path : {"a/b", "./a//b/", "a/./b/."}) {
    std::string normal = path;
    EXPECT_TRUE(scrub::normal_tree_path(normal)) << path;
    EXPECT_EQ(normal, "a/b");
  }
  for (const char *path : {"", "/a", "..", "a/../b", "a/.."}) {
    std::string normal = path;
    EXPECT_FALSE(scrub::normal_tree_path(normal)) << path;
  }
}

TEST_F(ScrubWalk, LeavesOutOtherFileSystems) {
  for (const char *directory : {"loop", "proc", "tmp"})
    fs::create_directories(root_ + "/" + directory);
  write("f");
  if (!scratch::cover_directory(root_ + "/tmp")) GTEST_SKIP() << scratch::kNoMounts;
  write("tmp/g");
  for (const auto &[source, target] : {std::pair{root_, "/loop"}, {"/proc/self/net", "/proc"}})
    ASSERT_EQ(mount(source.c_str(), (root_ + target).c_str(), nullptr, MS_BIND, nullptr), 0);

  EXPECT_EQ(walk(), (Paths{"f", "loop: ELOOP", "tmp/g"}));
  EXPECT_EQ(counts_.pseudo, 1U);
  EXPECT_EQ(walk({{}, {}, true}), (Paths{"f", "loop: ELOOP"}));
  EXPECT_EQ(counts_.other_file_systems, 2U);
  EXPECT_GT(walk({{}, {}, false, true}).size(), 3U);
  recorded_.one_file_system = true;
  EXPECT_EQ(walk().size(), 2U);
  EXPECT_STREQ(Tree(root_ + "/proc").pseudo_name(), "proc");
  EXPECT_EQ(Tree(root_ + "/tmp").pseudo_name(), nullptr);
  for (const char *target : {"/loop", "/proc", "/tmp"})
    umount2((root_ + target).c_str(), MNT_DETACH);
}

TEST_F(ScrubWalk, NamesTheTree) {
  fs::create_directories(root_ + "/a");
  const TreeRecord root = Tree(root_).identity();
  EXPECT_TRUE(same_tree(root, Tree(root_ + "/a/..").identity()));
  EXPECT_FALSE(same_tree(root, Tree(root_ + "/a").identity()));
  EXPECT_FALSE(same_tree(root, Tree("/proc").identity()));

  if (!scratch::cover_directory("/dev")) GTEST_SKIP() << scratch::kNoMounts;
  fs::create_directories("/dev/disk/by-label");
  if (mknod("/dev/disk/own", S_IFBLK | 0600, root.device) != 0)
    GTEST_SKIP() << "mknod needs CAP_MKNOD";
  fs::create_symlink("../other", "/dev/disk/by-label/other");
  fs::create_symlink("../own", "/dev/disk/by-label/My\\x20disk\\x5c");
  EXPECT_EQ(Tree(root_).identity().label, "My disk\\");
}

} // namespace
