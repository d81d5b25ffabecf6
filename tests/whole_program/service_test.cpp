// What a service manager and a collector of metrics learn of a running program.

#include "test_run.h"
#include "wllb_util.h"

#include <csignal>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace fs = std::filesystem;

class as_a_service : public tqp_test_run {
protected:
  void SetUp() override {
    const std::string path = directory + "/notify";
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    wllb_copy_text(address.sun_path, sizeof address.sun_path, path);
    manager.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ASSERT_EQ(0, bind(manager.fd, reinterpret_cast<const sockaddr *>(&address), sizeof address));
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    setenv("WATCHDOG_USEC", "150000", 1);
    keywords("TQP_METRICS_FILE_SEC 1\nTQP_NEW_RAW_DATA_POLL_INTERVAL 10\n");
  }

  void TearDown() override {
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
  }

  // Whether the manager has got these words, now or before; takes what has come.
  bool heard(const std::string &words) {
    char buffer[512];
    for (ssize_t got; (got = recv(manager.fd, buffer, sizeof buffer, 0)) > 0;)
      log += std::string(buffer, static_cast<size_t>(got)) + "|";
    return log.find(words) != std::string::npos;
  }

  std::string metrics() const { return read("tq/logs/tqp_metrics.prom"); }

  wllb_fd manager;
  std::string log;
};

TEST_F(as_a_service, is_ready_alive_and_stopping_in_words_of_the_manager) {
  raw(identity());
  const auto tqp = start();
  ASSERT_TRUE(eventually([&] { return heard("READY=1"); }));
  EXPECT_EQ(std::string::npos, log.find("STOPPING=1"));
  for (int sign = 0; sign < 3; ++sign) {
    log.clear();
    EXPECT_TRUE(eventually([&] { return heard("WATCHDOG=1"); }));
  }
  tqp->signal(SIGTERM);
  EXPECT_EQ(0, tqp->wait().exit_status);
  EXPECT_TRUE(heard("STOPPING=1"));
}

TEST_F(as_a_service, keeps_a_metrics_file_that_is_replaced_as_a_whole) {
  const std::string hostile = "Ti\"er_Ser\\ver_App";
  raw(identity() + "2,cut\n");
  raw(identity(hostile, 7, 8, 9), hostile);
  const auto tqp = start();
  const std::string labels = "{instance=\"Tier_Server_App\",testrun=\"1234\"";
  const std::string hostile_labels = "{instance=\"Ti\\\"er_Ser\\\\ver_App\",testrun=\"1234\"";
  // One text that has it all: each is a moment's picture.
  ASSERT_TRUE(eventually([&] {
    const std::string seen = metrics();
    return occurrences(seen, "tqp_errors_total" + labels + ",kind=\"bad_record\"} 1\n") == 1 &&
           occurrences(seen, "tqp_lag_bytes" + labels + "} 0\n") == 1 &&
           occurrences(seen, "tqp_lag_bytes" + hostile_labels + "} 0\n") == 1 &&
           occurrences(seen, "tqp_raw_data_bytes_total" + labels + "} 0\n") == 0 &&
           occurrences(seen, "tqp_up{testrun=\"1234\"} 1\n") == 1;
  })) << metrics();
  const std::string samples = metrics();
  const wllb_run_result check = wllb_run_program({"promtool", "check", "metrics"}, samples);
  if (check.exit_status >= 0) { // it is installed
    EXPECT_EQ(0, check.exit_status) << check.output << samples;
  }
  append_raw(std::string(5000, '#') + "\n");
  // Whoever reads meanwhile sees a whole text, from the first line to the last.
  for (int look = 0; look < 300; ++look) {
    const std::string seen = metrics();
    ASSERT_EQ(0U, seen.find("# HELP tqp_up ")) << seen;
    ASSERT_NE(std::string::npos, seen.find("kind=\"dead_flowpath\"} 0\n", seen.size() - 80)) << seen;
    usleep(5000);
  }
  tqp->signal(SIGTERM);
  EXPECT_EQ(0, tqp->wait().exit_status);
  EXPECT_EQ(1, occurrences(metrics(), "tqp_up{testrun=\"1234\"} 0\n"));
  EXPECT_FALSE(fs::exists(path("tq/logs/tqp_metrics.prom.new")));
}
