// One monitor's connection against a real parent's socket: registration to the byte, a parent that comes late, reads
// slowly, or leaves.

#include "wllb_mon_registration_con.h"

#include "../support/parent_peer.h"
#include "wllb_test_dir.h"

#include <memory>
#include <poll.h>

class mon_registration : public testing::Test {
protected:
  wllb_test_dir dir;
  std::string err_msg;
  MonRegCon *con = wllb_mon_reg_init("work", "a.gdf", "TQP", 4711, &err_msg, 7);
  std::unique_ptr<parent_peer> parent;
  // 28, the length: 23 bytes of text and 5; 162
  const std::string registration = std::string("\x1c\0\0\0\xa2\0\0\0a.gdf;TQP;4711;work;DVM", 32);

  mon_registration() {
    setenv("WL_WDIR", dir.path.c_str(), 1);
    std::filesystem::create_directories(dir / "logs/TR7");
  }

  ~mon_registration() override { wllb_mon_reg_destroy(&con, &err_msg); }

  bool told(const std::string &words) const { return err_msg.find(words) != std::string::npos; }

  void start_parent() {
    parent = std::make_unique<parent_peer>();
    put_file(dir / "logs/TR7/WLDHPort", parent->port() + "\n");
  }

  // Goes on once if it is connecting; the last result.
  int connect() {
    if (const int result = wllb_mon_reg_create_and_send(con, &err_msg); result != 2)
      return result;
    EXPECT_EQ(WLLB_MON_REG_CONNECTING, con->flags);
    pollfd socket = {.fd = con->mon_reg_fd, .events = POLLOUT, .revents = 0};
    poll(&socket, 1, 5000);
    return wllb_mon_reg_create_and_send(con, &err_msg);
  }

  int send(const std::string &text) {
    return wllb_mon_reg_send(con, text.data(), static_cast<int>(text.size()), &err_msg);
  }
};

TEST_F(mon_registration, a_parent_may_come_late_and_leave) {
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(-3, connect());
  EXPECT_EQ(" :Error received in getting port :Error received in getting port", err_msg);
  start_parent();
  parent.reset(); // its port stays in the file
  EXPECT_EQ(-2, connect());
  EXPECT_TRUE(told("Error: Connection not established for component TQP and gdf a.gdf. So need to re-establish"));
  wllb_mon_reg_destroy(&con, &err_msg);

  con = wllb_mon_reg_init("work", "a.gdf", "TQP", 4711, &err_msg, 7);
  start_parent();
  EXPECT_EQ(0, connect());
  EXPECT_EQ(WLLB_MON_REG_CONNECTED, con->flags);
  EXPECT_TRUE(told("and destination address (127.0.0.1:" + parent->port() + "). Info: Complete data has been sent."));
  EXPECT_EQ(0, send("one\n"));
  parent->pump();
  EXPECT_EQ(registration + "one\n", parent->bytes_of("a.gdf"));

  parent.reset();
  int result = 0;
  for (int i = 0; result == 0 && i < 100000; ++i)
    result = send("x\n");
  EXPECT_EQ(-1, result);
  EXPECT_TRUE(told("Error: Error in writing message to WL for Component: TQP, Gdf: a.gdf. Error: "));
}

TEST_F(mon_registration, a_slow_parent_gets_everything_in_order) {
  start_parent();
  ASSERT_EQ(0, connect());
  std::string sent = registration;
  for (int i = 0; i < 400; ++i) { // 8 MB, some of it always unsent once the sockets are full
    const std::string line = std::to_string(i) + std::string(20000, 'x') + "\n";
    sent += line;
    ASSERT_LE(0, send(line));
    while (con->write_bytes_remaining > 100000) {
      EXPECT_TRUE(con->flags & WLLB_MON_REG_PARTIAL_WRITE);
      parent->pump();
      ASSERT_LE(0, wllb_mon_reg_send(con, nullptr, 0, &err_msg));
    }
  }
  EXPECT_TRUE(told("Warning: Partial data sent. Total bytes to write = "));
  EXPECT_GT(1000000, con->write_buf_size) << "bounded by what is unsent";
  while (wllb_mon_reg_send(con, nullptr, 0, &err_msg) == 1)
    parent->pump();
  EXPECT_EQ(WLLB_MON_REG_CONNECTED, con->flags);
  parent->pump();
  EXPECT_TRUE(sent == parent->bytes_of("a.gdf"));
}
