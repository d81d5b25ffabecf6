// Requests for missing metadata: what goes out, and what each kind of reply leaves behind, however it is cut.

#include "metadata_request.h"

#include "metadata_reply.h"
#include "one_instance_run.h"
#include "output_files_fixture.h"
#include "process_wake.h"
#include "test_run.h"
#include "tqp_recovery.h"

#include <arpa/inet.h>
#include <csignal>
#include <functional>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <thread>

namespace {

// The collector's end: takes one connection after the other, reads the request's line, plays its part and waits until
// the peer closes.
struct agent {
  using part = std::function<void(int fd)>;

  explicit agent(part its_part) : plays(std::move(its_part)) {
    sockaddr_in at = {.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    socklen_t size = sizeof at;
    bind(listener, reinterpret_cast<sockaddr *>(&at), size);
    listen(listener, 1);
    getsockname(listener, reinterpret_cast<sockaddr *>(&at), &size);
    tqc_port = ntohs(at.sin_port);
    thread = std::thread([this] { serve(); });
  }

  void serve() {
    for (int fd; (fd = accept(listener, nullptr, nullptr)) >= 0; close(fd)) {
      char c = 0;
      while (c != '\n' && read(fd, &c, 1) == 1)
        requests += c;
      plays(fd);
      while (read(fd, &c, 1) > 0)
        ;
    }
  }

  // The requests that came.
  std::string over() {
    shutdown(listener, SHUT_RDWR);
    thread.join();
    close(listener);
    tqc_port = -1;
    return requests;
  }

  part plays;
  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::string requests;
  std::thread thread;
};

void no_answer(int fd) {
  shutdown(fd, SHUT_WR);
}

enum ending { CLOSES, STAYS };

// Sends a text in two pieces, or (at 0) byte by byte.
void send_cut(int fd, const std::string &text, size_t cut, ending then = CLOSES) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  for (size_t at = 0, len = cut == 0 ? 1 : cut; at < text.size(); at += len, len = cut == 0 ? 1 : text.size()) {
    send(fd, text.data() + at, std::min(len, text.size() - at), MSG_NOSIGNAL);
    usleep(300);
  }
  if (then == CLOSES)
    no_answer(fd);
}

std::string answer(const std::string &body, const std::string &items = "") {
  return "TraceQuarryMessage 2.0;Version:2.0;Status:Success;" + items + "ContentLength:" + std::to_string(body.size()) +
         ";SeqNo:0;\n" + body + "\n\n";
}

class metadata_request : public testing::Test {
protected:
  tqp_instance_t *inst = open_one_instance_run();

  metadata_request() {
    signal(SIGPIPE, SIG_IGN);
    trkey = wllb_init_mt_trace_log_ex(base_dir.c_str(), g_partition_idx, "trace.log", 1, 1);
    wllb_trace_partition = g_partition_idx.load();
    tqp_reset_wl_status();
    run_block(inst, "0,Tier,Server,App,1,2,3\n");
    set_limits(20000);
  }

  ~metadata_request() override {
    tq_metadata_epoll_timeout = 60000;
    tq_metadata_new_form_timeout = 600000;
    tqc_port = -1;
    tqp_reset_wl_status();
    wllb_clean_mt_trace_log(trkey);
    trkey = nullptr;
    close_one_instance_run(inst);
  }

  static void set_limits(int ms) { tq_metadata_epoll_timeout = tq_metadata_new_form_timeout = ms; }

  std::string of_partition(const std::string &below) const {
    return file_text(base_dir + inst->partition_name + "/" + below);
  }

  // Asks for method 7 while an agent plays its part. The request.
  std::string ask(float version, const agent::part &plays, int kind = TQ_EV_METHOD_DISCOVERY, int64_t id = 7,
                  int64_t timestamp = 0) {
    inst->fpg_version = version;
    agent other_side(plays);
    get_meta_data_for_events_from_bci(inst, kind, id, timestamp);
    return other_side.over();
  }

  uint32_t requests() const {
    wllb_hold hold(inst->tqp_instance_mon_stat_info.tqp_instance_mon_str_lock);
    return inst->tqp_instance_mon_stat_info.metadata_recovery_req_count;
  }

  std::vector<int> known_methods() const {
    std::vector<int> known;
    for (int i = 0; i < inst->method_map.size; ++i)
      if (inst->method_map.data[i] != 0)
        known.push_back(i);
    return known;
  }

  void forget() {
    std::error_code not_there;
    std::filesystem::resize_file(base_dir + inst->partition_name + "/trace.log", 0, not_there);
    tqp_free_local_maps(inst);
    inst->disable_req_metadata_from_bci = 0;
  }
};

struct reply_row {
  const char *name;
  float version;
  std::string reply;
  ending then;
  std::vector<int> known; // methods
  bool paused;
  const char *traced;
};

// The old request up to what it asks for.
const std::string front = "tq_meta_data_req:action=send_meta_data;appName=App;tqAppServerHost=Server;tierName=Tier;";

const std::string complete = "tq_meta_data_rep:status=complete;";
const std::string two = "5,a.b.C.m()V,7\n5,a.b.C.n()V,8\n";

// clang-format off
const reply_row reply_rows[] = {
    {"old", 1, two + complete + "\n", CLOSES, {7, 8}, false, "Complete message received."},
    {"old, on after the end", 1, complete + two + complete + "\n", CLOSES, {7, 8}, false, "Complete"},
    {"old, busy", 1, complete + "=Error;TQCollector is busy in processing another request.\n" + two, CLOSES, {}, false, "Error in read message '"},
    {"old, error", 1, "5,a.b.C.m()V,7\nstatus=Error;unknown\n" + two, CLOSES, {7}, true, "Error in read message 'status=Error;unknown'"},
    {"old, no comma", 1, "5,a.b.C.m()V,7\njunk\n" + two, CLOSES, {7}, false, "Event id is not found in read message 'junk'"},
    {"old, no number", 1, "5,a.b.C.m()V,7\nx5,a.b.C.n()V,8\n", CLOSES, {7}, false, "non numeric event id 'x5'  found, seems bad data."},
    {"old, partial", 1, "5,a.b.C.m()V,7", STAYS, {}, true, "Error in read message is partial."},
    {"old, closed", 1, two, CLOSES, {7, 8}, true, ""},
    {"old, silent", 1, "5,a.b.C.m()V,7\n", STAYS, {7}, true, "Timer expired for metadata message."},
    {"new", 2, answer(two), CLOSES, {7, 8}, false, "Meta Data Body response Message []"},
    {"new, acknowledged first", 2, "TraceQuarryMessage 2.0;Ack:1;\n" + answer(two, "Ack:0;"), CLOSES, {7, 8}, false, ""},
    {"new, failed", 2, "TraceQuarryMessage 2.0;Status:fAILED;Message:no agent;ContentLength:30;\n" + two, CLOSES, {}, true, "Error in meta data recovery.Error[no agent]"},
    {"new, no length", 2, "TraceQuarryMessage 2.0;Status:Success;Message:none\n" + two, CLOSES, {}, true, "Meta data body doesn't received yet.msg[none]"},
    {"new, length 0", 2, "b;ContentLength:0;\n" + two, CLOSES, {}, true, "Meta data body doesn't received yet."},
    {"new, length -30", 2, "b;ContentLength:-30;\n" + two, CLOSES, {}, true, "Meta data body doesn't received yet."},
    {"new, length 67108865", 2, "b;ContentLength:67108865;\n" + two, CLOSES, {}, true, "Meta data body doesn't received yet."},
    {"new, length 99999999999999999999", 2, "b;ContentLength:99999999999999999999;\n" + two, CLOSES, {}, true, "Meta data body doesn't received yet."},
    {"new, broken header", 2, "TraceQuarryMessage 2.0;Status;ContentLength:30;\n" + two, CLOSES, {}, true, "Meta data body doesn't received yet."},
    {"new, closed in the body", 2, "b;ContentLength:67108864;\n" + two, CLOSES, {7, 8}, true, "Control connection closed by Tier Server App"},
    {"new, closed in the header", 2, "TraceQuarryMessage 2.0;Stat", CLOSES, {}, true, ""},
    {"new, silent in the body", 2, "b;ContentLength:31;\n" + two, STAYS, {7, 8}, true, "Timer expired for metadata message."},
    {"new, silent in the header", 2, "TraceQuarryMessage 2.0;Ack:1;\nb", STAYS, {}, true, "Timer expired for metadata message."},
    {"new, three digits", 2, answer("\njunk\n112,1,{\"a\":1}\n0,X,Y,Z,9,9,9\n15,1,/x,900\n,\n" + two), CLOSES, {7, 8}, false, "non numeric event id '112'  found, seems bad data."},
};

// clang-format on

// Good replies are cut everywhere, the others come whole and byte by byte; in the old form a first read without a newline
// is an error of its own.
TEST_F(metadata_request, each_reply_leaves_what_it_should_however_it_is_cut) {
  for (const reply_row &row : reply_rows)
    for (size_t cut = row.version < 2 ? row.reply.find('\n') + 1 : 0; cut <= row.reply.size(); ++cut) {
      if (row.paused && cut != 0)
        cut = row.reply.size();
      SCOPED_TRACE(std::string(row.name) + ", cut at " + std::to_string(cut));
      forget();
      set_limits(row.then == STAYS ? 100 : 20000);
      ask(row.version, [&](int fd) { send_cut(fd, row.reply, cut, row.then); });
      EXPECT_EQ(row.known, known_methods());
      EXPECT_EQ(row.paused, inst->disable_req_metadata_from_bci != 0);
      EXPECT_NE(std::string::npos, of_partition("trace.log").find(row.traced)) << of_partition("trace.log");
    }
  EXPECT_EQ(0, inst->get_tsa_id + inst->httpbody_remaining_bytes) << "the raw file goes on as it was";
  EXPECT_STREQ("Tier", inst->tierName);
}

TEST_F(metadata_request, says_what_is_missing_and_once_in_a_while_asks_for_everything) {
  const agent::part full = [](int fd) { send_cut(fd, answer(two), 1); };
  EXPECT_EQ(front + "21_7:9000;0\n", ask(1.5F, no_answer, 21, 7, 9));
  EXPECT_EQ("", ask(1.5F, no_answer, 21, 7, 9)) << "paused by the failure";
  EXPECT_NEAR(static_cast<double>(wllb_monotonic_s()), static_cast<double>(inst->last_meta_data_retry_time_in_sec), 5);
  tqp_meta_data_recovery_retry_timeout_in_sec = 0;
  inst->disable_req_metadata_from_bci = 0;
  EXPECT_EQ(front + "112_7;0\n", ask(0, no_answer, 112));
  for (const int answered : {99, 100, 0}) {
    forget();
    inst->meta_recovery_counter = static_cast<uint16_t>(answered);
    const std::string what = answered == 100 ? "All" : "5_7_9000";
    const std::string request = ask(2, full, 5, 7, 9);
    const size_t txn = std::min(request.find("TxnId:"), request.size());
    EXPECT_EQ("TraceQuarryMessage 2.0;Version:2.0;Connection:New;Priority:0;Encoding:none;SrcComp:TQP;DestComp:Agent;"
              "Tier:Tier;Server:Server;Instance:App;MsgName:send_meta_data;MsgType:0;Status:Success;Message:" +
                  what + ";Operation:Forward;ContentLength:0;TimeStamp:9000;TimeOut:600;SeqNo:0;\n",
              request.substr(0, txn) + request.substr(request.find(';', txn) + 1));
    EXPECT_TRUE(atoi(request.c_str() + txn + 6) & 0x40000000);
    EXPECT_EQ(answered == 100 ? 0 : answered + 1, inst->meta_recovery_counter);
  }
  for (const int kind : {5, 37, 8}) // known, never asked for, no kind
    EXPECT_EQ("", ask(2, full, kind));
  for (const int id : {0, -1})
    EXPECT_EQ("", ask(2, full, 5, id));
  EXPECT_EQ(2, inst->rawerr_log_counter[RAWERR_META_DATA].g_count);
  tqc_port = 0;
  get_meta_data_for_events_from_bci(inst, 5, 99, 0);
  EXPECT_EQ(5U, requests());
}

TEST_F(metadata_request, a_stop_ends_the_wait_and_the_end_of_the_test_does_not) {
  set_limits(600000);
  for (const bool over_first : {false, true})
    for (const bool answers : {false, true}) {
      forget();
      tqp_reset_wl_status();
      const int64_t begun = get_ms_stamp_tqp();
      ask(2, [&](int fd) {
        if (over_first)
          tqp_set_wl_status(WL_OVER);
        if (!answers)
          return tqp_set_wl_status(WL_STOP_NOW);
        send_cut(fd, answer(two), 9);
      });
      EXPECT_LT(get_ms_stamp_tqp() - begun, 10000);
      EXPECT_EQ(answers ? 2U : 0U, known_methods().size());
    }
}

// clang-format off
const std::pair<const char *, const char *> asking_records[] = { // old form: kind_id:ms, without a time when none is told
    {"2,5:0:0:5,2,1000,0,0,1,0\n", ""},
    {"3,5:0:0:5,31_0_100_32_\n", "5_31; 41_32; "},
    {"3,5:0:0:5,T1:33:3.5:2:34:5:35:::::_\n", "5_33:2000; 21_34; 26_35:2000; "},
    {"3,5:0:0:5,G36:2:37:5:1:9:20:3:1_\n", "5_36:2000; 21_37:2000; "},
    {"38,5,7,41,0,1,42,43,44,45,0,46,47,1\n", "5_41:7000; 32_43:7000; 33_44:7000; 34_45:7000; 35_46:7000; 36_47:7000; "},
    {"38,5,7,-1,0,2,42,43,44,45,0,0,0,1\n", "21_42:7000; "},
    {"4,5:0:0:5,200,1,4:0:0:0:0,35,51,-,-,-,52,1,c,\n", "112_52:9000; 7_51:2000000; "},
};

// clang-format on

TEST_F(metadata_request, each_record_asks_for_what_it_names) {
  tqp_meta_data_recovery_retry_timeout_in_sec = 0;
  for (int bit = LOC2NORM_EXCP_CLS; bit <= LOC2NORM_EXCP_CAUSE; ++bit)
    tqp_store_loc2norm(inst, bit, 1, 1);
  for (const auto &[record, expected] : asking_records) {
    g_vex_epoc_diff = wllb_now() - 9;
    agent other_side(no_answer);
    run_block(inst, record);
    std::string asked;
    for (const std::string &line : lines_of(other_side.over()))
      asked += line.substr(front.size(), line.rfind(';') + 1 - front.size()) + " ";
    EXPECT_EQ(expected, asked) << record;
  }
}

// The record that asks goes on with its segment; what ends flowpaths, or begins some, comes after it.
TEST_F(metadata_request, records_of_a_reply_wait_for_the_record_that_asked) {
  inst->fpg_version = 2;
  const std::string begin_other = "2,9:0:0:9,1,1000,0,0,1,0\n3,9:0:0:9,55_0_10_0_\n";
  const std::string reply = "11,x\n99,a,FPGVersion:1.0,NODEJS\n" + begin_other + "4,5:0:0:5,0,0\n5,a.b.C.q()V,17\n";
  run_block(inst, "2,5:0:0:5,1,1000,0,0,1,0\n");
  ASSERT_EQ(0, inst->last_occupied_fp_idx);
  agent other_side([&](int fd) { send_cut(fd, answer(reply), 30); });
  run_block(inst, "3,5:0:0:5,17_0_100_0_17_1_5_0____\n");
  const long offset = inst->raw_data_file_offset;
  EXPECT_NE("", other_side.over());
  EXPECT_EQ(1U, requests()) << "none for what stands in a reply";
  EXPECT_EQ(0, inst->disable_req_metadata_from_bci);
  EXPECT_EQ(1.0F, inst->fpg_version);
  csv_dump_all_files(inst);
  EXPECT_EQ(0U, of_partition("tq/csv/Tier_Server_App/TQFlowPath.csv").find("5,1,2,3,1000,0,0,1,105,"))
      << "with its method";
  EXPECT_EQ(9, inst->con_fp_buf.data[0].main_fpi) << "the first flowpath has ended, and its slot is the other's";
  EXPECT_EQ("Offset:" + std::to_string(offset) + "\n" + reply,
            of_partition("tq/raw_data/recovery/Tier_Server_App_metadata_recovery.txt"));
}

TEST_F(metadata_request, queries_of_an_old_recovery_file_are_asked_for_anew) {
  const sql_query_map_t old = {9, 1, 1};
  std::filesystem::create_directories(make_loc2_norm_file_path(inst, ""));
  put_file(make_loc2_norm_file_path(inst, ".TQSQL.recovery"), {reinterpret_cast<const char *>(&old), sizeof old});
  inst->fpg_version = 1;
  agent other_side([](int fd) { send_cut(fd, "22,select 1,9\n22,select 2,10\n" + complete + "\n", 14); });
  read_loc2norm_rec_file(inst, 1 << LOC2NORM_SQL);
  EXPECT_NE(std::string::npos, other_side.over().find(";21_0;0\n"));
  EXPECT_EQ(2, inst->sql_query_map_size);
  EXPECT_TRUE(std::filesystem::exists(make_loc2_norm_file_path(inst, ".SQLMapNewVer")));
}

} // namespace
