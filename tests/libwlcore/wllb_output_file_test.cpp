// Names at which somebody has put something else than a file: what is written, emptied and given away is never that. Most of
// it can only be seen as root, since nobody else can give files away.

#include "wllb_output_file.h"

#include "wllb_test_dir.h"
#include "wllb_util.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

class output_file : public testing::Test {
protected:
  static constexpr uid_t other = 12345;
  const wllb_test_dir dir;
  const std::string path = dir / "name";
  const std::string victim = dir / "victim";
  const wllb_owner owner = {other, other};

  output_file() { put_file(victim, "precious\n"); }

  static uid_t owner_of(const std::string &where) {
    struct stat facts = {};
    EXPECT_EQ(0, lstat(where.c_str(), &facts)) << where;
    return facts.st_uid;
  }

  void expect_victim_untouched() const {
    EXPECT_EQ("precious\n", file_text(victim));
    EXPECT_EQ(geteuid(), owner_of(victim));
  }
};

TEST_F(output_file, nothing_but_a_plain_file_is_opened_emptied_or_given_away) {
  const auto make = [this](const std::string &kind) {
    std::filesystem::remove_all(path);
    if (kind == "link")
      std::filesystem::create_symlink(victim, path);
    else if (kind == "link to nothing")
      std::filesystem::create_symlink(dir / "not there", path);
    else if (kind == "FIFO")
      EXPECT_EQ(0, mkfifo(path.c_str(), 0666));
    else if (kind == "directory")
      std::filesystem::create_directory(path);
  };
  for (const std::string kind : {"link", "link to nothing", "FIFO", "directory"})
    for (const int flags : {O_WRONLY, O_RDWR, O_WRONLY | O_CREAT, O_RDWR | O_CREAT, O_WRONLY | O_CREAT | O_APPEND,
                            O_WRONLY | O_CREAT | O_TRUNC}) {
      SCOPED_TRACE(kind + " " + std::to_string(flags));
      make(kind);
      EXPECT_EQ(-1, wllb_open_output(path.c_str(), flags, owner));
      expect_victim_untouched();
      EXPECT_FALSE(std::filesystem::exists(dir / "not there"));
      EXPECT_EQ(geteuid(), owner_of(path));
    }
  for (const std::string kind : {"link", "link to nothing", "FIFO", "nothing"}) { // a new file takes the name
    make(kind);
    const wllb_fd made(wllb_open_output(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, owner));
    EXPECT_TRUE(made.fd >= 0 && std::filesystem::is_regular_file(std::filesystem::symlink_status(path))) << kind;
    expect_victim_untouched();
  }
}

TEST_F(output_file, plain_files_are_made_kept_emptied_and_given_to_their_owner) {
  const bool is_root = geteuid() == 0;
  for (const std::string before : {"", "old"})
    for (const int more : {0, O_TRUNC, O_APPEND}) {
      put_file(path, before);
      const wllb_fd file(wllb_open_output(path.c_str(), O_RDWR | O_CREAT | more, owner));
      EXPECT_TRUE(wllb_write_all(file.fd, "new!"));
      EXPECT_EQ((more == O_APPEND ? before : "") + "new!", file_text(path));
      EXPECT_EQ(is_root ? other : geteuid(), owner_of(path));
    }
  std::filesystem::create_hard_link(victim, dir / "second name");
  EXPECT_LE(0, wllb_fd(wllb_open_output((dir / "second name").c_str(), O_RDWR, owner)).fd);
  expect_victim_untouched();
}

TEST_F(output_file, directories_and_links_are_given_away_in_place) {
  if (geteuid() != 0)
    GTEST_SKIP() << "only root can give files away";
  const std::string disk = dir / "disk", link = dir / "link";
  std::filesystem::create_directories(disk + "/tq");
  ASSERT_TRUE(wllb_make_link(disk.c_str(), link.c_str(), owner));
  EXPECT_FALSE(wllb_make_link(victim.c_str(), link.c_str(), owner)) << "a name that is taken";
  EXPECT_EQ(other, owner_of(link));
  for (const std::string &name : {link, link + "/", link + "//", victim})
    wllb_own_directory(name.c_str(), owner);
  EXPECT_EQ(0U, owner_of(disk)) << "the link was not followed";
  expect_victim_untouched();
  wllb_own_directory((link + "/tq//").c_str(), owner); // links before the last place are
  EXPECT_EQ(other, owner_of(disk + "/tq"));
  const wllb_fd file(wllb_open_output((link + "/tq/f").c_str(), O_WRONLY | O_CREAT, owner));
  EXPECT_EQ(other, owner_of(disk + "/tq/f"));
}
