// Asks an agent, through the collector, for metadata that a record refers to: whether to ask, both forms of the request,
// the connection and its limits.
//   In      the kind and local id of what is missing, the time of the record that names it
//   Out     a request; the reply's records in the instance's maps; disable_req_metadata_from_bci after a failure
//   Thread  the instance's, which waits for the reply and holds no lock meanwhile
//   Failure traced; requests of the instance pause until the reader loop or the agent lets them go on
// Samples:  tq_meta_data_req:action=send_meta_data;appName=orders;tqAppServerHost=ord01;tierName=Orders;5_17:9000;0
//           TraceQuarryMessage 2.0;Version:2.0;TxnId:1073742;...;Message:5_17_9000;...;TimeStamp:9000;TimeOut:600;SeqNo:0;

#include "metadata_request.h"

#include "metadata_reply.h"
#include "process_sockets.h"
#include "process_wake.h"
#include "record_errors.h"
#include "tqp_recovery.h"

#include "wllb_sock.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

int tq_metadata_epoll_timeout = 60000;
int tq_metadata_new_form_timeout = 600000;

constinit thread_local bool tqp_reads_reply = false;

// A deadline lies this much behind its limit, ms.
static constexpr int deadline_margin = 100;

// How often a wait looks for the stop of a process whose test is over, ms.
static constexpr int stop_poll_interval = 200;

static constexpr int metadata_request_timeout_s = 600; // as told to the agent
static constexpr int on_connection = 0;
static constexpr float first_new_form_version = 2.0F;

// --- what is known -------------------------------------------------------------------------------------------------------

// The map of a kind that may be asked for; null for any other.
static const loc2norm_row *row_of_kind(int kind) {
  for (const loc2norm_row &row : loc2norm_rows)
    if (row.kind == kind && row.bit != LOC2NORM_EXCP_ST)
      return &row;
  return nullptr;
}

static bool is_known(const tqp_instance_t *inst, const loc2norm_row &row, int64_t id) {
  switch (row.bit) {
  case LOC2NORM_HTTP_HEADER:
    return inst->http_header_map.at_or_zero(id).http_header_name != nullptr;
  case LOC2NORM_URL:
    return (inst->url_map.at_or_zero(id) & norm_id_flag) != 0;
  case LOC2NORM_SQL:
    return id <= INT32_MAX && sql_query_map_read_loc2norm(inst->sql_query_map.data, static_cast<int>(id),
                                                          inst->sql_query_map_size, nullptr) > 0;
  default:
    return (inst->*row.map).at_or_zero(id) != 0;
  }
}

static bool may_ask(const tqp_instance_t *inst) {
  return tqp_enable_metadata_recovery == 1 && wl_status == WL_RUNNING && !inst->disable_req_metadata_from_bci &&
         tqc_port >= 1 && !tqp_reads_reply;
}

// --- the exchange --------------------------------------------------------------------------------------------------------

// The stop descriptor stays readable once the test is over; from then on the state is looked at from time to time.
static void forget_stop(tqp_exchange *x) {
  tqp_remove_select(x->epfd, tqp_stop_fd());
  x->watches_stop = false;
}

tqp_wait_result tqp_wait_for_agent(tqp_exchange *x) {
  for (;;) {
    if (wl_status == WL_STOP_NOW)
      return WAIT_STOPPED;
    const int64_t left = x->deadline - wllb_monotonic_ms();
    if (left <= 0)
      return WAIT_EXPIRED;
    const int turn = x->watches_stop ? tq_metadata_epoll_timeout : stop_poll_interval;
    epoll_event event;
    const int ready = epoll_wait(x->epfd, &event, 1, static_cast<int>(std::min<int64_t>(left, turn)));
    if (ready == 1 && event.data.fd == x->fd)
      return WAIT_READY;
    if (ready == 1 && wl_status != WL_STOP_NOW)
      forget_stop(x);
  }
}

// The connection to the collector, or -1. A stop ends the attempt.
static int tq_conect_to_TQC_for_metadata_req(const tqp_exchange *x) {
  const int64_t left_s = (x->deadline - wllb_monotonic_ms()) / 1000;
  std::string err;
  const int fd =
      wllb_tcp_connect("127.0.0.1", tqc_port, static_cast<int>(std::max<int64_t>(left_s, 1)), &err, tqp_stop_fd());
  if (fd < 0) {
    wllb_trace(1, "Error", "Error in connection with TQC on server %s port %d.", "127.0.0.1", tqc_port);
    return -1;
  }
  fcntl(fd, F_SETFL, O_NONBLOCK);
  return fd;
}

static bool begin_exchange(tqp_exchange *x, int limit_ms) {
  x->deadline = wllb_monotonic_ms() + limit_ms + deadline_margin;
  x->fd = tq_conect_to_TQC_for_metadata_req(x);
  if (x->fd < 0)
    return false;
  x->epfd = tqp_epoll_init(1);
  x->watches_stop = tqp_watch_stop(x->epfd);
  return tqp_add_select(x->epfd, x->fd, EPOLLIN) == 0;
}

static void end_exchange(tqp_exchange *x) {
  tqp_end_reply(x);
  for (int fd : {x->fd, x->epfd})
    if (fd >= 0)
      close(fd);
}

static void count_request(tqp_instance_t *inst) {
  tqp_instance_mon_stat_info_t &stats = inst->tqp_instance_mon_stat_info;
  wllb_hold hold(stats.tqp_instance_mon_str_lock);
  ++stats.metadata_recovery_req_count;
}

static bool send_request(const tqp_exchange *x, const std::string &line) {
  return tqp_send_message(x->fd, line.data(), static_cast<int>(line.size())) >= 0;
}

// --- the old form --------------------------------------------------------------------------------------------------------

static std::string old_request(const tqp_instance_t *inst, int kind, int64_t id, int64_t timestamp_ms) {
  std::string line = wllb_format(
      "tq_meta_data_req:action=send_meta_data;appName=%s;tqAppServerHost=%s;tierName=%s;%d_%lld",
      tqp_name(inst->appName), tqp_name(inst->serverName), tqp_name(inst->tierName), kind, static_cast<long long>(id));
  if (timestamp_ms != 0)
    line += wllb_format(":%lld", static_cast<long long>(timestamp_ms));
  return line + wllb_format(";%d\n", on_connection);
}

static bool tq_get_meta_data_from_BCI(tqp_exchange *x, int kind, int64_t id, int64_t timestamp_ms) {
  return begin_exchange(x, tq_metadata_epoll_timeout) &&
         send_request(x, old_request(x->inst, kind, id, timestamp_ms)) && tqp_read_old_reply(x);
}

// --- the new form --------------------------------------------------------------------------------------------------------

static std::string new_request(const tqp_instance_t *inst, int kind, int64_t id, int64_t timestamp_ms) {
  const auto now = static_cast<int64_t>(static_cast<uint64_t>(wllb_now()) - static_cast<uint64_t>(g_vex_epoc_diff));
  const auto stamp = static_cast<long long>(timestamp_ms != 0 ? timestamp_ms : now);
  const int txn_id = static_cast<int>(now) | 0x40000000;
  const char *const tier = tqp_name(inst->tierName), *const server = tqp_name(inst->serverName),
                    *const app = tqp_name(inst->appName);
  if (inst->meta_recovery_counter >= tqp_max_suc_meta_data_req_count_per_partition)
    return wllb_format(
        "TraceQuarryMessage 2.0;Version:2.0;TxnId:%d;Connection:New;Priority:0;Encoding:none;SrcComp:TQP;DestComp:Agent;Tier:%s;Server:%s;Instance:%s;MsgName:send_meta_data;MsgType:0;Status:Success;Message:All;Operation:Forward;ContentLength:0;TimeStamp:%lld;TimeOut:%d;SeqNo:0;\n",
        txn_id, tier, server, app, stamp, metadata_request_timeout_s);
  return wllb_format(
      "TraceQuarryMessage 2.0;Version:2.0;TxnId:%d;Connection:New;Priority:0;Encoding:none;SrcComp:TQP;DestComp:Agent;Tier:%s;Server:%s;Instance:%s;MsgName:send_meta_data;MsgType:0;Status:Success;Message:%d_%lld_%lld;Operation:Forward;ContentLength:0;TimeStamp:%lld;TimeOut:%d;SeqNo:0;\n",
      txn_id, tier, server, app, kind, static_cast<long long>(id), stamp, stamp, metadata_request_timeout_s);
}

static bool tq_get_meta_data_from_BCI_V2(tqp_exchange *x, int kind, int64_t id, int64_t timestamp_ms) {
  if (!begin_exchange(x, tq_metadata_new_form_timeout))
    return false;
  if (!send_request(x, new_request(x->inst, kind, id, timestamp_ms))) {
    wllb_trace(1, "Error", "Failed to send Tracequarry request to BCI, '%s'.", wllb_strerror(errno).c_str());
    return false;
  }
  return tqp_read_new_reply(x);
}

// --- asking --------------------------------------------------------------------------------------------------------------

static void ask(tqp_instance_t *inst, int kind, int64_t id, int64_t timestamp) {
  const auto timestamp_ms = static_cast<int64_t>(static_cast<uint64_t>(timestamp) * 1000); // wraps
  count_request(inst);
  {
    const tqp_reply_guard reading;
    tqp_exchange x;
    x.inst = inst;
    const bool good = inst->fpg_version < first_new_form_version
                          ? tq_get_meta_data_from_BCI(&x, kind, id, timestamp_ms)
                          : tq_get_meta_data_from_BCI_V2(&x, kind, id, timestamp_ms);
    end_exchange(&x);
    if (!good)
      inst->disable_req_metadata_from_bci = 1;
  }
  if (tqp_meta_data_recovery_retry_timeout_in_sec == 0) // then the next record may try again at once
    inst->disable_req_metadata_from_bci = 0;
  if (inst->disable_req_metadata_from_bci)
    inst->last_meta_data_retry_time_in_sec = wllb_monotonic_s();
}

void get_meta_data_for_events_from_bci(tqp_instance_t *inst, int kind, int64_t id, int64_t timestamp) {
  if (id < 1) {
    const std::string text = wllb_format("id %d is negative or 0, so can not be processed request for meta data",
                                         static_cast<int>(std::max<int64_t>(id, INT32_MIN)));
    dump_tqp_error_log(inst, RAWERR_META_DATA, text.c_str());
    return;
  }
  const loc2norm_row *row = row_of_kind(kind);
  if (row && may_ask(inst) && !is_known(inst, *row, id))
    ask(inst, kind, id, timestamp);
}

void tqp_request_all_metadata(tqp_instance_t *inst, int kind) {
  if (may_ask(inst))
    ask(inst, kind, 0, 0);
}
