// The monitors of the real program against a parent's socket: sample lines worked out by hand, a parent that comes late or
// is started anew, totals over restarts.

#include "monitor_link.h"
#include "parent_peer.h"
#include "test_run.h"
#include "tqp_main.h"

#include <csignal>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

static const std::string process_gdf = "cm_tqp_monitor_stats.gdf", instance_gdf = "cm_tqp_instance_monitor_stats.gdf",
                         statistics_gdf = "cm_tq_fp_stats.gdf",
                         totals_file = "tq/recovery/fp_stat_cummulative_count.txt";

class monitors : public tqp_test_run {
protected:
  parent_peer collector; // never answers
  std::unique_ptr<parent_peer> parent;
  std::unique_ptr<running_program> tqp;
  const std::string start = identity() + method(1, "a.B.main()V") + method(2, "a.B.sub()V") + "7,5,/shop\n";

  monitors() {
    keywords("ENABLE_FP_STAT_MONITOR 1\nTQP_MONITORS 1 1\nTQP_NEW_RAW_DATA_POLL_INTERVAL 10\n");
    write("sorted_scenario.conf", "ENABLE_AUTO_MONITOR_REGISTRATION 1\n");
    raw(start);
  }

  void write(const std::string &below, const std::string &text) const { put_file(path(below), text); }

  void wait_until_read() const {
    EXPECT_TRUE(eventually([&] { return saved_offset() == static_cast<long>(fs::file_size(raw_path())); }));
  }

  // Starts the program and waits until its threads run and it has read what is there.
  void begin(const std::string &interval_ms) {
    const int before = occurrences(trace(), "|Going in epoll");
    tqp = tqp_test_run::start({"-l", collector.port(), "-i", interval_ms, "-V", ">"});
    EXPECT_TRUE(eventually([&] { return occurrences(trace(), "|Going in epoll") > before; }));
    wait_until_read();
  }

  void start_parent() {
    parent = std::make_unique<parent_peer>();
    write("WLDHPort", parent->port() + "\n");
  }

  // The samples of a monitor, once there is a line that holds `words`.
  std::string samples_with(const std::string &gdf, const std::string &words) const {
    EXPECT_TRUE(eventually([&] { return parent->pump(), parent->samples(gdf).find(words) != std::string::npos; }))
        << words << " in " << parent->samples(gdf);
    return parent->samples(gdf);
  }

  void stop() {
    tqp->signal(SIGRTMIN + 3);
    EXPECT_EQ(0, tqp->wait(5).exit_status) << "monitors leave at once";
  }
};

// A main segment that takes `ms`; its method's query is `sql` ("": none).
static std::string flowpath(int fpi, int ms, const std::string &sql = "") {
  const std::string id = std::to_string(fpi), tuple = id + ":0:0:" + id, time = std::to_string(ms);
  return "2," + tuple + ",100,7,1,5,q,c,1,2,3,t,1,1,,,,1\n4," + tuple + ",200,1,1:0:0:0:0," + time +
         ",-,0,x,0,0,-,-,1:77_0_0_0_1:77_1_" + time + "_1:0:0:0:0_" + sql + "__\n";
}

TEST_F(monitors, first_samples_tell_all_that_was_done_before_the_parent_came) {
  begin("60000");
  std::string no_entry = flowpath(600, 5);
  no_entry.erase(no_entry.find("1:77_0_0_0_"), 11);
  std::string backwards = flowpath(503, 30); // its second method begins before its first one: 9, 5
  backwards.replace(backwards.find("1:77_0_0_0_"), 11, "1:77_0_9_0_2:77_0_5_0_2:77_1_1_0:0:0:0:0___");
  backwards.replace(backwards.find("1:77_1_30_"), 10, "1:77_1_21_");
  append_raw("22,8,9,select a\n22,  UPDATE b,10\n" + flowpath(501, 10, "9") + flowpath(502, 25, "10") + no_entry +
             backwards + "31,501,100,0,0,0,42,0,0,\nno event\n");
  wait_until_read();
  uintmax_t mb = 0;
  for (const char *name : {"HTTPHeaderMetaData", "FunctionalGroup", "IPResourceMetaData", "ExceptionThrowingMethod",
                           "ExceptionThrowingClass", "ExceptionStackTrace", "ExceptionMessage", "ExceptionClass",
                           "ExceptionCause", "MetaData", "URLTable", "SQL"}) {
    const std::string file = path(std::string("tq/csv/TQ") + name + ".csv");
    std::ofstream(file, std::ios::app) << "";
    fs::resize_file(file, ++mb << 20U);
  }
  start_parent();

  const std::string process = samples_with(process_gdf, "\n");
  const std::string head =
      "0:TQP|1 1.000000 2.000000 3.000000 4.000000 5.000000 6.000000 7.000000 8.000000 9.000000 10.000000 11.000000 12.000000 0 0 ";
  EXPECT_EQ(head + " 0 0\n", process.substr(0, head.size()) + process.substr(process.find(' ', head.size())));
  // The head of the file is looked at before it is read from its begin: the start's bytes are read twice, those of its
  // first line also count twice.
  char rate[32];
  const auto size = static_cast<double>(fs::file_size(raw_path()));
  snprintf(rate, sizeof rate, "%f", (static_cast<double>(start.size()) + size) / 1048576.0);
  EXPECT_EQ("5:Tier_Server_App|1 1 1 0 0 0 0 0 0 6 " + std::string(rate) + "\n", samples_with(instance_gdf, "\n"));

  // Three flowpaths in an interval of 60 s; the minimum counts from the second interval on.
  snprintf(rate, sizeof rate, "%f", (static_cast<double>(identity().size()) + size) / 1024.0 / 60);
  const std::string none = " 0.000000 0.000000 0.000000 0.000000 0";
  EXPECT_EQ("3|4|5:Tier>Server>App|3 0.050000 21.666667 0 30 3 " + std::string(rate) +
                " 0.033333 17.500000 10.000000 25.000000 2 0.016667 10.000000 10.000000 10.000000 1" + none +
                " 0.016667 25.000000 25.000000 25.000000 1" + none + none + none + none + " 0.016667\n",
            samples_with(statistics_gdf, "\n"));
  stop();
  EXPECT_EQ("Tier>Server>App,3\n", read(totals_file));
}

TEST_F(monitors, a_parent_that_is_started_anew_is_found_again) {
  start_parent();
  begin("1000");
  samples_with(statistics_gdf, "Tier>Server>App|0 ");
  append_raw(flowpath(501, 7) + flowpath(502, 9));
  samples_with(statistics_gdf, "Tier>Server>App|2 2.000000 8.000000 7 9 2 ");
  samples_with(instance_gdf, "5:Tier_Server_App|0 0 0 0 0 0 0 0 0 4 inf\n");
  samples_with(instance_gdf, "5:Tier_Server_App|0 0 0 0 0 0 0 0 0 0 -nan\n"); // an interval of no whole minute
  start_parent();
  for (const std::string &gdf : {process_gdf, instance_gdf, statistics_gdf})
    samples_with(gdf, "\n");
  const std::string who = ";TQP;" + std::to_string(tqp->pid()) + ";" + fs::path(directory).filename().string() + ";DVM";
  EXPECT_EQ(8 + process_gdf.size(), parent->bytes_of(process_gdf).find(who));
  samples_with(statistics_gdf, "Tier>Server>App|2 0.000000 0.000000 0 0 0 0.000000");
  EXPECT_EQ(1, occurrences(trace(), "TQP_FP_STAT_MONITOR  Connection closed by WL"));
  stop();
}

TEST_F(monitors, samples_come_at_their_interval_whatever_the_time_of_day_becomes) {
  static int64_t time_of_day = 1'700'000'000'000, passed = 1'000'000;
  const auto clock_before = std::exchange(wllb_clock_ms, [] { return time_of_day; });
  const auto monotonic_before = std::exchange(wllb_monotonic_ms, [] { return passed; });
  fp_stats_mon_frequency = 10000;
  const time_t last = wllb_monotonic_s();
  time_of_day -= 3'600'000;
  passed += 9'000;
  EXPECT_FALSE(tqp_sample_is_due(last));
  passed += 1'000;
  EXPECT_TRUE(tqp_sample_is_due(last));
  wllb_clock_ms = clock_before;
  wllb_monotonic_ms = monotonic_before;
}

TEST_F(monitors, samples_are_skipped_while_the_parent_leaves_too_much_unread) {
  tqp_process_state_init();
  wllb_copy_text(wl_wdir, sizeof wl_wdir, directory);
  testidx = 1234;
  setenv("WL_WDIR", directory.c_str(), 1);
  start_parent();
  const monitor_words words = {"", "", "", nullptr, [](int tries, const char *) { return tries; }};
  monitor_link link = {"a.gdf", &words, true, tqp_links_epoll(1)};
  const auto wait = [&] { tqp_links_wait(link.epoll_fd, {&link}, 1, 10); };
  tqp_link_begin(&link);
  wait();
  ASSERT_TRUE(tqp_link_ready(&link));
  const std::string mb(1 << 20U, 'x');
  for (int i = 0; i < 40 && tqp_link_ready(&link); ++i)
    tqp_link_send(&link, mb);
  EXPECT_LT(1 << 20U, link.con->write_bytes_remaining);
  EXPECT_TRUE(eventually([&] { return parent->pump(), wait(), tqp_link_ready(&link); }));
  tqp_link_drop(&link);
  close(link.epoll_fd);
  unsetenv("WL_WDIR");
}

TEST_F(monitors, totals_go_on_after_a_restart_for_those_who_were_there_at_its_start) {
  fs::create_directories(path("tq/recovery"));
  write(totals_file, "no comma\nGone>S%s>A,3\nTier>Server>App,40\nSilent>S>A,50\n");
  raw("", "Silent_S_A"); // there, but it tells its names later
  start_parent();
  begin("1000");
  append_raw(flowpath(501, 7));
  samples_with(statistics_gdf, "Tier>Server>App|41 1.000000 ");
  const std::string with_waiting = "Tier>Server>App,41\nGone>S%s>A,3\nSilent>S>A,50\n";
  EXPECT_TRUE(eventually([&] { return read(totals_file) == with_waiting; })) << read(totals_file);
  raw(identity("Silent_S_A", 6, 7, 8), "Silent_S_A");
  raw(identity("Later_S_A", 6, 7, 9), "Later_S_A");
  samples_with(statistics_gdf, "6|7|8:Silent>S>A|50 0.000000 ");
  stop();
  EXPECT_EQ("Tier>Server>App,41\nSilent>S>A,50\n", read(totals_file)) << "nobody can ask for the others any more";

  start_parent();
  begin("1000");
  append_raw(flowpath(502, 7));
  samples_with(statistics_gdf, "Tier>Server>App|42 1.000000 ");
  samples_with(statistics_gdf, "6|7|8:Silent>S>A|50 0.000000 ");
  samples_with(statistics_gdf, "6|7|9:Later>S>A|0 0.000000 ");
  parent.reset(); // totals need no parent that takes samples
  EXPECT_TRUE(eventually([&] { return occurrences(trace(), "TQP_FP_STAT_MONITOR  Connection closed by WL") > 0; }));
  append_raw(flowpath(503, 7));
  EXPECT_TRUE(eventually([&] { return occurrences(read(totals_file), "Tier>Server>App,43\n") == 1; }));
  stop();
}
