// tq_sample --online: what a collector says on its port.
//   In      the program beside this one, and clients that this test plays
//   Out     test runs in a directory of their own
//   Failure a message that the daemon would not understand
#include "test_run.h"
#include "wllb_sock.h"
#include "wllb_util.h"

#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace std::string_literals;
const auto control_request = "tq_control_req:action=fp_stats;TEST_RUN=%s;TQP_PID=4711\n"s;
const auto old_request = "tq_meta_data_req:action=x;appName=shop;tqAppServerHost=web01;tierName=Storefront;%s;0\n"s;
const auto new_request = "TraceQuarryMessage 2.0;Tier:Storefront;Server:web01;Instance:shop;Message:%s;SeqNo:0;\n"s;
const auto web01 = "/logs/TR1234/20260302090000/tq/raw_data/Storefront_web01_shop.txt"s;

struct client {
  int fd;

  client(int port, std::string words, const std::string &what = "") {
    std::string error;
    fd = wllb_tcp_connect("127.0.0.1", port, 5, &error);
    if (const size_t at = words.find("%s"); at != std::string::npos)
      words.replace(at, 2, what);
    send(fd, words.data(), words.size(), MSG_NOSIGNAL);
  }

  ~client() { close(fd); }

  std::string hear(const std::string &end) const { // or else up to the close
    std::string got;
    for (char c; !got.ends_with(end) && recv(fd, &c, 1, 0) == 1;)
      got += c;
    return got;
  }
};

class online_sample : public tqp_test_run {
protected:
  std::unique_ptr<running_program> play(const std::string &options) {
    const auto program = "/tq_sample --testrun 1234 --instances 3 --partitions 1 --online --end --dir ";
    top = directory + "/" + std::to_string(++plays);
    auto started = std::make_unique<running_program>(wllb_words(TQP_BINARY_DIR + (program + top) + options, 99), top);
    EXPECT_TRUE(eventually([&] { return occurrences(made(".out"), "port") == 2; }));
    port = atoi(made(".out").c_str() + strlen("collector port "));
    return started;
  }

  std::string made(const std::string &name) const { return wllb_read_small_file((top + name).c_str()); }

  const std::function<bool()> ended = [this] { return made(web01).ends_with("\n10,\n"); };
  int plays = 0, port = 0; // of the latest program
  std::string top;
};

TEST_F(online_sample, tells_of_switches_and_instances_when_their_files_are_there) {
  const auto program = play(" --switch-every 2 --add-after 2 --remove-after 4 --remove-with disable --seconds 5");
  const client control(port, control_request, "1234"), other(port, control_request, "8");
  EXPECT_EQ("tq_control_rep:action=fp_stats;result=Error;no such test run\n", other.hear("\n"));
  EXPECT_EQ("tq_control_msg:action=test_run_switch;PARTITION_NAME=20260302090004\n", control.hear("\n"));
  EXPECT_EQ(1, occurrences(made("/logs/TR1234/20260302090000/.partition_info.txt"), "NextPartition=20260302090004\n"));
  EXPECT_EQ(0U, made("/logs/TR1234/20260302090004/tq/raw_data/Storefront_web02_shop.txt").find("0,Storefront,web02,"));
  EXPECT_TRUE(made(web01).ends_with("\n"));
  EXPECT_EQ("tq_control_msg:action=active_instance_msg;Tier=Orders;Server=ord02;Instance=orders;\n"
            "tq_control_msg:action=test_run_switch;PARTITION_NAME=20260302090006\n"
            "tq_control_msg:action=disableInstance Storefront web01 shop\n",
            control.hear("the close"));
  EXPECT_EQ(0, program->wait().exit_status);
  EXPECT_EQ("CurPartitionIdx=20260302090006\n", made("/logs/TR1234/.curPartition"));
  EXPECT_TRUE(made("/logs/TR1234/20260302090006/tq/raw_data/Orders_ord02_orders.txt").ends_with("\n10,\n"));
}

TEST_F(online_sample, tells_on_request_what_its_agents_have_forgotten) {
  for (const std::string mode : {"good", "split"}) {
    const auto program = play(" --seconds 1 --linger 60 --forget 3 --metadata-replies " + mode);
    EXPECT_TRUE(eventually(ended));
    const std::string all = client(port, new_request, "All").hear("\n\n\n"), body = all.substr(all.find("\n5,") + 1);
    EXPECT_NE(std::string::npos, all.find(wllb_format("Length:%zu;Ack:0;", body.size() - 2))) << all.substr(0, 999);
    std::vector<std::string> forgotten = lines_of(body); // of methods
    std::erase_if(forgotten,
                  [&](auto &line) { return !line.starts_with("5,") || occurrences(made(web01), line + "\n") > 0; });
    const int all_methods = occurrences("\n" + body, "\n5,"), left = static_cast<int>(forgotten.size());
    ASSERT_TRUE(left > all_methods / 4 && left < all_methods / 2) << left << " of " << all_methods;
    const std::string one = forgotten[0] + "\n", id = "5_" + std::to_string(atoi(one.c_str() + one.rfind(',') + 1));
    EXPECT_EQ(one + "tq_meta_data_rep:status=complete;\n", client(port, old_request, id).hear("complete;\n"));
    EXPECT_TRUE(client(port, new_request, id + "_1772442000").hear("\n\n\n").ends_with(";SeqNo:0;\n" + one + "\n\n"));
    for (const std::string kind : {"6", "7", "21", "26", "32", "33", "34", "35", "36", "41"}) {
      const std::string answer = client(port, old_request, kind + "_1:1772442000").hear("complete;\n");
      EXPECT_TRUE(occurrences(answer, "\n") == 2 && answer.starts_with(kind == "21" ? "2" : kind + ",")) << answer;
    }
  }
}

} // namespace
