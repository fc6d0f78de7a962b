// test-links: scrub_objects
// Tests the manifest: what it keeps of a tree and in how many bytes, what the reader refuses, and
// how the writer replaces the manifest before.
// SPDX-License-Identifier: Apache-2.0
#include "manifest_reader.hpp"
#include "manifest_writer.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "support/scratch.hpp"

static int link_error = 0;

// Replaces the system's, as a file system without links.
extern "C" int linkat(int from, const char *name, int to, const char *other, int flags) noexcept {
  errno = link_error;
  if (link_error != 0) return -1;
  return static_cast<int>(syscall(SYS_linkat, from, name, to, other, flags));
}

namespace {

using namespace scrub;
using namespace std::string_literals;
using scratch::read_file;
using scratch::write_file;

struct Recorded {
  FileRecord file;
  std::vector<Checksums> blocks;
};

TreeRecord some_tree() {
  TreeRecord tree;
  tree.root = "/srv/\xff data";
  tree.device = UINT64_MAX;
  tree.inode = 2;
  tree.file_system = 0x123456789ABCDEF0;
  tree.label = "data";
  tree.pseudo = true;
  tree.excludes = {"*.o", "cache/tmp"};
  return tree;
}

// Makes data blocks that differ; the content of every zeros-th block is zeros.
Recorded recorded(const String &path, std::uint64_t size, std::uint64_t zeros = 0) {
  static std::uint32_t next = 1;
  Recorded made{{path, size, {1700000000, 123456789}, {1700000100, 1}, 1000 + next}, {}};
  for (std::uint64_t i = 0; i < block_count(size); ++i) {
    const std::size_t length = block_length(size, i);
    Checksums block{next++, sector_count(length), {}};
    for (std::size_t sector = 0; sector < block.sectors; ++sector)
      block.guards[sector] = static_cast<std::uint16_t>(next + sector);
    const bool zero = zeros != 0 && i % zeros == 0 && length == kBlockSize;
    made.blocks.push_back(zero ? zero_block() : block);
  }
  return made;
}

void add(ManifestWriter &writer, const Recorded &one) {
  writer.begin_file(one.file);
  for (const Checksums &block : one.blocks)
    writer.add_block(block);
}

bool same_time(const timespec &a, const timespec &b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

class Opened {
public:
  explicit Opened(const std::string &path, ManifestReader::Kind kind = ManifestReader::Kind::kWhole)
      : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)), reader_(fd_.get(), "m", kind) {}
  ManifestReader *operator->() { return &reader_; }

private:
  Fd fd_;
  ManifestReader reader_;
};

void expect_files(Opened &manifest, const std::vector<Recorded> &files) {
  FileRecord file;
  Checksums block;
  for (const Recorded &want : files) {
    ASSERT_TRUE(manifest->next_file(file));
    EXPECT_EQ(file.path, want.file.path);
    EXPECT_EQ(file.size, want.file.size);
    EXPECT_EQ(file.inode, want.file.inode);
    EXPECT_TRUE(same_time(file.written, want.file.written));
    EXPECT_TRUE(same_time(file.changed, want.file.changed));
    if (file.path.starts_with("skip")) continue;
    for (std::size_t i = 0; i < want.blocks.size(); ++i)
      ASSERT_TRUE(manifest->next_block(block) && block == want.blocks[i]) << file.path << " " << i;
    EXPECT_FALSE(manifest->next_block(block));
  }
  EXPECT_FALSE(manifest->next_file(file));
}

// Returns why the reader refuses the manifest, an empty text if it does not. A partial manifest is
// refused only before its files, and must have ended within the blocks of a file if in_blocks.
std::string refusal(const std::string &content, bool partial = false) {
  const scratch::Directory directory;
  write_file(directory / "m", content);
  using Kind = ManifestReader::Kind;
  try {
    Opened manifest(directory / "m", partial ? Kind::kPartial : Kind::kWhole);
    FileRecord file;
    Checksums block;
    while (manifest->next_file(file)) {
      while (manifest->next_block(block)) {
      }
    }
  } catch (const ManifestError &error) {
    return error.what();
  }
  return "";
}

std::string framed(const std::vector<std::string> &payloads) {
  std::string manifest(kManifestHeader);
  FrameCode code;
  code.add(manifest);
  for (const std::string &payload : payloads) {
    char head[kFrameHead];
    code.add(payload);
    store_little(static_cast<std::uint32_t>(payload.size()), head);
    store_little(code.value(), head + 4);
    manifest.append(head, sizeof head).append(payload);
  }
  return manifest;
}

class Manifest : public testing::Test {
protected:
  scratch::Directory directory_;
  OwnPaths paths_{directory_.path(), "m", directory_.path()};

  std::string at(const std::string &name) const { return directory_ / name; }
  mode_t mode(const std::string &name) const {
    struct stat status {};
    return stat(at(name).c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
  }
  void write(const std::vector<Recorded> &files) const {
    ManifestWriter writer(paths_, some_tree());
    for (const Recorded &one : files)
      add(writer, one);
    writer.commit();
  }
};

TEST_F(Manifest, KeepsWhatItIsGiven) {
  std::vector<Recorded> files{recorded("\x01\xff", 4096 * 5 - 1, 2), recorded("a", 0)};
  files.push_back(recorded("a/" + String(kPathPiece, 'p'), 513));
  files.push_back(recorded("a/" + String(kPathPiece, 'p') + "q", 1));
  for (int i = 0; i < 200; ++i) // one path of 400 kB
    files.push_back(recorded(files.back().file.path + "/" + String(2000, 'n'), i == 0 ? 70 : 0));
  files.push_back(recorded("large", 4096 * 10000 + 700));
  files.push_back(recorded("mixed", 4096 * 20000, 2));
  files.push_back(recorded("skip", 4096 * 9000 + 4000, 7));
  files.push_back(recorded("z", 4096 * 3));
  files[0].file.written = {INT64_MIN, 999999999};
  files[1].file.written = {INT64_MAX, 0};
  files[1].file.changed = {-1, 0x3FFFFFFF};
  files[2].file.changed = {0, -1};
  files[2].file.inode = 0;
  files[3].file.inode = UINT64_MAX;

  ManifestWriter writer(paths_, some_tree());
  const Recorded dropped_small = recorded("d", 3 * 4096, 2);
  const Recorded dropped_large = recorded("la", 4096 * 8000 + 5, 3);
  for (const Recorded &one : files) {
    for (const Recorded *dropped : {&dropped_small, &dropped_large}) {
      if (!path_before(dropped->file.path, one.file.path) ||
          (writer.totals().files != 0 && one.file.path[0] != 'l'))
        continue;
      add(writer, *dropped);
      writer.drop_file();
    }
    add(writer, one);
  }
  const Totals totals = writer.totals();
  writer.commit();

  Opened manifest(paths_.manifest());
  const TreeRecord tree = manifest->tree();
  const TreeRecord want = some_tree();
  EXPECT_TRUE(tree.known && tree.pseudo && !tree.one_file_system);
  EXPECT_EQ(tree.root, want.root);
  EXPECT_EQ(tree.label, want.label);
  EXPECT_EQ(tree.excludes, want.excludes);
  EXPECT_EQ(tree.device, want.device);
  EXPECT_EQ(tree.inode, want.inode);
  EXPECT_EQ(tree.file_system, want.file_system);
  expect_files(manifest, files);
  EXPECT_EQ(manifest->totals(), totals);
  EXPECT_EQ(manifest->code(), writer.code());
}

// docs/manifest.md explains these bytes.
TEST_F(Manifest, IsWrittenAsDocumented) {
  TreeRecord tree;
  tree.root = "/t";
  tree.device = 1;
  tree.inode = 2;
  ManifestWriter writer(paths_, tree);
  add(writer, {{"a", 5, {1, 0}, {2, 0}, 3}, {checksums_of(std::as_bytes(std::span("hello", 5)))}});
  writer.commit();
  EXPECT_EQ(read_file(paths_.manifest()),
            "vorn-scrub-manifest 2 block 4096 crc32c sector 512 crc16-t10dif\n"
            "\x09\0\0\0\x4f\x3e\x46\xfb\1\1\2\0\2/t\0\0"
            "\x14\0\0\0\x64\x56\xaf\x23\3\1a\5\2\0\4\0\6"
            "\x0c\x4c\xbb\x71\x9a\x82\xe9\6\1\1\5"s);
}

TEST_F(Manifest, IsSmall) {
  const auto bytes = [&](const std::vector<Recorded> &files) {
    write(files);
    return read_file(paths_.manifest()).size();
  };
  const std::size_t empty = bytes({});
  EXPECT_LT(bytes({recorded("large", 40960000)}) - empty, 20 * 10000 + 200);

  ManifestWriter sparse(paths_, some_tree());
  sparse.begin_file({"sparse", std::uint64_t{1} << 50, {}, {}, 1});
  sparse.add_zero_blocks(std::uint64_t{1} << 38);
  sparse.commit();
  EXPECT_LT(read_file(paths_.manifest()).size() - empty, 50);
  Opened manifest(paths_.manifest());
  FileRecord file;
  Checksums block;
  ASSERT_TRUE(manifest->next_file(file) && manifest->next_block(block) && block == zero_block());
  EXPECT_EQ(manifest->next_zeros(), (std::uint64_t{1} << 38) - 1);
  EXPECT_FALSE(manifest->next_file(file));

  std::mt19937 engine(1);
  const auto random = [&](long end) { return static_cast<long>(engine() % end); };
  std::vector<Recorded> files;
  for (int i = 10000; i < 11000; ++i) {
    files.push_back(recorded("documents/chapter/paragraph" + String(std::to_string(i)), 400));
    files.back().file.written = {1700000000 + random(100000), random(1000000000)};
    files.back().file.changed = {1700200000 + i / 100, random(1000000000)};
  }
  EXPECT_LT(bytes(files) - empty, 40 * files.size());
}

// Records of a manifest of one file "a" of five bytes.
const std::string kTree = "\1\1\2\0\2/t\0\0"s;
const std::string kFileA = "\3\1a\5\0\0\0\0\0"s;
const std::string kBlockA = "\x0c\1\2\3\4\5\6"s;
const std::string kEndA = "\6\1\1\5"s;

TEST(ManifestRefusal, OfRecordsThatTheWriterDoesNotWrite) {
  const auto file = [](const std::string &path, const std::string &rest = "\0\0\0\0\0\0"s) {
    return "\3"s + static_cast<char>(path.size()) + path + rest;
  };
  const std::string zero_bytes = [] {
    std::string bytes(kBlockBytes, '\0');
    store_block(zero_block(), bytes.data());
    return bytes;
  }();
  const std::string sized = "\3\1a\x81\x60\0\0\0\0\0"s; // three blocks and a byte
  const std::string data(kBlockBytes, '\1');
  const std::string path_piece = "\2"s + std::string(kPathPiece, 'a');
  const struct {
    std::string payload;
    std::string why;
  } kCases[] = {
      {kFileA + kBlockA + kEndA, ""},
      {"\3\1b\0\0\0\0\0\0"s + file("a"), "out of order"},
      {file("a") + "\x0b\1b\0\0\0\0\0\0"s + "\6\2\0\0"s, ""},
      {file("a") + file("ab"), "no proper record of a file"}, // shares a byte
      {file("a") + "\x13\1b"s, "no proper record of a file"},
      {file("b") + "\x0b\2/a\0\0\0\0\0\0"s + "\6\2\0\0"s, ""},
      {file("b") + "\x0b\2\0a\0\0\0\0\0\0"s, "no proper record of a file"},
      {file("../a"), "path of a file"},
      {file("a/./b"), "path of a file"},
      {file("/a"), "path of a file"},
      {file("a/"), "path of a file"},
      {file("a//b"), "path of a file"},
      {file("a\0"s), "no proper record of a file"},
      {file(""), "no proper record of a file"},
      {"\3\x81\0a\0\0\0\0\0\0"s, "no proper record of a file"}, // an overlong number
      {"\3\1a\xff\xff\xff\xff\xff\xff\xff\xff\xff\1"s, "no proper record of a file"}, // size
      {"\3\1a\0\0\0\2\1\0"s, "no proper record of a file"}, // a change at no time
      {path_piece + "\x83\x80\x10\1b\0\0\0\0\0\0"s + "\6\1\0\0"s, ""},
      {path_piece + "\3\1b\0\0\0\0\0\0"s, "no proper record of a file"},
      {path_piece + kEndA, "a record of a file, or"},
      {kTree + kFileA, "a record of a file, or"},
      {"\7", "a record of a file, or"},
      {"\xff\xff\xff\xff\xff\xff\xff\xff\xff\2"s, "no proper record"},
      {kFileA + kEndA, "block 0 of the file"},
      {kFileA + "\x0d"s, "not have that many"}, // zeros as the short last block
      {kFileA + "\x14\1\2\3\4\5\6\1\2\3\4\5\6"s, "not have that many"},
      {kFileA + "\4"s, "not have that many"},
      {kFileA + "\x0c\1\2\3\4\5"s, "does not fit into its frame"},
      {kFileA + kBlockA + kBlockA, "a record of a file, or"},
      {sized + "\x0c"s + zero_bytes, "block of zeros"},
      {sized + "\x0d\x0d"s, "the one before"},
      {sized + "\x0c"s + data + "\x0c"s + data, "the one before"},
      {sized + "\x1d\x0c\1\2\3\4\5\6"s + "\6\1\4\x81\x60"s, ""},
      {kFileA + kBlockA + "\6\1\2\5"s, "the totals do not fit"},
      {kFileA + kBlockA + "\x0e\1\1\5"s, "no proper last record"},
      {kFileA + kBlockA + kEndA + kEndA, "more after the last"},
  };
  for (const auto &[payload, why] : kCases) {
    const std::string said = refusal(framed({kTree, payload}));
    EXPECT_EQ(said.empty(), why.empty()) << why << " " << said;
    EXPECT_NE(said.find(why), said.npos) << why << " " << said;
    EXPECT_EQ(refusal(framed({kTree, payload}), true), "") << why;
  }
  EXPECT_EQ(refusal(framed({kTree, kFileA, kEndA})),
            "m, byte 106: block 0 of the file before should be here");
  EXPECT_NE(refusal(framed({kFileA})).find("record of the tree"), std::string::npos);
  EXPECT_NE(refusal(framed({"\x21" + kTree.substr(1)})).find("record of a tree"),
            std::string::npos);
  EXPECT_NE(refusal(framed({kTree, kFileA + kBlockA, kEndA}) + "x").find("more after"),
            std::string::npos);
  std::string pieces;
  std::vector<std::string> payloads{kTree};
  for (std::size_t at = 0; at <= kMaxPath; at += kPathPiece) {
    std::string head;
    for (std::uint64_t number = at << kKindBits | 2; number != 0 || head.empty(); number >>= 7)
      head += static_cast<char>(number >= 0x80 ? number | 0x80 : number);
    payloads.push_back(head + std::string(kPathPiece, 'a'));
  }
  EXPECT_NE(refusal(framed(payloads)).find("proper record of a file"), std::string::npos);
}

TEST_F(Manifest, IsRefusedIfAnyByteDiffersOrIsMissing) {
  const std::vector<Recorded> files{recorded("a", 9000), recorded("b", 4096 * 3, 2)};
  write(files);
  const std::string good = read_file(paths_.manifest());
  const std::size_t first = kManifestHeader.size() + kFrameHead;
  const std::size_t tree_end =
      first + load_little<std::uint32_t>(good.data() + kManifestHeader.size());
  for (std::size_t i = 0; i < good.size(); ++i) {
    const std::string cut = good.substr(0, i);
    std::string wrong = good;
    wrong[i] = static_cast<char>(wrong[i] ^ 1 << i % 8);
    for (const std::string &bad : {cut, wrong}) {
      EXPECT_NE(refusal(bad), "") << i;
      EXPECT_EQ(refusal(bad, true).empty(), i >= tree_end) << i;
    }
  }
}

TEST_F(Manifest, OfAnotherVersionOrKindIsNamed) {
  const std::string rest = " block 4096 crc32c\n";
  const std::string future = "this program cannot read version 13 of the manifest, only 1 and 2";
  EXPECT_EQ(refusal("vorn-scrub-manifest 13" + rest), "m, byte 0: " + future);
  EXPECT_EQ(refusal("01234567 vorn-scrub-manifest 13" + rest), "m, byte 0: " + future);
  EXPECT_EQ(refusal("vorn-scrub-manifest 2" + rest),
            "m, byte 0: this program cannot read this kind of manifest");
  for (const std::string other : {"", "x", "vorn-scrub-manifest ", "vorn-scrub-manifest 1\n"})
    EXPECT_NE(refusal(other), "");
}

constexpr std::string_view kVersion1 =
    R"(6d487046 vorn-scrub-manifest 1 block 4096 crc32c sector 512 crc16-t10dif
cd0b8572 file 5 1700000000.500000000 a
e0959ff1 block 0 9a71bb4c e982
49fbe680 file 5000 1700000001.123456789 b%20c
45f022a4 block 0 98f94189 0000 0000 0000 0000 0000 0000 0000 0000
74e5c546 block 1 2b41358e 0000 0000
31ce2a4e file 4096 1700000001.123456789 d/%FF%25
11ab1445 block 0 b5ebf97f 96bf 96bf 96bf 96bf 96bf 96bf 96bf 96bf
2f0e8dd3 file 0 -2.250000000 e
bb7fa7ee end files 4 blocks 4 bytes 9101
)";

TEST_F(Manifest, OfVersion1IsRead) {
  const timespec unknown{0, -1};
  const timespec late{1700000001, 123456789};
  const std::vector<Recorded> files{
      {{"a", 5, {1700000000, 500000000}, unknown, 0}, {{0x9a71bb4c, 1, {0xe982}}}},
      {{"b c", 5000, late, unknown, 0}, {zero_block(), {0x2b41358e, 2, {}}}},
      {{"d/\xff%", 4096, late, unknown, 0},
       {{0xb5ebf97f, 8, {0x96bf, 0x96bf, 0x96bf, 0x96bf, 0x96bf, 0x96bf, 0x96bf, 0x96bf}}}},
      {{"e", 0, {-2, 250000000}, unknown, 0}, {}}};
  write_file(paths_.manifest(), std::string(kVersion1));
  Opened manifest(paths_.manifest());
  EXPECT_EQ(manifest->version(), 1u);
  EXPECT_FALSE(manifest->tree().known);
  expect_files(manifest, files);
  EXPECT_EQ(manifest->code(), 0xbb7fa7eeu);
  EXPECT_NO_THROW(scrub::ManifestWriter(paths_, {})); // which replaces it

  const std::string good(kVersion1);
  std::string wrong = good;
  wrong[good.find("9a71bb4c")] = '8';
  EXPECT_EQ(refusal(wrong),
            "m, line 3: this line is not as it was written, or one before it is lost");
  EXPECT_EQ(refusal(wrong, true), "");
  const std::size_t header = good.find('\n') + 1;
  for (std::size_t i = 0; i < good.size(); ++i) {
    EXPECT_NE(refusal(good.substr(0, i)), "");
    EXPECT_EQ(refusal(good.substr(0, i), true).empty(), i >= header) << i;
  }
}

constexpr char kFirst[] = "vorn-scrub-manifest of an earlier run";

TEST_F(Manifest, KeepsTheOneBefore) {
  write_file(at("m"), kFirst);
  ASSERT_EQ(chmod(at("m").c_str(), 0644), 0);
  write_file(at("m.unfinished"), "of a killed run");
  for (const int error : {0, EPERM}) {
    link_error = error;
    const std::string before = read_file(at("m"));
    write({recorded("a", error == 0 ? 5 : 6)});
    EXPECT_EQ(read_file(at("m.old")), before);
    EXPECT_NE(read_file(at("m")), before);
    EXPECT_EQ(mode("m"), 0600u);
    EXPECT_EQ(mode("m.old"), 0600u);
    EXPECT_EQ(mode("m.unfinished"), 0u);
  }
}

TEST_F(Manifest, StaysAfterAFailure) {
  write_file(at("m"), kFirst);
  ASSERT_EQ(signal(SIGXFSZ, SIG_IGN), SIG_DFL);
  rlimit limit{100000, RLIM_INFINITY};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_THROW(write({recorded("a", 40960000)}), std::system_error);
  limit.rlim_cur = RLIM_INFINITY;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  {
    ManifestWriter writer(paths_, some_tree());
    EXPECT_THROW(ManifestWriter(paths_, some_tree()), std::runtime_error); // two at once
    add(writer, recorded("b", 4096));
    EXPECT_THROW(writer.begin_file({"a", 0, {}, {}, 0}), std::logic_error);
    writer.begin_file({"c", 1, {}, {}, 0});
    EXPECT_THROW(writer.commit(), std::logic_error);
  }
  ASSERT_EQ(mkdir(at("m.old").c_str(), 0700), 0);
  EXPECT_THROW(write({}), std::runtime_error);
  EXPECT_EQ(read_file(at("m")), kFirst);
  EXPECT_EQ(mode("m.unfinished"), 0u);
}

TEST_F(Manifest, ReplacesNoFileOfData) {
  for (const char *name : {"m", "m.old"}) {
    write_file(at(name), "vorn-scrub-manifesto");
    EXPECT_THROW(write({}), std::runtime_error);
    EXPECT_EQ(read_file(at(name)), "vorn-scrub-manifesto");
    write_file(at(name), "");
  }
  write({});
}

TEST_F(Manifest, OfAnInterruptedRunIsReadWhileTheNextIsWritten) {
  for (const std::uint64_t size : {4096u * 2, 4096u * 9000}) {
    std::vector<Recorded> files{recorded("a", 5), recorded("b", 9000, 2)};
    {
      ManifestWriter writer(paths_, some_tree());
      add(writer, files[0]);
      add(writer, files[1]);
      Recorded last = recorded("c", size);
      last.blocks.pop_back();
      add(writer, last);
      writer.keep_unfinished();
    }
    Opened partial(at("m.unfinished"), ManifestReader::Kind::kPartial);
    write({recorded("other", 1)});
    EXPECT_EQ(partial->tree().root, some_tree().root);
    expect_files(partial, files);
    EXPECT_FALSE(partial->block_missing());
  }

  write({recorded("a", 4096 * 9000)});
  const std::string whole = read_file(at("m"));
  write_file(at("m"), whole.substr(0, whole.size() / 2));
  Opened cut(at("m"), ManifestReader::Kind::kPartial);
  FileRecord file;
  Checksums block;
  ASSERT_TRUE(cut->next_file(file) && cut->next_block(block));
  EXPECT_FALSE(cut->block_missing());
  EXPECT_FALSE(cut->next_file(file));
  EXPECT_TRUE(cut->block_missing());
  EXPECT_FALSE(cut->next_block(block));
}

} // namespace
